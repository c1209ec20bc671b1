// For applications: everything that a process needs to talk, in one object.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <type_traits>
#include <typeindex>
#include <utility>
#include <vector>

#include "KLVBasAtiThread.h"
#include "KLVMsgCommModules_IF.h"
#include "KLVMsgFramedMessage.h"
#include "KLVMsgOutcome.h"
#include "KLVMsgSessionDriver.h"

// Brings the library up and takes it down again, and between the two sends and receives. One at a time
// in a process, which then uses neither singleton beside it. A thread of the session's own, the driver,
// moves the messages: between it and the application's threads stand a queue and an inbox, so that a
// time limit holds whatever a peer does.
//
//     KLVMsgSession session;
//     session.Register(Greeting());
//     if (const KLVMsgOutcome failed = session.Connect({"127.0.0.1", 4711}, "server"); !failed) ...
//     session.Start();
//     session.Send("server", Greeting("Hello!"), std::chrono::seconds(5));
//     const auto answer = session.Receive<Greeting>(std::chrono::seconds(5));
//     if (answer) std::puts(answer->text.c_str());
//
// All operations but the constructor, Register, Start and the destructor may be called on any thread at
// any time. On the wire a session is as any other user of the library: a peer needs none.
class KLVMsgSession {
public:
    // The unit of all time limits; any longer one of std::chrono converts to it.
    using Milliseconds = std::chrono::milliseconds;

    // How often the driver works. At once: as soon as there is something to do. Task: as a
    // KLVMsgMessageTask, which waits up to 20 ms and sleeps 100 ms, and so reads at most eight
    // messages a second from each connection.
    enum Pace { kAtOnce, kTask };

    // A transfer that stands still for longer than `stall` ends its connection.
    explicit KLVMsgSession(Pace pace = kAtOnce, Milliseconds stall = std::chrono::seconds(30))
        : m_driver(pace == kAtOnce, stall), m_alone(!s_exists.exchange(true)) {
        if (m_alone) {
            KLVMsgCommModules_initialize(m_modules);
            Registry().ReleaseHeaderBuffers(true);
            Communicator().SetDefaultInputStream(&m_driver.Input());
            Communicator().SetDefaultOutputStream(&m_driver.Output());
            m_ready = m_driver.MakeWakeUp();
        } else {
            m_ready = {KLVMsgOutcome::kFailed, EBUSY, "there is another session in this process"};
        }
    }

    // End with a limit of five seconds. What was received and never asked for is destroyed.
    ~KLVMsgSession() {
        if (m_alone) {
            End(std::chrono::seconds(5));
            m_driver.Close();
            KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
            KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
            KLVMsgCommModules_finalize(m_modules);
            s_exists = false;
        }
    }

    KLVMsgSession(const KLVMsgSession&) = delete;
    KLVMsgSession& operator=(const KLVMsgSession&) = delete;

    // Set-up --------------------------------------------------------------------------------------

    // Lets messages of this type come. The session keeps the prototype. Fails for a name that is
    // empty, or has a zero byte.
    // Requires: the session has not been started.
    template <class Message>
    KLVMsgOutcome Register(Message prototype) {
        static_assert(
            std::is_base_of<KLVMsgSocketMessage, Message>::value,
            "KLVMsgSession::Register(prototype): the prototype must be an object of a class "
            "that is derived from KLVMsgSocketMessage");
        const KLVString name = prototype.GetMessageType();
        if (name.Length() == 0 || std::string(name.Text()).size() != std::size_t(name.Length())) {
            return {KLVMsgOutcome::kFailed, EINVAL,
                    "a type name is neither empty nor has zero bytes"};
        }
        if (m_ready) {
            m_prototypes.push_back(std::make_unique<Message>(std::move(prototype)));
            m_driver.AddType(name.Length(),
                             std::is_base_of<KLVMsgFramedMessage, Message>::value ? 4 : 0);
            Communicator().RegisterMessagePrototype(name.Text(), m_prototypes.back().get());
        }
        return m_ready;
    }

