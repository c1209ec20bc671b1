// For applications: everything that a process needs to talk, in one object.
#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <type_traits>
#include <typeindex>
#include <utility>
#include <vector>

#include "KLVBasAtiThread.h"
#include "KLVBasUtlsleep.h"
#include "KLVMsgCommModules_IF.h"
#include "KLVMsgOutcome.h"
#include "KLVMsgSessionDriver.h"
#include "KLVMsgSessionLibrary.h"
#include "KLVMsgSessionShared.h"
#include "KLVMsgSessionSockets.h"
#include "KLVMsgTimeLimit.h"

// Brings the library up and takes it down again, and between the two sends and receives. One at a
// time in a process, which then uses neither singleton beside it. A thread of the session's own,
// the driver, moves the messages: between it and the application's threads stand a queue and an
// inbox, so that a time limit holds whatever a peer does.
//
//     KLVMsgSession session;
//     session.Register(Greeting());
//     if (const KLVMsgOutcome failed = session.Connect({"127.0.0.1", 4711}, "server"); !failed) ...
//     session.Start();
//     session.Send("server", Greeting("Hello!"), std::chrono::seconds(5));
//     const auto answer = session.Receive<Greeting>(std::chrono::seconds(5));
//     if (answer) std::puts(answer->text.c_str());
//
// All operations but the constructor, Register, Start and the destructor may be called on any
// thread at any time. On the wire a session is as any other user of the library: a peer needs none.
class KLVMsgSession {
public:
    // How often the driver works.
    enum Pace {
        kAtOnce,  // as soon as there is something to do
        kTask  // as a message task: a wait of up to 20 ms, a message from each connection, 100 ms
    };

    // A transfer that stands still for longer than `stall` ends its connection.
    explicit KLVMsgSession(Pace pace = kAtOnce, KLVMsgTimeLimit stall = std::chrono::seconds(30))
        : m_driver(m_shared, pace == kAtOnce, stall.Duration()), m_alone(!s_exists.exchange(true)) {
        if (m_alone) {
            KLVMsgCommModules_initialize(m_modules);
            m_ready = m_driver.Prepare();
        } else {
            m_ready = Failure(EBUSY, "there is another session in this process");
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
    // empty, has a zero byte or is there already, and when NewInstance makes an object of another
    // class. Requires: the session has not been started.
    template <class Message>
    KLVMsgOutcome Register(Message prototype) {
        static_assert(
            std::is_base_of<KLVMsgSocketMessage, Message>::value,
            "KLVMsgSession::Register(prototype): the prototype must be an object of a class "
            "that is derived from KLVMsgSocketMessage");
        if (!m_ready) {
            return m_ready;
        }
        const KLVString name = prototype.GetMessageType();
        const std::unique_ptr<KLVMsgSocketMessage> made(prototype.NewInstance());
        if (std::string cause = Unfit<Message>(name, made.get()); !cause.empty()) {
            return Failure(EINVAL, std::move(cause));
        }
        m_prototypes.push_back(std::make_unique<Message>(std::move(prototype)));
        m_names.insert(name.Text());
        m_classes.insert(typeid(Message));
        m_driver.AddType(static_cast<std::size_t>(name.Length()));
        KLVMsgSessionLibrary::Communicator().RegisterMessagePrototype(name.Text(),
                                                                      m_prototypes.back().get());
        return {};
    }

    // Lets peers connect, and tells the port; with port 0 the system chooses it. Their connections
    // have the empty label until SetLabel gives them another one.
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, int* port = nullptr) {
        int descriptor = -1;
        KLVMsgSocketAddress bound = address;
        KLVMsgOutcome outcome =
            m_ready ? KLVMsgSessionSockets::Listen(address, descriptor, bound.port) : m_ready;
        if (outcome) {
            KLVMsgSessionShared::Arrival arrival;
            arrival.server = KLVMsgSessionSockets::ServerSocket(descriptor, bound);
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            m_shared.listens = true;
            m_shared.Hand(std::move(arrival));
            if (port != nullptr) {
                *port = bound.port;
            }
        }
        return outcome;
    }

    // Connects to a server, under a label; the label may be one that a lost connection had. Waits
    // no longer than `limit` for the server, though for a name as long as the resolver takes.
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label,
                          KLVMsgTimeLimit limit = std::chrono::seconds(10)) {
        int descriptor = -1;
        const KLVMsgOutcome outcome =
            m_ready ? KLVMsgSessionSockets::Connect(address, limit.Deadline(), descriptor)
                    : m_ready;
        if (outcome) {
            KLVMsgSessionShared::Arrival arrival;
            arrival.stream = KLVMsgSessionSockets::StreamSocket(descriptor, true);
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            if (!m_shared.Add(arrival.peer, label)) {
                close(descriptor);
                return Failure(ESHUTDOWN, "the session has ended");
            }
            m_shared.Hand(std::move(arrival));
        }
        return outcome;
    }

