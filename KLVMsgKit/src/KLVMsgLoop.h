// For the session's own sources: the one thread that moves the bytes of all connections.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KLVMsgConnection.h"
#include "KLVMsgLinger.h"
#include "KLVMsgOutcome.h"
#include "KLVMsgPeerInfo.h"
#include "KLVMsgSessionOptions.h"
#include "KLVMsgSessionSockets.h"
#include "KLVMsgTransport.h"

// Waits on epoll for what happens to the connections, tells them, and does what they answer.
// Connections are known by an id that never comes back, which is also what epoll hands out: an
// event of one that has gone finds nobody.
//
// The mutex is the owner's. It guards the map and all that is in it but the readers; it is never
// held while a system call transfers or a message's own code runs.
//
// Each connection has a writer's mark (`isWriting`). Who finds it unset sets it, lets the mutex go,
// sends, takes the mutex and clears it; whoever comes meanwhile only appends. A descriptor is
// closed when the map and the writer have both let go of the connection, so that nobody sends on a
// number that is somebody else's.
//
// Sources: KLVMsgLoop.cpp has the rounds and what moves the bytes, KLVMsgLoopListening.cpp who
// comes, KLVMsgLoopGreeting.cpp what connections that are not plain need beside that.
class KLVMsgLoop {
public:
    using Clock = KLVMsgTimeLimit::Clock;
    using Time = Clock::time_point;
    using Lock = std::unique_lock<std::mutex>;

    // What the owner knows of a connection.
    struct Client {
    protected:
        ~Client() = default;
    };

    struct Link {
        Link(std::uint64_t number, std::unique_ptr<KLVMsgTransport> way, Client* whose,
             const KLVMsgMessageTypes& types, const KLVMsgSessionOptions& options)
            : id(number), transport(std::move(way)), client(whose), connection(types, options) {}

        // Whether the transport has bytes of its own to write.
        bool HoldsOutput() const { return !transport->IsPlain() && transport->HoldsOutput(); }

        const std::uint64_t id;
        const std::unique_ptr<KLVMsgTransport> transport;
        Client* client;  // null while it greets, and when the owner has been told that it is over
        KLVMsgConnection connection;
        bool isGreeting = false;  // nothing else is read or written meanwhile
        bool greetsWithRoom = false;
        Time greetsUntil = Time::max();
        bool isWriting = false;
        bool isTouched = false;  // it is in the list of those with work
        std::shared_ptr<Link> nextTouched;
        unsigned interest = 0;       // what epoll was asked for
        Time due = Time::max();      // when it is to be checked
        std::uint64_t received = 0;  // bytes
    };
    using LinkPtr = std::shared_ptr<Link>;

    struct Listener {
        KLVMsgDescriptor socket;
        std::string text;  // where it listens
        int port = 0;
        std::shared_ptr<KLVMsgTransportFactory> transports;  // null: plain
        std::shared_ptr<const KLVMsgAdmit> admit;            // null: everybody may connect
        Time again = Time::max();                            // when to try again after a failure
        std::chrono::milliseconds pause{0};
    };

    // Told with the mutex held, on the loop's thread; Took also on the thread of a caller that
    // writes.
    class Owner {
    public:
        // `stock` may be filled with what is no longer needed.
        virtual void OnCame(Link& link, KLVMsgWireReader::Arrivals& arrivals,
                            KLVMsgParcel::Stock& stock) = 0;
        // Behind several such. May let the mutex go meanwhile.
        virtual void OnGroupCame(Lock& lock) = 0;
        virtual void OnInputEnded(Link& link) = 0;
        virtual void OnTook(Link& link) = 0;
        virtual void OnStalls(Link& link) = 0;
        virtual void OnOver(Link& link) = 0;
        // The listener is there until the mutex is let go, which this may do.
        virtual void OnAccepted(Lock& lock, std::uint64_t listener, KLVMsgDescriptor socket,
                                const std::string& address) = 0;
        // Done, failed, or with a warning. A link that has no client then is closed. May let the
        // mutex go meanwhile.
        virtual void OnGreeted(Lock& lock, Link& link,
                               const KLVMsgTransport::Greeting& greeting) = 0;
        virtual void OnListenerFailed(const Listener& listener, int error) = 0;
        virtual void OnReadable() = 0;  // what it has asked to be watched

        // AskForErrand has asked for it. May let the mutex go meanwhile.
        virtual void OnErrand(Lock& lock) = 0;

    protected:
        ~Owner() = default;
    };

    KLVMsgLoop(std::mutex& mutex, Owner& owner, const KLVMsgMessageTypes& types,
               const KLVMsgSessionOptions& options)
        : m_mutex(mutex), m_owner(owner), m_types(types), m_options(options) {}
    ~KLVMsgLoop() { Stop(); }
    KLVMsgLoop(const KLVMsgLoop&) = delete;
    KLVMsgLoop& operator=(const KLVMsgLoop&) = delete;

    // Asks the system for what the loop needs. Throws std::bad_alloc.
    KLVMsgOutcome Prepare();

    // Starts the thread, with all signals blocked.
    KLVMsgOutcome Start();

    // Ends the thread after its current round. Requires: the mutex is not held.
    void Stop();