    // Lets peers connect, and tells the port; with port 0 the system chooses it. Their connections
    // have the empty label until SetLabel gives them another one.
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, int* port = nullptr) {
        int descriptor = -1;
        KLVMsgSocketAddress bound = address;
        KLVMsgOutcome outcome =
            m_ready ? KLVMsgSessionSockets::Listen(address, descriptor, bound.port) : m_ready;
        if (outcome) {
            KLVMsgSessionDriver::Arrival arrival;
            arrival.server = KLVMsgSessionSockets::ServerSocket(descriptor, bound);
            const std::lock_guard<std::mutex> lock(m_driver.m_mutex);
            m_driver.m_listens = true;
            m_driver.m_arrivals.push_back(std::move(arrival));
            m_driver.Wake();
            if (port != nullptr) {
                *port = bound.port;
            }
        }
        return outcome;
    }

    // Connects to a server, under a label; the label may be one that a lost connection had. Waits no
    // longer than `limit` for the server, though for a name as long as the resolver takes.
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label,
                          Milliseconds limit = std::chrono::seconds(10)) {
        int descriptor = -1;
        const KLVMsgOutcome outcome =
            m_ready ? KLVMsgSessionSockets::Connect(address, Deadline(limit), descriptor) : m_ready;
        if (outcome) {
            KLVMsgSessionDriver::Arrival arrival;
            arrival.stream = KLVMsgSessionSockets::StreamSocket(descriptor, true);
            const std::lock_guard<std::mutex> lock(m_driver.m_mutex);
            arrival.peer.id = ++m_driver.m_lastPeer;
            if (!m_driver.m_ending) {
                m_driver.m_peers[arrival.peer] = label;
            }
            m_driver.m_arrivals.push_back(std::move(arrival));
            m_driver.Wake();
        }
        return outcome;
    }

    // Connects again and again, with pauses of up to half a second, until that is done or `limit` over;
    // the outcome is then that of the last attempt.
    KLVMsgOutcome ConnectAgain(const KLVMsgSocketAddress& address, const std::string& label,
                               Milliseconds limit) {
        const auto deadline = Deadline(limit);
        for (Milliseconds pause(10);; pause = std::min(2 * pause, Milliseconds(500))) {
            const Milliseconds left(KLVMsgSessionSockets::Left(deadline));
            const KLVMsgOutcome outcome = Connect(address, label, left);
            if (outcome || left <= pause) {
                return outcome;
            }
            KLVBasUtlsleep(static_cast<unsigned>(pause.count()));
        }
    }

    // Starts the driver: from now on messages move. Fails where the system has no thread to give.
    KLVMsgOutcome Start() {
        if (!m_ready || m_thread != nullptr) {
            return m_ready;
        }
        m_driver.m_running = true;
        try {
            m_thread = std::make_unique<KLVBasAtiThread>(m_driver);
        } catch (const std::system_error& error) {
            m_driver.m_running = false;
            return KLVMsgSessionSockets::Failure("cannot start a thread", error.code().value());
        }
        return {};
    }

    // Sending -------------------------------------------------------------------------------------
    //
    // A message is handed over as an object or as a std::unique_ptr, and belongs to the session. Sent
    // to a label, it goes to every connection that has it at that moment. Messages to one connection
    // are written in the order in which they were queued, before Start too.

    // Queues the message, and does not wait. Peer gone: there is no such connection. One that goes
    // before its turn gets nothing.
    template <class Message>
    KLVMsgOutcome Post(const KLVMsgPeers& to, Message message) {
        std::unique_lock<std::mutex> lock(m_driver.m_mutex);
        return Queue(to, Own(std::move(message)), nullptr);
    }

    // Queues the message and waits until every byte of it was taken by the system. Too late: it is
    // withdrawn if its turn has not come yet; otherwise it may still arrive. Peer gone: there is no
    // such connection, or one of them went before all was taken.
    // Requires: the session has been started.
    template <class Message>
    KLVMsgOutcome Send(const KLVMsgPeers& to, Message message, Milliseconds limit) {
        const auto deadline = Deadline(limit);
        const auto delivery = std::make_shared<KLVMsgSessionDriver::Delivery>();
        std::unique_lock<std::mutex> lock(m_driver.m_mutex);
        const KLVMsgOutcome queued = Queue(to, Own(std::move(message)), delivery);
        if (!queued) {
            return queued;
        }
        if (!m_driver.m_changed.wait_until(lock, deadline, [&] { return delivery->left == 0; })) {
            Withdraw(*delivery);
            return Late();
        }
        return delivery->failed ? Gone() : KLVMsgOutcome();
    }

    // Receiving -----------------------------------------------------------------------------------

    // Waits for a message of exactly this class and hands over the oldest: of any connection, or of
    // those that are meant. Peer gone: none is there and no such connection either, so that none will
    // come. A message of which a part did not come, or that its class refused, is none: its connection
    // ends.
    template <class Message>
    KLVMsgReceived<Message> Receive(Milliseconds limit) {
        return Take<Message>(limit, nullptr);
    }
    template <class Message>
    KLVMsgReceived<Message> Receive(Milliseconds limit, const KLVMsgPeers& from) {
        return Take<Message>(limit, &from);
    }

    // Connections ---------------------------------------------------------------------------------

    // Gives a connection another label. Peer gone: it is no longer there.
    KLVMsgOutcome SetLabel(KLVMsgPeer peer, const std::string& label) {
        const std::lock_guard<std::mutex> lock(m_driver.m_mutex);
        const auto found = m_driver.m_peers.find(peer);
        if (found == m_driver.m_peers.end()) {
            return Gone();
        }
        found->second = label;
        return {};
    }

    // The connections that are meant and there, the oldest first.
    std::vector<KLVMsgPeer> Peers(const KLVMsgPeers& meant) {
        const std::lock_guard<std::mutex> lock(m_driver.m_mutex);
        return Find(meant);
    }

    // Waits until no such connection is there.
    KLVMsgOutcome WaitUntilGone(const KLVMsgPeers& meant, Milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_driver.m_mutex);
        return m_driver.m_changed.wait_until(lock, Deadline(limit),
                                             [&] { return Find(meant).empty(); })
                   ? KLVMsgOutcome()
                   : Late();
    }

    // Sends what is queued, ends the output of every connection, and waits up to `limit` for the peers
    // to have read all of it and to close; then the driver ends. Nothing that was done is lost, and
    // everybody who waits is told that the peers have gone. Too late: some peers had not closed.
    KLVMsgOutcome End(Milliseconds limit) {
        {
            const std::lock_guard<std::mutex> lock(m_driver.m_mutex);
            m_driver.m_ending = true;
            m_driver.m_endLimit = Deadline(limit);
            m_driver.Wake();
        }
        if (m_thread != nullptr) {
            m_thread->Join();
        }
        return KLVMsgSessionSockets::Clock::now() < m_driver.m_endLimit ? KLVMsgOutcome() : Late();
    }

