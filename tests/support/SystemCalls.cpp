#include "SystemCalls.h"

#include <dlfcn.h>
#include <netdb.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

#include "Faults.h"

namespace {

// Never destroyed: the C library's calls may come after the end of main.
std::recursive_mutex& Mutex() {
    static auto* const mutex = new std::recursive_mutex;
    return *mutex;
}

std::vector<SystemCallHandler>& Handlers() {
    static auto* const handlers = new std::vector<SystemCallHandler>;
    return *handlers;
}

// Looked at before the lock is taken, which would order what the threads of a test do.
std::atomic<bool> interposed{false};

std::optional<long> Ask(SystemCall& call, const void* data) {
    if (!interposed.load(std::memory_order_relaxed)) {
        return std::nullopt;
    }
    const std::lock_guard<std::recursive_mutex> lock(Mutex());
    if (data != nullptr) {
        const Exempt exempt;
        call.value.assign(static_cast<const char*>(data), static_cast<std::size_t>(call.length));
    }
    for (auto handler = Handlers().rbegin(); handler != Handlers().rend(); ++handler) {
        if (const std::optional<long> answer = (*handler)(call)) {
            return answer;
        }
    }
    return std::nullopt;
}

// Answers from a handler, or else makes the real call with what the handlers made of the length.
template <class Result, class... Parameters, class... Arguments>
Result PassOn(Result (*)(Parameters...), SystemCall& call, const void* data,
              Arguments... arguments) {
    using Function = Result(Parameters...);
    auto* const next = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, call.name.c_str()));
    const std::optional<long> answer = Ask(call, data);
    if (!answer) {
        return next(static_cast<Parameters>(arguments)...);
    }
    if (call.name == "close") {
        next(static_cast<Parameters>(arguments)...);  // one that fails has closed all the same
    }
    errno = *answer < 0 ? static_cast<int>(-*answer) : errno;
    return static_cast<Result>(std::max(*answer, -1L));
}

template <class Function, class... Arguments>
auto Pass(Function* function, SystemCall call, Arguments... arguments) {
    return PassOn(function, call, nullptr, arguments...);
}

}  // namespace

Interposed::Interposed(SystemCallHandler handler) {
    const std::lock_guard<std::recursive_mutex> lock(Mutex());
    Handlers().push_back(std::move(handler));
    interposed = true;
}

Interposed::~Interposed() {
    const std::lock_guard<std::recursive_mutex> lock(Mutex());
    Handlers().pop_back();
    interposed = !Handlers().empty();
}

std::vector<SystemCall> CallLog::Calls(int descriptor) const {
    const std::lock_guard<std::recursive_mutex> lock(Mutex());
    std::vector<SystemCall> calls;
    for (const SystemCall& call : m_calls) {
        if (descriptor == -1 || call.descriptor == descriptor) {
            calls.push_back(call);
        }
    }
    return calls;
}

std::string CallLog::Names(int descriptor) const {
    std::string names;
    for (const SystemCall& call : Calls(descriptor)) {
        names += (names.empty() ? "" : " ") + call.name;
    }
    return names;
}

CallLog::CallLog()
    : m_interposed([this](SystemCall& call) {
          const Exempt exempt;
          if (call.name != "getaddrinfo" && call.name != "freeaddrinfo") {
              m_calls.push_back(call);
          }
          return std::optional<long>();
      }) {}

FailingCall::FailingCall(const std::string& name, int error, int n)
    : m_interposed([this, name, error, n](SystemCall& call) {
          const bool meant = call.name == name && Exempt::depth == 0;
          return meant && (++m_count == n || n == 0) ? std::optional<long>(-error) : std::nullopt;
      }) {}

// The calls themselves. The library reaches them through the dynamic linker, which finds these
// first.
extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    return Pass(&socket, {"socket", domain}, domain, type, protocol);
}
int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    return Pass(&bind, {"bind", fd}, fd, address, length);
}
int listen(int fd, int backlog) noexcept {
    return Pass(&listen, {"listen", fd, backlog}, fd, backlog);
}
int accept(int fd, sockaddr* address, socklen_t* length) {
    return Pass(&accept, {"accept", fd}, fd, address, length);
}
int connect(int fd, const sockaddr* address, socklen_t length) {
    return Pass(&connect, {"connect", fd}, fd, address, length);
}
int getsockname(int fd, sockaddr* address, socklen_t* length) noexcept {
    return Pass(&getsockname, {"getsockname", fd}, fd, address, length);
}
int shutdown(int fd, int how) noexcept {
    return Pass(&shutdown, {"shutdown", fd, 0, how}, fd, how);
}
int close(int fd) { return Pass(&close, {"close", fd}, fd); }

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
    const std::string bytes(static_cast<const char*>(value), size);
    return Pass(&setsockopt, {"setsockopt", fd, 0, option, bytes, "", level}, fd, level, option,
                value, size);
}
ssize_t send(int fd, const void* data, std::size_t length, int flags) {
    SystemCall call{"send", fd, static_cast<long>(length), flags};
    return PassOn(&send, call, data, fd, data, std::cref(call.length), flags);
}
ssize_t recv(int fd, void* buffer, std::size_t length, int flags) {
    SystemCall call{"recv", fd, static_cast<long>(length), flags};
    return PassOn(&recv, call, nullptr, fd, buffer, std::cref(call.length), flags);
}
int select(int count, fd_set* reads, fd_set* writes, fd_set* exceptions, timeval* limit) {
    const auto text = [](const timeval& t) {
        return std::to_string(t.tv_sec) + ":" + std::to_string(t.tv_usec);
    };
    return Pass(&select, {"select", count, 0, 0, "", limit == nullptr ? "none" : text(*limit)},
                count, reads, writes, exceptions, limit);
}
int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** list) {
    SystemCall call{"getaddrinfo", 0};
    {
        const Exempt exempt;
        call.value = std::string(host) + " " + (service == nullptr ? "none" : service);
    }
    return PassOn(&getaddrinfo, call, nullptr, host, service, hints, list);
}
void freeaddrinfo(addrinfo* list) noexcept {
    SystemCall call{"freeaddrinfo", 0};
    Ask(call, nullptr);
    reinterpret_cast<decltype(&freeaddrinfo)>(dlsym(RTLD_NEXT, "freeaddrinfo"))(list);
    errno = E2BIG;  // as it may do
}

}  // extern "C"
