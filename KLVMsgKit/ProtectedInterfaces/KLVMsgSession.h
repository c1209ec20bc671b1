// For applications: everything that a process needs to talk, in one object.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "KLVMsgEvent.h"
#include "KLVMsgFramedMessage.h"
#include "KLVMsgKitExport.h"
#include "KLVMsgOutcome.h"
#include "KLVMsgPeer.h"
#include "KLVMsgProtection.h"
#include "KLVMsgSessionOptions.h"
#include "KLVMsgSocketAddress.h"
#include "KLVMsgSocketMessage.h"
#include "KLVMsgTimeLimit.h"

class KLVMsgSessionCore;

// Brings the module up and takes it down again, and between the two sends and receives. There may
// be several in a process, each with connections of its own, and the library's bare interface
// beside them. A thread of the session's own, the loop, moves the bytes of all its connections, and
// never waits for one of them: no peer holds up another one, a delivery, or a time limit.
//
//     KLVMsgSession session;
//     session.Register(Greeting());
//     if (const KLVMsgOutcome done = session.Connect({"127.0.0.1", 4711}, "server"); !done) ...
//     session.Start();
//     session.Send("server", Greeting("Hello!"), std::chrono::seconds(5));
//     const auto answer = session.Receive<Greeting>(std::chrono::seconds(5));
//     if (answer) std::puts(answer->text.c_str());
//
// All operations but the constructor, Register, Start and the destructor may be called on any
// thread at any time. None throws but std::bad_alloc, and what it was to do is then not done. On
// the wire a session is as any other user of the library: a peer needs none.
//
// The code of a message class runs on the thread that sends it, or receives it, so on several at a
// time; that of a class that overrides ReadMessage runs on the loop, where it must neither wait nor
// end the session, and may run more often than messages come (KLVMsgBareReading has the rule: it
// asks for no more than its body has). What it throws costs its own message when it is sent, and
// its own connection when it is received.
//
// A process that forks leaves its sessions to the parent: the child destroys them without effect.
class KLVMSGKIT_EXPORT KLVMsgSession {
public:
    // The limits are those of `options`. Throws std::bad_alloc and leaves nothing behind then.
    // Where the system gives no descriptors, every operation says so.
    explicit KLVMsgSession(const KLVMsgSessionOptions& options = KLVMsgSessionOptions());

