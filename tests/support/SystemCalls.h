// Stands between the library and the C library's socket calls: tests see which calls are made, make
// one fail, or let it move fewer bytes. Linked into every test program.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

// The call by which the library waits for connections.
inline const std::string theWait = "select";

// One call, before it is made. `name` is that of the C function.
struct SystemCall {
    std::string name;
    int descriptor;  // first argument; of `socket` the domain, of the resolver 0, of the wait any
    std::string rest = {};  // the other arguments that a test looks at, each followed by a space
    long length = 0;        // send, recv: bytes asked for; a handler may lower it
};

// A handler answers a call in the system's place, or lets it through with std::nullopt. A negative
// answer -E makes the call fail with errno E; a close that fails so has closed, as the system's
// would have.
using SystemCallHandler = std::function<std::optional<long>(SystemCall&)>;

// Puts a handler in place as long as it lives; the innermost one is asked first. Made and destroyed
// on one thread; the handler is called under a lock, on whichever thread makes the call.
class Interposed {
public:
    explicit Interposed(SystemCallHandler handler);
    ~Interposed();
    Interposed(const Interposed&) = delete;
};

// Lets all calls through and keeps them.
class CallLog {
public:
    CallLog();

    // Every call, or only those on one descriptor.
    std::vector<SystemCall> Calls(int descriptor = -1) const;

    // Their names in order, separated by one space: "socket connect setsockopt setsockopt".
    std::string Names(int descriptor = -1) const;

private:
    std::vector<SystemCall> m_calls;
    Interposed m_interposed;
};

// Makes the n-th call of a function from now on (counted from 1) fail with an errno, every one with
// n = 0, none with n = -1.
class FailingCall {
public:
    FailingCall(const std::string& name, int error, int n = 0);

    // How many there were since then, the failed ones included.
    int Count() const { return m_count; }

private:
    int m_count = 0;
    Interposed m_interposed;
};