    // Connects again and again, with pauses of up to half a second, until that is done or `limit`
    // over; the outcome is then that of the last attempt.
    KLVMsgOutcome ConnectAgain(const KLVMsgSocketAddress& address, const std::string& label,
                               KLVMsgTimeLimit limit) {
        const auto deadline = limit.Deadline();
        for (std::chrono::milliseconds pause(10);; pause = std::min<std::chrono::milliseconds>(
                                                       2 * pause, std::chrono::milliseconds(500))) {
            const std::chrono::milliseconds left(KLVMsgSessionSockets::Left(deadline));
            const KLVMsgOutcome outcome = Connect(address, label, left);
            if (outcome || left <= pause || outcome.error == ESHUTDOWN) {
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
        try {
            m_thread = std::make_unique<KLVBasAtiThread>(m_driver);
        } catch (const std::system_error& error) {
            return KLVMsgSessionSockets::Failure("cannot start a thread", error.code().value());
        }
        return {};
    }

    // Sending -------------------------------------------------------------------------------------
    //
    // A message is handed over as an object or as a std::unique_ptr, and belongs to the session.
    // Sent to a label, it goes to every connection that has it at that moment. Messages to one
    // connection are written in the order in which they were queued, before Start too.

    // Queues the message, and does not wait. Peer gone: there is no such connection. One that goes
    // before its turn gets nothing.
    template <class Message>
    KLVMsgOutcome Post(const KLVMsgPeers& to, Message message) {
        const auto owned = Own(std::move(message));
        const std::lock_guard<std::mutex> lock(m_shared.mutex);
        return m_shared.Queue(to, owned, nullptr);
    }

    // Queues the message and waits until every byte of it was taken by the system. Too late: it is
    // withdrawn if its turn has not come yet; otherwise it may still arrive. Peer gone: there is no
    // such connection, or one of them went before all was taken.
    // Requires: the session has been started.
    template <class Message>
    KLVMsgOutcome Send(const KLVMsgPeers& to, Message message, KLVMsgTimeLimit limit) {
        const auto deadline = limit.Deadline();
        const auto delivery = std::make_shared<KLVMsgSessionShared::Delivery>();
        const auto owned = Own(std::move(message));
        std::unique_lock<std::mutex> lock(m_shared.mutex);
        const KLVMsgOutcome queued = m_shared.Queue(to, owned, delivery);
        if (!queued) {
            return queued;
        }
        if (!m_shared.changed.wait_until(lock, deadline, [&] { return delivery->left == 0; })) {
            m_shared.Withdraw(*delivery);
            return KLVMsgSessionShared::Late();
        }
        return delivery->failed ? m_shared.Gone() : KLVMsgOutcome();
    }

    // Receiving -----------------------------------------------------------------------------------

    // Waits for a message of exactly this class and hands over the oldest: of any connection, or of
    // those that are meant. Peer gone: none is there and no such connection either, so that none
    // will come. Failed: the class was never registered. A message of which a part did not come, or
    // that its class refused, is none: its connection ends.
    template <class Message>
    KLVMsgReceived<Message> Receive(KLVMsgTimeLimit limit) {
        return Take<Message>(limit, nullptr);
    }
    template <class Message>
    KLVMsgReceived<Message> Receive(KLVMsgTimeLimit limit, const KLVMsgPeers& from) {
        return Take<Message>(limit, &from);
    }

    // Connections ---------------------------------------------------------------------------------

    // Gives a connection another label. Peer gone: it is no longer there.
    KLVMsgOutcome SetLabel(KLVMsgPeer peer, const std::string& label) {
        const std::lock_guard<std::mutex> lock(m_shared.mutex);
        const auto found = m_shared.peers.find(peer);
        if (found == m_shared.peers.end()) {
            return m_shared.Gone();
        }
        found->second.label = label;
        return {};
    }

    // The connections that are meant and there, the oldest first.
    std::vector<KLVMsgPeer> Peers(const KLVMsgPeers& meant) {
        const std::lock_guard<std::mutex> lock(m_shared.mutex);
        return m_shared.Find(meant);
    }

    // Waits until no such connection is there.
    KLVMsgOutcome WaitUntilGone(const KLVMsgPeers& meant, KLVMsgTimeLimit limit) {
        std::unique_lock<std::mutex> lock(m_shared.mutex);
        return m_shared.changed.wait_until(lock, limit.Deadline(),
                                           [&] { return m_shared.Find(meant).empty(); })
                   ? KLVMsgOutcome()
                   : KLVMsgSessionShared::Late();
    }

    // Sends what is queued, ends the output of every connection, and waits up to `limit` for the
    // peers to have read all of it and to close; then the driver ends. Nothing that was done is
    // lost, and everybody who waits is told that the peers have gone. Too late: some peers had not
    // closed.
    // Requires: no other thread calls it at the same time.
    KLVMsgOutcome End(KLVMsgTimeLimit limit) {
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            m_shared.ending = true;
            m_shared.endLimit = limit.Deadline();
            m_shared.Wake();
        }
        if (m_thread == nullptr) {
            return m_ready;
        }
        m_thread->Join();
        return m_shared.closed ? KLVMsgOutcome() : KLVMsgSessionShared::Late();
    }

private:
    template <class Message>
    struct IsOwner : std::false_type {};
    template <class Message>
    struct IsOwner<std::unique_ptr<Message>> : std::is_base_of<KLVMsgSocketMessage, Message> {};

    static KLVMsgOutcome Failure(int error, std::string text) {
        return {KLVMsgOutcome::kFailed, error, std::move(text)};
    }

    // Why a type cannot be registered; empty when it can.
    template <class Message>
    std::string Unfit(const KLVString& name, const KLVMsgSocketMessage* made) const {
        if (name.Length() == 0 || std::string(name.Text()).size() != std::size_t(name.Length())) {
            return "a type name is neither empty nor has zero bytes";
        }
        if (m_names.count(name.Text()) != 0) {
            return std::string("there is a prototype for ") + name.Text();
        }
        if (made == nullptr || typeid(*made) != typeid(Message)) {
            return std::string("NewInstance of ") + name.Text() +
                   " makes an object of another class";
        }
        return "";
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
        } else if constexpr (IsOwner<Message>::value) {
            return std::shared_ptr<KLVMsgSocketMessage>(std::move(message));
        } else {
            return nullptr;
        }
    }