    // End with a limit of five seconds. What was received and never asked for is destroyed.
    // Requires: no other thread is in an operation.
    ~KLVMsgSession();

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
        auto kept = std::make_unique<Message>(std::move(prototype));
        const KLVMsgFramedMessage* framed = nullptr;
        if constexpr (KeepsReading<Message>::value) {
            framed = kept.get();
        }
        return RegisterPrototype(std::move(kept), typeid(Message), framed);
    }

    // Lets peers connect to every address that the host has on this machine, and tells the port;
    // with port 0 the system chooses it. Their connections have the empty label until SetLabel
    // gives them another one.
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, int* port = nullptr);

    // The same for peers that are protected in that way: whoever is not is turned away, and an
    // event tells why. Fails where what protects cannot be used.
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, int* port,
                        const KLVMsgProtection& protection);
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, const KLVMsgProtection& protection) {
        return Serve(address, nullptr, protection);
    }

    // Lets no more peers connect to that port; those who are there stay. Failed: nobody served
    // there.
    KLVMsgOutcome StopServing(int port);

    // Connects to a server, under a label; the label may be one that other connections have. Waits
    // no longer than `limit` for the server, though for a name as long as the resolver takes.
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label,
                          KLVMsgTimeLimit limit = std::chrono::seconds(10));

    // The same, protected in that way: done when the server has admitted this session, as it does
    // once it has been started. Fails where one of them does not trust the other, with the cause.
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label,
                          KLVMsgTimeLimit limit, const KLVMsgProtection& protection);
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label,
                          const KLVMsgProtection& protection) {
        return Connect(address, label, std::chrono::seconds(10), protection);
    }

    // Connects again and again, with pauses of up to half a second, until that is done or `limit`
    // over; the outcome is then that of the last attempt.
    KLVMsgOutcome ConnectAgain(const KLVMsgSocketAddress& address, const std::string& label,
                               KLVMsgTimeLimit limit);
    KLVMsgOutcome ConnectAgain(const KLVMsgSocketAddress& address, const std::string& label,
                               KLVMsgTimeLimit limit, const KLVMsgProtection& protection);

    // Starts the loop: from now on messages move. Fails where the system has no thread to give.
    KLVMsgOutcome Start();

    // Sending -------------------------------------------------------------------------------------
    //
    // A message is an object, or a std::unique_ptr to one; it is turned into bytes at once, on this
    // thread, and not kept. Failed: it cannot be, and nothing was sent; the text tells the cause.
    // Sent to a label, it goes to every connection that has it at that moment; to one of them it
    // never goes in part. Messages to one connection are written in the order in which they were
    // queued, before Start too.

    // Queues the message, and does not wait. Peer gone: there is no such connection. Full: there is
    // no room in its queue, and nothing was queued; of a label those with room have it, and an
    // event names each of the others. One that goes before its turn gets nothing.
    template <class Message>
    KLVMsgOutcome Post(const KLVMsgPeers& to, Message&& message) {
        return Outgo<Message>(message,
                              [&](KLVMsgSocketMessage& one, const KLVMsgFramedMessage* framed) {
                                  return PostMessage(to, one, framed);
                              });
    }

    // Queues the message, waits for room if need be, and then until every byte of it was taken by
    // the system, on every connection. Too late: it is withdrawn where none of its bytes was taken;
    // otherwise it may still arrive. Full: there was no room in time; see Post. Peer gone: there is
    // no such connection, or one of them went before all was taken; the text tells how.
    // Requires: the session has been started.
    template <class Message>
    KLVMsgOutcome Send(const KLVMsgPeers& to, Message&& message, KLVMsgTimeLimit limit) {
        return Outgo<Message>(message,
                              [&](KLVMsgSocketMessage& one, const KLVMsgFramedMessage* framed) {
                                  return SendMessage(to, one, framed, limit);
                              });
    }

    // Receiving -----------------------------------------------------------------------------------

    // Waits for a message of exactly this class and hands over the oldest: of any connection, or of
    // those that are meant. A label means the connections that have it now; of one that has gone,
    // the last that it had. Peer gone: none is there and no such connection either, so that none
    // will come. Failed: the class was never registered. Full: so much that nobody asks for has
    // come before it that reading has stopped. A message that its class refused is none: its
    // connection ends.
    template <class Message>
    KLVMsgReceived<Message> Receive(KLVMsgTimeLimit limit) {
        return Take<Message>(limit, nullptr);
    }
    template <class Message>
    KLVMsgReceived<Message> Receive(KLVMsgTimeLimit limit, const KLVMsgPeers& from) {
        return Take<Message>(limit, &from);
    }

    // The same, and hands over all that are there.
    template <class Message>
    KLVMsgReceivedAll<Message> ReceiveAll(KLVMsgTimeLimit limit) {
        return TakeAll<Message>(limit, nullptr);
    }
    template <class Message>
    KLVMsgReceivedAll<Message> ReceiveAll(KLVMsgTimeLimit limit, const KLVMsgPeers& from) {
        return TakeAll<Message>(limit, &from);
    }

    // A descriptor for loops of one's own (poll, epoll): readable while there is a message or an
    // event to be asked for, and once the session has ended. It stays the session's: neither read
    // it nor close it. -1 where the system has none to give.
    int Descriptor();

    // Connections ---------------------------------------------------------------------------------

    // Gives a connection another label. Peer gone: it is no longer there.
    KLVMsgOutcome SetLabel(KLVMsgPeer peer, const std::string& label);

    // The connections that are meant and there, the oldest first. One whose peer has ended its
    // output is no longer there: nothing more will come. It still takes an answer, though, until
    // the thread that has received its last message asks for the next one.
    std::vector<KLVMsgPeer> Peers(const KLVMsgPeers& meant);

    // Ends those connections: what is queued for them is dropped, and what the system has taken
    // still arrives if the peer reads it within five seconds. What has come from them may still be
    // received. Peer gone: there is none.
    KLVMsgOutcome Disconnect(const KLVMsgPeers& meant);

    // Waits until no such connection is there.
    KLVMsgOutcome WaitUntilGone(const KLVMsgPeers& meant, KLVMsgTimeLimit limit);

    // What happens --------------------------------------------------------------------------------

    // Waits for an event, and hands over the oldest. The last thousand are kept.
    KLVMsgEvent NextEvent(KLVMsgTimeLimit limit);

    // What has passed so far: over the connections that are meant and there, or over all of the
    // session, those that have gone included.
    KLVMsgCounts Counts(const KLVMsgPeers& meant);
    KLVMsgCounts Counts();

    // Ending --------------------------------------------------------------------------------------

    // Sends what is queued, ends the output of every connection, and waits up to `limit` for the
    // peers to have read all of it and to close; then the loop ends. Nothing that was done is lost.
    // What comes meanwhile is dropped. Whoever waits is told that the session has ended, as is
    // every operation from then on. Too late: some peers had not closed.
    KLVMsgOutcome End(KLVMsgTimeLimit limit);

