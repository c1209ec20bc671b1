#include "Faults.h"

#include <dlfcn.h>
#include <linux/futex.h>
#include <netdb.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <mutex>
#include <sstream>
#include <string_view>
#include <utility>

namespace {

// Relaxed: counting must not order what the threads of a test do.
std::atomic<int> blocks{0};
std::atomic<std::size_t> refusedSize{0};

thread_local int allocations = 0;
thread_local int failing = -1;  // the one to fail, counted like `allocations`

// What stands behind the function of this name here.
template <class Function>
Function* Next(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void* Counted(void* block) {
    blocks.fetch_add(block == nullptr ? 0 : 1, std::memory_order_relaxed);
    return block;
}

// Never destroyed: the C library's calls may come after the end of main.
std::recursive_mutex& mutex = *new std::recursive_mutex;
auto& handlers = *new std::vector<SystemCallHandler>;
using Lock = std::lock_guard<std::recursive_mutex>;

// Looked at before the lock is taken, which would order what the threads of a test do.
std::atomic<bool> interposed{false};

template <class... Values>
std::string Words(const Values&... values) {
    if (!interposed.load(std::memory_order_relaxed)) {
        return "";
    }
    const Exempt exempt;
    std::ostringstream words;
    ((words << values << ' '), ...);
    return words.str();
}

std::optional<long> Ask(SystemCall& call) {
    if (!interposed.load(std::memory_order_relaxed)) {
        return std::nullopt;
    }
    const Lock lock(mutex);
    std::optional<long> answer;
    for (auto handler = handlers.rbegin(); handler != handlers.rend() && !answer; ++handler) {
        answer = (*handler)(call);
    }
    return answer;
}

// Answers from a handler, or else makes the real call with what the handlers made of the length.
template <class Result, class... Parameters, class... Arguments>
Result Pass(Result (*function)(Parameters...), SystemCall&& call, Arguments... arguments) {
    auto* const next = Next(function, call.name.c_str());
    const std::optional<long> answer = Ask(call);
    if (!answer) {
        return next(static_cast<Parameters>(arguments)...);
    }
    if (call.name == "close") {
        next(static_cast<Parameters>(arguments)...);  // one that fails has closed all the same
    }
    errno = *answer < 0 ? static_cast<int>(-*answer) : errno;
    return static_cast<Result>(std::max(*answer, -1L));
}

}  // namespace

bool AllocationFails() { return Exempt::depth == 0 && ++allocations == failing; }

void* operator new(std::size_t size) {
    static auto* const next = Next<void*(std::size_t)>(nullptr, "_Znwm");
    return AllocationFails() ? throw std::bad_alloc() : next(size);
}

// A sanitizer's own would not come by here.
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { operator delete(block); }

void* mem_OperatorNewThrow(std::size_t size) {
    static auto* const next = Next(&mem_OperatorNewThrow, "_Z20mem_OperatorNewThrowm");
    return Counted(AllocationFails() ? throw std::bad_alloc() : next(size));
}

void* mem_OperatorNewThrowBuiltin(std::size_t size) {
    static auto* const next =
        Next(&mem_OperatorNewThrowBuiltin, "_Z27mem_OperatorNewThrowBuiltinm");
    return Counted(AllocationFails() ? throw std::bad_alloc() : next(size));
}

void* mem_Malloc(std::size_t size) {
    static auto* const next = Next(&mem_Malloc, "_Z10mem_Mallocm");
    if (AllocationFails() || (size >> 30 != 0 && size >> 32 == 0) || !WatchedMutex::available) {
        refusedSize = size;
        return nullptr;
    }
    return Counted(next(size));
}

void mem_Free(void* block) {
    static auto* const next = Next(&mem_Free, "_Z8mem_FreePv");
    blocks.fetch_sub(block == nullptr ? 0 : 1, std::memory_order_relaxed);
    next(block);
}

int Blocks() { return blocks; }
int Allocations() { return allocations; }
std::size_t RefusedSize() { return refusedSize; }

FailingAllocation::FailingAllocation(int n) { failing = n > 0 ? allocations + n : -1; }

FailingAllocation::~FailingAllocation() { failing = -1; }

void WatchedMutex::Lock() {
    if (before) {
        std::exchange(before, nullptr)();
    }
    m_mutex->Lock();
    held.store(true, std::memory_order_relaxed);
    taken.fetch_add(1, std::memory_order_relaxed);
    last = this;
}

void WatchedMutex::Unlock() {
    held.store(false, std::memory_order_relaxed);
    m_mutex->Unlock();
}

KLVBasAtiMutex* KLVBasAtiThreadingModel::newMutex() {
    static auto* const next = Next(&newMutex, "_ZN23KLVBasAtiThreadingModel8newMutexEv");
    const Exempt exempt;
    KLVBasAtiMutex* const made = next();
    return made == nullptr ? nullptr : new WatchedMutex(made);
}

Interposed::Interposed(SystemCallHandler handler) {
    const Lock lock(mutex);
    handlers.push_back(std::move(handler));
    interposed = true;
}

Interposed::~Interposed() {
    const Lock lock(mutex);
    handlers.pop_back();
    interposed = !handlers.empty();
}

std::vector<SystemCall> CallLog::Calls(int descriptor) const {
    const Lock lock(mutex);
    std::vector<SystemCall> calls;
    std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(calls),
                 [=](auto& call) { return descriptor == -1 || call.descriptor == descriptor; });
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
          m_calls.push_back(call);
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

// Those of which only the descriptor is of interest.
#define PASS(result, name, parameters, descriptor, ...) \
    result name parameters { return Pass(&name, {#name, descriptor}, __VA_ARGS__); }
#define NAMED (int fd, sockaddr* address, socklen_t* length)
PASS(int, socket, (int domain, int type, int protocol) noexcept, domain, domain, type, protocol)
PASS(int, bind, (int fd, const sockaddr* to, socklen_t length) noexcept, fd, fd, to, length)
PASS(int, connect, (int fd, const sockaddr* to, socklen_t length), fd, fd, to, length)
PASS(int, accept, NAMED, fd, fd, address, length)
PASS(int, accept4, (int fd, sockaddr* a, socklen_t* size, int flags), fd, fd, a, size, flags)
PASS(int, getsockname, NAMED noexcept, fd, fd, address, length)
PASS(int, getpeername, NAMED noexcept, fd, fd, address, length)
PASS(int, getsockopt, (int fd, int level, int option, void* value, socklen_t* size) noexcept, fd,
     fd, level, option, value, size)
PASS(ssize_t, readv, (int fd, const iovec* pieces, int count), fd, fd, pieces, count)
PASS(int, eventfd, (unsigned int count, int flags) noexcept, -1, count, flags)
PASS(int, epoll_create1, (int flags) noexcept, -1, flags)
PASS(int, epoll_ctl, (int fd, int what, int which, epoll_event* event) noexcept, which, fd, what,
     which, event)
PASS(int, poll, (pollfd * asked, nfds_t count, int limit), -1, asked, count, limit)
PASS(int, close, (int fd), fd, fd)

int listen(int fd, int backlog) noexcept {
    return Pass(&listen, {"listen", fd, Words(backlog)}, fd, backlog);
}
ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    return Pass(&sendmsg, {"sendmsg", fd, Words(flags)}, fd, message, flags);
}
int shutdown(int fd, int how) noexcept {
    return Pass(&shutdown, {"shutdown", fd, Words(how)}, fd, how);
}
int epoll_pwait2(int fd, epoll_event* events, int most, const timespec* limit,
                 const sigset_t* signals) {
    SystemCall call{"epoll_pwait2", fd, limit == nullptr ? "for ever" : ""};
    return Pass(&epoll_pwait2, std::move(call), fd, events, most, limit, signals);
}
int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
    const int* const first = static_cast<const int*>(value);
    const int second = size > sizeof *first ? first[1] : 0;
    SystemCall call{"setsockopt", fd, Words(level, option, *first, second)};
    return Pass(&setsockopt, std::move(call), fd, level, option, value, size);
}
ssize_t send(int fd, const void* data, std::size_t length, int flags) {
    SystemCall call{"send", fd, Words(length, flags), static_cast<long>(length)};
    return Pass(&send, std::move(call), fd, data, std::cref(call.length), flags);
}
ssize_t recv(int fd, void* buffer, std::size_t length, int flags) {
    SystemCall call{"recv", fd, Words(length, flags), static_cast<long>(length)};
    return Pass(&recv, std::move(call), fd, buffer, std::cref(call.length), flags);
}
int select(int count, fd_set* reads, fd_set* writes, fd_set* exceptions, timeval* limit) {
    SystemCall call{"select", count, limit ? Words(limit->tv_sec, limit->tv_usec) : "for ever"};
    return Pass(&select, std::move(call), count, reads, writes, exceptions, limit);
}
int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** list) {
    if (host == std::string_view(twoAddresses)) {
        const int result = getaddrinfo("::1", service, hints, list);
        return result != 0 ? result : getaddrinfo("127.0.0.1", service, hints, &(*list)->ai_next);
    }
    SystemCall call{"getaddrinfo", 0, Words(host, service == nullptr ? "none" : service)};
    return Pass(&getaddrinfo, std::move(call), host, service, hints, list);
}
void freeaddrinfo(addrinfo* list) noexcept {
    SystemCall call{"freeaddrinfo", 0};
    Ask(call);
    Next(&freeaddrinfo, "freeaddrinfo")(list);
    errno = E2BIG;  // as it may do
}

// A call has six arguments at the most. The mutexes' are told from others by the operation.
long syscall(long number, ...) noexcept {
    std::array<long, 6> values;
    va_list arguments;
    va_start(arguments, number);
    for (long& value : values) {
        value = va_arg(arguments, long);
    }
    va_end(arguments);
    const auto& [first, operation, third, fourth, fifth, sixth] = values;
    const long result =
        Next(&syscall, "syscall")(number, first, operation, third, fourth, fifth, sixth);
    const bool wakes = number == SYS_futex && operation == FUTEX_WAKE_BITSET_PRIVATE;
    if (wakes || (number == SYS_futex && operation == FUTEX_WAIT_BITSET_PRIVATE)) {
        MutexCalls::made.fetch_add(1, std::memory_order_relaxed);
        errno = E2BIG;
    }
    if (wakes && result > MutexCalls::mostWoken) {
        MutexCalls::mostWoken.store(result, std::memory_order_relaxed);
    }
    return result;
}

}  // extern "C"
