// Stands between both libraries and what they are given: their memory and locks, and the C
// library's socket calls. Tests count, make one fail, and see what happens meanwhile. Linked into
// every test program; what it does not change is left to whoever stands behind it.
#pragma once

#include <KLVMsgCommModules.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

// The blocks of the in-house allocator that are in use; the allocations of this thread so far, its
// and operator new's; the last size that mem_Malloc refused, as it does from one to four gigabytes.
int Blocks();
int Allocations();
std::size_t RefusedSize();

// Makes the n-th allocation of this thread from now on fail (counted from 1), none with n = 0, and
// counts them, as FailingCall does.
class FailingAllocation {
public:
    explicit FailingAllocation(int n);
    ~FailingAllocation();
    FailingAllocation(const FailingAllocation&) = delete;
    int Count() const { return Allocations() - m_before; }

private:
    const int m_before = Allocations();
};

// Counts an allocation that is about to be made, and tells whether it is the one to fail.
bool AllocationFails();

// What this thread does meanwhile is the test's own: its allocations are not counted, and neither
// they nor its system calls are made to fail.
class Exempt {
public:
    Exempt() { ++depth; }
    ~Exempt() { --depth; }
    Exempt(const Exempt&) = delete;
    static inline thread_local int depth = 0;
};

// Runs the operation with its n-th allocation failing, for every n that it reaches; `check` is told
// n and whether std::bad_alloc came out. The last run succeeds.
template <class Operation, class Check>
void FailEachAllocation(Operation operation, Check check) {
    for (int n = 1;; ++n) {
        bool thrown = false;
        const FailingAllocation fault(n);
        try {
            operation();
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
        if (fault.Count() < n) {
            return;
        }
        const Exempt exempt;
        check(n, thrown);
    }
}

// The same: each failure comes out, and what `show` returns and the number of blocks stay as they
// were. Returns the number of failures.
template <class Operation, class Show>
int ShortMemoryChangesNothing(Operation operation, Show show) {
    const auto shown = show();
    const int blocks = Blocks();
    int failures = 0;
    FailEachAllocation(operation, [&](int n, bool thrown) {
        EXPECT_TRUE(thrown) << n;
        EXPECT_EQ(shown, show()) << n;
        EXPECT_EQ(blocks, Blocks()) << n;
        ++failures;
    });
    return failures;
}

// A mutex of the base library that keeps account of itself.
class WatchedMutex : public KLVBasAtiMutex {
public:
    explicit WatchedMutex(KLVBasAtiMutex* mutex) : m_mutex(mutex) {}
    void Lock() override;
    void Unlock() override;

    std::atomic<int> taken{0};  // how often, so far
    std::atomic<bool> held{false};
    mutable std::function<void()> before;  // happens once, right before it is taken next

    static inline thread_local WatchedMutex* last = nullptr;  // the one that this thread took last
    static inline bool available = true;                      // false: there is no memory for one

private:
    const std::unique_ptr<KLVBasAtiMutex> m_mutex;
};

// The calls by which the mutexes of this process let threads sleep and wake them, so far, and the
// largest number of threads that one call has woken. After each, errno is something else.
struct MutexCalls {
    static inline std::atomic<int> made{0};
    static inline std::atomic<long> mostWoken{0};
};

// The lock of a singleton, until that is finalized.
// Requires: there is an instance, and its lock is free.
template <class T>
const WatchedMutex& LockOf() {
    { const KLVBasAtiGlobalSingletonLock<T> lock; }
    return *WatchedMutex::last;
}

// The call by which the library waits for connections.
inline const std::string theWait = "select";

// A host that has ::1 and 127.0.0.1.
inline constexpr const char* twoAddresses = "two.addresses";

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

    // Every call, or only those on one descriptor, and their names, separated by one space.
    std::vector<SystemCall> Calls(int descriptor = -1) const;
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
    int Count() const { return m_count; }

private:
    std::atomic<int> m_count{0};
    Interposed m_interposed;
};