private:
    template <class Message>
    struct IsOwner : std::false_type {};
    template <class Message>
    struct IsOwner<std::unique_ptr<Message>> : std::is_base_of<KLVMsgSocketMessage, Message> {};

    // Whether a class leaves reading, or writing, of its body to KLVMsgFramedMessage.
    template <class Message, class = void>
    struct KeepsReading : std::false_type {};
    template <class Message>
    struct KeepsReading<Message, std::void_t<decltype(&Message::ReadMessage)>>
        : std::is_same<decltype(&Message::ReadMessage),
                       int (KLVMsgFramedMessage::*)(KLVMsgInputStream*)> {};
    template <class Message, class = void>
    struct KeepsWriting : std::false_type {};
    template <class Message>
    struct KeepsWriting<Message, std::void_t<decltype(&Message::WriteMessage)>>
        : std::is_same<decltype(&Message::WriteMessage),
                       int (KLVMsgFramedMessage::*)(KLVMsgOutputStream*)> {};

    // Hands a message to `send`, in whichever form it was given.
    template <class Message, class Sender>
    static KLVMsgOutcome Outgo(std::remove_reference_t<Message>& message, const Sender& send) {
        using Plain = std::remove_cv_t<std::remove_reference_t<Message>>;
        constexpr bool isMessage = std::is_base_of<KLVMsgSocketMessage, Plain>::value;
        static_assert(
            !std::is_pointer<Plain>::value,
            "KLVMsgSession: a message is handed over as an object or as a std::unique_ptr, "
            "not as a plain pointer");
        static_assert(
            isMessage || IsOwner<Plain>::value || std::is_pointer<Plain>::value,
            "KLVMsgSession: what is sent must be an object of a class that is derived from "
            "KLVMsgSocketMessage, or a std::unique_ptr to one");
        if constexpr (isMessage) {
            return OutgoObject(message, send);
        } else if constexpr (IsOwner<Plain>::value) {
            return message == nullptr ? NoMessage() : OutgoObject(*message, send);
        } else {
            return {};
        }
    }
    template <class Message, class Sender>
    static KLVMsgOutcome OutgoObject(Message& message, const Sender& send) {
        using Plain = std::remove_cv_t<Message>;
        const KLVMsgFramedMessage* framed = nullptr;
        if constexpr (KeepsWriting<Plain>::value) {
            // A derived class might write its body in its own way.
            framed = typeid(message) == typeid(Plain) ? &message : nullptr;
        }
        if constexpr (!std::is_const<Message>::value) {
            return send(message, framed);
        } else if constexpr (KeepsWriting<Plain>::value) {
            return send(const_cast<Plain&>(message), framed);  // only asked for its name and bytes
        } else {
            Plain copy(message);  // writing a body may change the message
            return send(copy, framed);
        }
    }

    // What a Receive is to find.
    struct Wanted {
        const std::type_info& type;
        KLVMsgTimeLimit limit;
        const KLVMsgPeers* from;  // null: anybody

        // For so many messages, before they are taken out: what is taken out is handed over.
        void (*makeRoom)(void* all, std::size_t count) = nullptr;
        void* all = nullptr;
    };
    using Found = KLVMsgReceivedAll<KLVMsgSocketMessage>;

    template <class Message>
    KLVMsgReceived<Message> Take(KLVMsgTimeLimit limit, const KLVMsgPeers* from) {
        CheckWanted<Message>();
        KLVMsgReceived<KLVMsgSocketMessage> found = ReceiveOne({typeid(Message), limit, from});
        KLVMsgReceived<Message> received;
        KLVMsgOutcome& outcome = found;
        static_cast<KLVMsgOutcome&>(received) = std::move(outcome);
        received.message.reset(static_cast<Message*>(found.message.release()));
        received.peer = found.peer;
        return received;
    }
    template <class Message>
    KLVMsgReceivedAll<Message> TakeAll(KLVMsgTimeLimit limit, const KLVMsgPeers* from) {
        CheckWanted<Message>();
        KLVMsgReceivedAll<Message> received;
        const auto makeRoom = [](void* all, std::size_t count) {
            static_cast<KLVMsgReceivedAll<Message>*>(all)->messages.reserve(count);
        };
        Found found = ReceiveMany({typeid(Message), limit, from, makeRoom, &received});
        KLVMsgOutcome& outcome = found;
        static_cast<KLVMsgOutcome&>(received) = std::move(outcome);
        for (auto& item : found.messages) {
            std::unique_ptr<Message> message(static_cast<Message*>(item.message.release()));
            received.messages.push_back({std::move(message), item.peer});
        }
        return received;
    }
    template <class Message>
    static void CheckWanted() {
        static_assert(std::is_base_of<KLVMsgSocketMessage, Message>::value,
                      "KLVMsgSession::Receive<T>: T must be a class that is derived from "
                      "KLVMsgSocketMessage, the same as that of a registered prototype");
    }

    static KLVMsgOutcome NoMessage();
    KLVMsgOutcome RegisterPrototype(std::unique_ptr<KLVMsgSocketMessage> prototype,
                                    const std::type_info& type, const KLVMsgFramedMessage* framed);
    KLVMsgOutcome PostMessage(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                              const KLVMsgFramedMessage* framed);
    KLVMsgOutcome SendMessage(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                              const KLVMsgFramedMessage* framed, KLVMsgTimeLimit limit);
    KLVMsgReceived<KLVMsgSocketMessage> ReceiveOne(const Wanted& wanted);
    Found ReceiveMany(const Wanted& wanted);

    friend class KLVMsgSessionCore;
    std::unique_ptr<KLVMsgSessionCore> m_core;
};