    template <class Message>
    KLVMsgReceived<Message> Take(KLVMsgTimeLimit limit, const KLVMsgPeers* from) {
        static_assert(std::is_base_of<KLVMsgSocketMessage, Message>::value,
                      "KLVMsgSession::Receive<T>: T must be a class that is derived from "
                      "KLVMsgSocketMessage, the same as that of a registered prototype");
        const auto deadline = limit.Deadline();
        KLVMsgReceived<Message> received;
        KLVMsgOutcome& outcome = received;
        if (m_classes.count(typeid(Message)) == 0) {
            outcome = Failure(EINVAL, "no prototype of this class was registered");
            return received;
        }
        const auto taken = [&] {
            auto message = m_shared.Take(typeid(Message), from, received.peer);
            received.message.reset(static_cast<Message*>(message.release()));
            return received.message != nullptr;
        };
        std::unique_lock<std::mutex> lock(m_shared.mutex);
        const bool over = m_shared.changed.wait_until(
            lock, deadline, [&] { return taken() || !m_shared.MayCome(from); });
        if (received.message == nullptr) {
            outcome = over ? m_shared.Gone() : KLVMsgSessionShared::Late();
        }
        return received;
    }

    static inline std::atomic<bool> s_exists{false};

    int m_modules = 0;
    std::vector<std::unique_ptr<KLVMsgSocketMessage>> m_prototypes;
    std::set<std::string> m_names;  // of the prototypes
    std::set<std::type_index> m_classes;
    KLVMsgSessionShared m_shared;
    KLVMsgSessionDriver m_driver;
    const bool m_alone;  // the one session of the process
    KLVMsgOutcome m_ready;
    std::unique_ptr<KLVBasAtiThread> m_thread;
};