private:
    template <class Message>
    struct IsOwner : std::false_type {};
    template <class Message>
    struct IsOwner<std::unique_ptr<Message>> : std::is_base_of<KLVMsgSocketMessage, Message> {};

    static KLVMsgSocketCommunicator& Communicator() {
        return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
    }
    static KLVMsgConnectionServicesUtils& Registry() {
        return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
    }

    // Longest limits are about a year, so that no sum is out of range.
    static KLVMsgSessionDriver::Time Deadline(Milliseconds limit) {
        return KLVMsgSessionSockets::Clock::now() +
               std::min<Milliseconds>(limit, std::chrono::hours(10000));
    }

    static KLVMsgOutcome Late() {
        return {KLVMsgOutcome::kTooLate, ETIMEDOUT, "the time was over"};
    }

    KLVMsgOutcome Gone() const {
        return {KLVMsgOutcome::kPeerGone, ENOTCONN,
                m_driver.m_fault.empty() ? "the peer has gone" : m_driver.m_fault};
    }

    template <class Message>
    static std::shared_ptr<KLVMsgSocketMessage> Own(Message message) {
        constexpr bool isMessage = std::is_base_of<KLVMsgSocketMessage, Message>::value;
        static_assert(
            !std::is_pointer<Message>::value,
            "KLVMsgSession: a message is handed over as an object or as a std::unique_ptr, "
            "not as a plain pointer, since it belongs to the session from then on");
        static_assert(
            isMessage || IsOwner<Message>::value || std::is_pointer<Message>::value,
            "KLVMsgSession: what is sent must be an object of a class that is derived from "
            "KLVMsgSocketMessage, or a std::unique_ptr to one");
        if constexpr (isMessage) {
            return std::make_shared<Message>(std::move(message));
        } else {
            return std::shared_ptr<KLVMsgSocketMessage>(std::move(message));
        }
    }

    // Requires, as those that follow: m_mutex is held.
    std::vector<KLVMsgPeer> Find(const KLVMsgPeers& meant) const {
        std::vector<KLVMsgPeer> found;
        for (const auto& [peer, label] : m_driver.m_peers) {
            if (meant.Include(peer, label)) {
                found.push_back(peer);
            }
        }
        return found;
    }

    KLVMsgOutcome Queue(const KLVMsgPeers& to, const std::shared_ptr<KLVMsgSocketMessage>& message,
                        const std::shared_ptr<KLVMsgSessionDriver::Delivery>& delivery) {
        if (m_driver.m_ending || message == nullptr) {
            return Gone();
        }
        const std::vector<KLVMsgPeer> peers = Find(to);
        for (const KLVMsgPeer peer : peers) {
            m_driver.m_queue.push_back({peer, message, delivery});
        }
        if (delivery != nullptr) {
            delivery->left = static_cast<int>(peers.size());
        }
        m_driver.Wake();
        return peers.empty() ? Gone() : KLVMsgOutcome();
    }

    void Withdraw(const KLVMsgSessionDriver::Delivery& delivery) {
        auto& queue = m_driver.m_queue;
        queue.erase(std::remove_if(queue.begin(), queue.end(),
                                   [&](const KLVMsgSessionDriver::Record& record) {
                                       return record.delivery.get() == &delivery;
                                   }),
                    queue.end());
    }

    template <class Message>
    KLVMsgReceived<Message> Take(Milliseconds limit, const KLVMsgPeers* from) {
        static_assert(std::is_base_of<KLVMsgSocketMessage, Message>::value,
                      "KLVMsgSession::Receive<T>: T must be a class that is derived from "
                      "KLVMsgSocketMessage, the same as that of a registered prototype");
        const auto deadline = Deadline(limit);
        KLVMsgReceived<Message> received;
        std::unique_lock<std::mutex> lock(m_driver.m_mutex);
        auto& inbox = m_driver.m_inbox[typeid(Message)];
        const bool over = m_driver.m_changed.wait_until(
            lock, deadline, [&] { return TakeOldest(inbox, from, received) || !MayCome(from); });
        if (received.message == nullptr) {
            static_cast<KLVMsgOutcome&>(received) = over ? Gone() : Late();
        }
        return received;
    }

    template <class Message>
    bool TakeOldest(std::deque<KLVMsgSessionDriver::Received>& inbox, const KLVMsgPeers* from,
                    KLVMsgReceived<Message>& received) {
        for (auto one = inbox.begin(); one != inbox.end(); ++one) {
            if (from == nullptr || from->Include(one->from, one->label)) {
                received.peer = one->from;
                received.message.reset(static_cast<Message*>(one->message.release()));
                inbox.erase(one);
                return true;
            }
        }
        return false;
    }

    bool MayCome(const KLVMsgPeers* from) const {
        if (from != nullptr) {
            return !Find(*from).empty();
        }
        return !m_driver.m_peers.empty() || (m_driver.m_listens && !m_driver.m_ending);
    }

    static inline std::atomic<bool> s_exists{false};

    int m_modules = 0;
    std::vector<std::unique_ptr<KLVMsgSocketMessage>> m_prototypes;
    KLVMsgSessionDriver m_driver;
    const bool m_alone;  // the one session of the process
    KLVMsgOutcome m_ready;
    std::unique_ptr<KLVBasAtiThread> m_thread;
};