    // All that follow require the mutex ----------------------------------------------------------

    // A new connection; what fails leaves none. Throws std::bad_alloc, and has closed it then.
    KLVMsgOutcome Add(std::unique_ptr<KLVMsgTransport> transport, std::uint64_t id, Client* client,
                      LinkPtr& link);

    // The same of one that greets first, until then at the latest.
    KLVMsgOutcome AddGuest(std::unique_ptr<KLVMsgTransport> transport, std::uint64_t id, Time until,
                           LinkPtr& link);

    // A connection that greets has failed to, or is not wanted: tells the peer, and closes.
    void TurnAway(Link& link);

    // Serves on a socket that listens.
    KLVMsgOutcome AddListener(std::uint64_t id, Listener listener);
    const Listener* FindListener(std::uint64_t id) const;  // null: it serves no more

    // No longer serves on a port, or on any with port -1; how many sockets were closed. Those of
    // ids up to `before` stay.
    int RemoveListeners(int port, std::uint64_t before = 0);
    bool HasListeners() const { return !m_listeners.empty(); }

    // Waits for a descriptor of the owner's as well, which is told whenever that is readable.
    KLVMsgOutcome Watch(int descriptor);

    // There is something to do for a connection: its output, its state.
    void Touch(Link& link);

    // Writes the one message that is queued on the caller's thread, who has just looked at the
    // clock. Lets the mutex go meanwhile. Requires: nobody writes, and the pointer is the caller's
    // own.
    void WriteNow(Lock& lock, const LinkPtr& link, Time now);

    // Has the owner told OnErrand soon, at the end of a round.
    void AskForErrand() {
        m_hasErrand = true;
        Wake();
    }

    // Whether it waits for something to happen, with nothing to do meanwhile.
    bool IsAsleep() const { return m_isAsleep; }

    // Ends all connections that are left. The loop does so when it ends; one that has never run is
    // told to. Requires: it does not run.
    void Clear(const char* cause);

private:
    using Timer = std::pair<Time, std::uint64_t>;

    // One of those that are read in one go, and one of those that are written.
    struct Reading {
        LinkPtr link;
        bool discards = false;
        bool greets = false;
        KLVMsgTransport::Greeting greeting;
        KLVMsgTransport::Result result;
        KLVMsgWireReader::Arrivals arrivals;
    };
    struct Writing {
        LinkPtr link;
        bool asks = false;  // for the segment's size
        std::size_t segment = 0;
        std::vector<KLVMsgOutput::Run> runs;
        KLVMsgTransport::Result result;
        bool isFull = false;
    };
    static constexpr std::size_t kGroup = 16;

    void Run();
    int Wait(struct epoll_event* events, int most);
    int Idle(struct epoll_event* events, int most, Time until);
    int Sleep(struct epoll_event* events, int most, Time until) const;
    void Serve(Lock& lock, std::uint64_t id, unsigned happened);
    void Enlist(Lock& lock, const LinkPtr& link);
    void ReadGroup(Lock& lock);
    void Read(Reading& one);
    void HandOver(Lock& lock, Reading& one);
    void Greeted(Lock& lock, Link& link, const KLVMsgTransport::Greeting& greeting);
    void GreetsTooLong(Lock& lock, Link& link);
    void Flush(Link& link);
    void Settle(Link& link);
    void DoTouched(Lock& lock);
    void WriteGroup(Lock& lock);
    void TakeRuns(Writing& one, std::size_t most) const;
    void Write(Writing& one) const;
    void Took(Link& link, const KLVMsgTransport::Result& result, bool isFull);
    void CheckTimers(Lock& lock);
    void CheckListeners();
    void DoErrand(Lock& lock);
    void Accept(Lock& lock, std::uint64_t id);
    Time NextTimer() const;
    void PauseListener(Listener& listener, int error);
    void Tend(Link& link);
    void Remove(Link& link);
    void Ask(Link& link);
    void Arm(Link& link);
    void Wake();

    std::mutex& m_mutex;
    Owner& m_owner;
    const KLVMsgMessageTypes& m_types;
    const KLVMsgSessionOptions& m_options;
    KLVMsgDescriptor m_epoll;
    KLVMsgDescriptor m_wakeUp;
    std::unique_ptr<std::thread> m_thread;

    // The thread's own.
    KLVMsgWireReader::Buffer m_buffer;
    std::array<Reading, kGroup> m_readings;
    std::size_t m_reads = 0;
    std::array<Writing, kGroup> m_writings;
    std::size_t m_writes = 0;
    std::size_t m_written = 0;  // bytes in this round
    Time m_gathersUntil{};      // nothing is written before
    KLVMsgLinger m_linger;

    // Guarded by the mutex.
    std::unordered_map<std::uint64_t, LinkPtr> m_links;
    std::map<std::uint64_t, Listener> m_listeners;
    LinkPtr m_firstTouched;
    Link* m_lastTouched = nullptr;
    std::set<Timer> m_timers;
    Time m_now{};
    std::atomic<bool> m_isAsleep{false};  // waits, or looks whether something has happened
    bool m_looks = false;                 // the latter, so that nobody need wake it
    bool m_isToStop = false;
    bool m_hasErrand = false;
};
