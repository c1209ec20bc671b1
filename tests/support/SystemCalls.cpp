#include "SystemCalls.h"

#include <dlfcn.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

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

std::optional<long> Ask(SystemCall& call) {
    const std::lock_guard<std::recursive_mutex> lock(Mutex());
    for (auto handler = Handlers().rbegin(); handler != Handlers().rend(); ++handler) {
        if (const std::optional<long> answer = (*handler)(call)) {
            return answer;
        }
    }
    return std::nullopt;
}

// Answers from a handler, or else makes the real call with what the handlers made of the length.
template <class Function, class RealCall>
auto Pass(Function*, SystemCall call, RealCall real) {
    auto* const next = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, call.name.c_str()));
    using Result = decltype(real(next, call));
    if (const std::optional<long> answer = Ask(call)) {
        if (*answer < 0) {
            errno = static_cast<int>(-*answer);
            return static_cast<Result>(-1);
        }
        return static_cast<Result>(*answer);
    }
    return real(next, call);
}

}  // namespace

Interposed::Interposed(SystemCallHandler handler) {
    const std::lock_guard<std::recursive_mutex> lock(Mutex());
    Handlers().push_back(std::move(handler));
}

Interposed::~Interposed() {
    const std::lock_guard<std::recursive_mutex> lock(Mutex());
    Handlers().pop_back();
}

std::vector<SystemCall> CallLog::Calls(int descriptor) const {
    const std::lock_guard<std::recursive_mutex> lock(Mutex());
    std::vector<SystemCall> calls;
    std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(calls),
                 [descriptor](const SystemCall& call) {
                     return descriptor == -1 || call.descriptor == descriptor;
                 });
    return calls;
}

std::string CallLog::Names(int descriptor) const {
    std::string names;
    for (const SystemCall& call : Calls(descriptor)) {
        names += (names.empty() ? "" : " ") + call.name;
    }
    return names;
}

FailingCall::FailingCall(const std::string& name, int error, int n)
    : m_interposed([this, name, error, n](SystemCall& call) -> std::optional<long> {
          if (call.name == name && (++m_count == n || n == 0)) {
              return -error;
          }
          return std::nullopt;
      }) {}

// The calls themselves. The library reaches them through the dynamic linker, which finds these
// first.
extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    return Pass(&socket, {"socket", domain},
                [&](auto* next, auto&) { return next(domain, type, protocol); });
}

int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept {
    return Pass(&bind, {"bind", descriptor},
                [&](auto* next, auto&) { return next(descriptor, address, length); });
}

int listen(int descriptor, int backlog) noexcept {
    return Pass(&listen, {"listen", descriptor, backlog},
                [&](auto* next, auto&) { return next(descriptor, backlog); });
}

int accept(int descriptor, sockaddr* address, socklen_t* length) {
    return Pass(&accept, {"accept", descriptor},
                [&](auto* next, auto&) { return next(descriptor, address, length); });
}

int connect(int descriptor, const sockaddr* address, socklen_t length) {
    return Pass(&connect, {"connect", descriptor},
                [&](auto* next, auto&) { return next(descriptor, address, length); });
}

int setsockopt(int descriptor, int level, int option, const void* value,
               socklen_t length) noexcept {
    return Pass(&setsockopt,
                {"setsockopt", descriptor, 0, option,
                 std::string(static_cast<const char*>(value), length), "", level},
                [&](auto* next, auto&) { return next(descriptor, level, option, value, length); });
}

int getsockname(int descriptor, sockaddr* address, socklen_t* length) noexcept {
    return Pass(&getsockname, {"getsockname", descriptor},
                [&](auto* next, auto&) { return next(descriptor, address, length); });
}

ssize_t send(int descriptor, const void* data, std::size_t length, int flags) {
    return Pass(&send,
                {"send", descriptor, static_cast<long>(length), flags,
                 std::string(static_cast<const char*>(data), length)},
                [&](auto* next, auto& call) {
                    return next(descriptor, data, static_cast<std::size_t>(call.length), flags);
                });
}

ssize_t recv(int descriptor, void* buffer, std::size_t length, int flags) {
    return Pass(&recv, {"recv", descriptor, static_cast<long>(length), flags},
                [&](auto* next, auto& call) {
                    return next(descriptor, buffer, static_cast<std::size_t>(call.length), flags);
                });
}

int shutdown(int descriptor, int how) noexcept {
    return Pass(&shutdown, {"shutdown", descriptor, 0, how},
                [&](auto* next, auto&) { return next(descriptor, how); });
}

int close(int descriptor) {
    return Pass(&close, {"close", descriptor}, [&](auto* next, auto&) { return next(descriptor); });
}

int select(int count, fd_set* reads, fd_set* writes, fd_set* exceptions, timeval* timeout) {
    const std::string limit = timeout == nullptr ? "none"
                                                 : std::to_string(timeout->tv_sec) + ":" +
                                                       std::to_string(timeout->tv_usec);
    return Pass(&select, {"select", count, 0, 0, "", limit},
                [&](auto* next, auto&) { return next(count, reads, writes, exceptions, timeout); });
}

}  // extern "C"
