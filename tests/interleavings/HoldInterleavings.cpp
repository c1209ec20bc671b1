// The holds of sockets in every order in which threads can meet, and with all that the memory
// orders allow: a checker runs each scene again and again until it has tried them all. It sees a
// data race, memory used after its end or never given back, and threads that wait for ever.
#include <chrono>
#include <mutex>

#include "KLVMsgDepartures.h"
// Last, since it makes macros of many names.
#include <relacy/relacy.hpp>

namespace {

// What the library takes from the standard, in the checker's form ---------------------------------

rl::memory_order Checked(std::memory_order order) {
    return static_cast<rl::memory_order>(order);  // the same values in the same order
}

class Atomic {
public:
    explicit Atomic(unsigned value) { m_value.store(value, rl::mo_relaxed, RL_INFO); }
    unsigned load(std::memory_order order) const { return m_value.load(Checked(order), RL_INFO); }
    unsigned fetch_add(unsigned value, std::memory_order order) {
        return m_value.fetch_add(value, Checked(order), RL_INFO);
    }
    unsigned fetch_sub(unsigned value, std::memory_order order) {
        return m_value.fetch_sub(value, Checked(order), RL_INFO);
    }
    bool compare_exchange_strong(unsigned& expected, unsigned value, std::memory_order order,
                                 std::memory_order failed) {
        return m_value.compare_exchange_strong(expected, value, Checked(order), RL_INFO,
                                               Checked(failed), RL_INFO);
    }

private:
    rl::atomic<unsigned> m_value;
};

struct Mutex {
    void lock() { checked.lock(RL_INFO); }
    void unlock() { checked.unlock(RL_INFO); }
    rl::mutex checked;
};
using Lock = std::unique_lock<Mutex>;

constexpr auto noLimit = std::chrono::milliseconds::max();
constexpr std::chrono::milliseconds someLimit(1);

class Condition {
public:
    void notify_all() { m_checked.notify_all(RL_INFO); }

    template <class Predicate>
    void wait_for(Lock& lock, std::chrono::milliseconds limit, Predicate predicate) {
        bool inTime = true;
        while (!predicate() && inTime) {
            if (limit == noLimit) {
                m_checked.wait(lock.mutex()->checked, RL_INFO);
            } else {
                inTime = m_checked.wait_for(lock.mutex()->checked, 0, RL_INFO);
            }
        }
    }

private:
    rl::condition_variable m_checked;
};

// A socket and its registry -----------------------------------------------------------------------

struct Socket {
    struct Departure {
        Atomic holds{0};
        int toClose = -1;
        bool removed = false;
        Socket* next = nullptr;
    };

    rl::atomic<int> closed{0};   // the mark
    rl::var<int> descriptor{0};  // read by who works with it, written by who closes it
    int closes = 0;
    Departure m_departure;
};

// The vocabulary of the scenes: one registered socket.
template <class Scene, int threads>
struct Sockets : rl::test_suite<Scene, threads> {
    void before() { socket = new Socket; }

    bool BeginRegistered() {
        const Lock lock(registry);
        if (registered) {
            departures.Begin(*socket);
        }
        return registered;
    }
    void Use() {
        if (socket->closed.load(rl::mo_acquire, RL_INFO) == 0) {
            Read();
        }
    }
    void Read() { static_cast<void>(socket->descriptor(RL_INFO).load()); }
    void End() {
        if (departures.End(*socket)) {
            departures.Settle(&CloseDescriptor, &Delete);
        }
    }

    void Close() {
        {
            const Lock lock(departures.Guard());
            socket->closed.store(1, rl::mo_release, RL_INFO);
            if (!departures.ClosesNow(*socket, 7)) {
                return;
            }
        }
        CloseDescriptor(*socket, 7);
    }
    static void CloseDescriptor(Socket& closing, int) {
        closing.descriptor(RL_INFO).store(-1);
        ++closing.closes;
    }

    void Destroy() {
        bool now = false;
        {
            const Lock lock(departures.Guard());
            now = departures.DestroysNow(*socket);
        }
        if (now) {
            Delete(socket);
        }
    }
    static void Delete(Socket* free) {
        RL_ASSERT(free->closes == 1);
        delete free;
    }

    KLVMsgDepartures<Socket, Mutex, Condition> departures;
    Mutex registry;
    bool registered = true;
    Socket* socket = nullptr;
};

// The scenes: memory that is left at the end of one is a failure, too -----------------------------

// Two transfers are under way when their socket is removed.
struct RemovedWhileHeldTwice : Sockets<RemovedWhileHeldTwice, 3> {
    void before() {
        Sockets::before();
        departures.Begin(*socket);
        departures.Begin(*socket);
    }
    void thread(unsigned index) {
        if (index == 2) {
            Close();
            Destroy();
        } else {
            Read();
            End();
        }
    }
};

// A transfer is about to begin while the registry closes and removes the socket.
struct RemovedWhileLookedUp : Sockets<RemovedWhileLookedUp, 2> {
    void thread(unsigned index) {
        if (!BeginRegistered()) {
            return;
        }
        if (index == 0) {
            Use();
        } else {
            const Lock lock(registry);
            Close();
            registered = false;
            Destroy();
        }
        End();
    }
};

// An application closes a socket that it does not hold: whoever begins a hold just then either sees
// that it is closed, or keeps it from being closed.
struct ClosedWithoutAHold : Sockets<ClosedWithoutAHold, 2> {
    void thread(unsigned index) {
        if (index == 1) {
            Close();
            return;
        }
        departures.Begin(*socket);
        Use();
        End();
    }
    void after() { Delete(socket); }
};

// A server is started where one was shut down that a wait still holds.
struct AwaitedUntilClosed : Sockets<AwaitedUntilClosed, 2> {
    void before() {
        Sockets::before();
        departures.Begin(*socket);
    }
    void thread(unsigned index) {
        if (index == 0) {
            End();
            return;
        }
        Close();
        departures.AwaitClosed(noLimit, [](const Socket&) { return true; });
        RL_ASSERT(socket->closes == 1);
        Read();  // a race, were it being closed still
    }
    void after() { delete socket; }
};

// The same when that wait does not wake up: it is over before its hold.
struct AwaitedInVain : Sockets<AwaitedInVain, 2> {
    void thread(unsigned index) {
        if (index == 0) {
            return;
        }
        departures.Begin(*socket);
        Close();
        departures.AwaitClosed(noLimit, [](const Socket&) { return false; });  // another kind
        departures.AwaitClosed(someLimit, [](const Socket&) { return true; });
        RL_ASSERT(socket->closes == 0);
        End();
        Delete(socket);
    }
};

template <class Scene>
bool Holds() {
    rl::test_params parameters;
    parameters.search_type = rl::fair_full_search_scheduler_type;
    return rl::simulate<Scene>(parameters);
}

}  // namespace

int main() {
    const bool all = Holds<RemovedWhileHeldTwice>() && Holds<RemovedWhileLookedUp>() &&
                     Holds<ClosedWithoutAHold>() && Holds<AwaitedUntilClosed>() &&
                     Holds<AwaitedInVain>();
    return all ? 0 : 1;
}
