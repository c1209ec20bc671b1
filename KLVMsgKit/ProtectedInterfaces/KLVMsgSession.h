// For applications: everything that a process needs to talk, in one object.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "KLVMsgAnyMessage.h"
#include "KLVMsgCallMessage.h"
#include "KLVMsgEvent.h"
#include "KLVMsgFramedMessage.h"
#include "KLVMsgKitExport.h"
#include "KLVMsgOutcome.h"
#include "KLVMsgPeer.h"
#include "KLVMsgPeerInfo.h"
#include "KLVMsgProtection.h"
#include "KLVMsgQuestionCounts.h"
#include "KLVMsgReceivedAny.h"
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
    // What protects is no message.
    template <class Message>
    using IfNoProtection =
        std::enable_if_t<!std::is_base_of<KLVMsgProtection, std::decay_t<Message>>::value>;

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
        constexpr bool isCall = std::is_base_of<KLVMsgCallMessage, Message>::value;
        static_assert(!isCall || KeepsReading<Message>::value,
                      "KLVMsgSession::Register(prototype): a class that is derived from "
                      "KLVMsgCallMessage leaves reading of its body to it");
        auto kept = std::make_unique<Message>(std::move(prototype));
        const KLVMsgFramedMessage* framed = nullptr;
        if constexpr (KeepsReading<Message>::value) {
            framed = kept.get();
        }
        return RegisterPrototype(std::move(kept), typeid(Message), framed, isCall);
    }

    // Lets messages of every other type come as well, for who passes them on: each as a
    // KLVMsgAnyMessage, which has the type's name. All of them are taken for framed ones, so that a
    // type whose class reads its body itself must be registered. Failed: that was done before.
    // Requires: the session has not been started.
    KLVMsgOutcome RegisterOthers();

    // Lets peers connect to every address that the host has on this machine, and tells the port;
    // with port 0 the system chooses it. Their connections have the empty label until SetLabel
    // gives them another one.
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, int* port = nullptr);

    // The same, and those alone for whom `admit` says true; see KLVMsgNetwork. It is called on the
    // loop's thread without a lock: it may call the session, but must neither wait nor end it, as
    // all connections wait for it. Who is refused, or for whom it throws, is closed at once, and
    // that is an event; the peer's own Connect was done before.
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, KLVMsgAdmit admit, int* port = nullptr);

    // The same for peers that are protected in that way, and `admit` sees the names that their
    // certificates have: whoever is not protected is turned away, and an event tells why. Fails
    // where what protects cannot be used. With a null `admit` all of them may connect.
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, KLVMsgAdmit admit, int* port,
                        const KLVMsgProtection& protection);
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, int* port,
                        const KLVMsgProtection& protection) {
        return Serve(address, nullptr, port, protection);
    }
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, const KLVMsgProtection& protection) {
        return Serve(address, nullptr, nullptr, protection);
    }

    // Lets no more peers connect to that port; those who are there stay. Failed: nobody served
    // there.
    KLVMsgOutcome StopServing(int port);

    // A retry under a label whose connection still lives makes every message come twice: Disconnect
    // first, or Keep. For the label may be one that other connections have.
    //
    // Connects to a server, under a label, and tells the peer that it has made. Waits no longer
    // than `limit` for the server, though for a name as long as the resolver takes.
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label,
                          KLVMsgTimeLimit limit = std::chrono::seconds(10));
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label,
                          KLVMsgTimeLimit limit, KLVMsgPeer& made);

    // The same, protected in that way: done when the server has admitted this session, as it does
    // once it has been started. Fails where one of them does not trust the other, with the cause.
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label,
                          KLVMsgTimeLimit limit, const KLVMsgProtection& protection);
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label,
                          const KLVMsgProtection& protection) {
        return Connect(address, label, std::chrono::seconds(10), protection);
    }

    // A retry under a label whose connection still lives makes every message come twice: Disconnect
    // first, or Keep.
    //
    // Connects again and again, with pauses of up to half a second, until that is done or `limit`
    // over; the outcome is then that of the last attempt.
    KLVMsgOutcome ConnectAgain(const KLVMsgSocketAddress& address, const std::string& label,
                               KLVMsgTimeLimit limit);
    KLVMsgOutcome ConnectAgain(const KLVMsgSocketAddress& address, const std::string& label,
                               KLVMsgTimeLimit limit, const KLVMsgProtection& protection);
    KLVMsgOutcome ConnectAgain(const KLVMsgSocketAddress& address, const std::string& label,
                               KLVMsgTimeLimit limit, KLVMsgPeer& made);

    // Keeps a connection to a server, under a label of its own, and returns at once: from Start on
    // it is made, and made again whenever it is lost, with pauses that grow from 50 ms to 5 s, by
    // chance a little more or less, until Disconnect of the label; each is a new peer. `hello` is
    // sent first each time, before anything else; its bytes are made here. Failed: the label is
    // empty, that of another Keep, or one that a connection has; or `hello` cannot be sent.
    //
    // While it is away, before the first time as well, Post to the label queues within the limits,
    // Send waits within its own, Receive waits for what may come, Peers is empty and WaitUntilGone
    // done. What is queued goes out in order when it is back. A message of which a part had been
    // taken is lost, and an event; one that the system had taken whole may be, as on every
    // connection that ends. Why it cannot be made is an event when the cause is another one.
    KLVMsgOutcome Keep(const KLVMsgSocketAddress& address, const std::string& label);
    template <class Message, class = IfNoProtection<Message>>
    KLVMsgOutcome Keep(const KLVMsgSocketAddress& address, const std::string& label,
                       Message&& hello) {
        return Outgo<Message>(hello,
                              [&](KLVMsgSocketMessage& one, const KLVMsgFramedMessage* framed) {
                                  return KeepPeer(address, label, one, framed);
                              });
    }

    // The same, protected in that way: it is there each time that the server has admitted this
    // session; until then it is away, and that one of them does not trust the other is why. Fails
    // where what protects cannot be used.
    KLVMsgOutcome Keep(const KLVMsgSocketAddress& address, const std::string& label,
                       const KLVMsgProtection& protection);
    template <class Message>
    KLVMsgOutcome Keep(const KLVMsgSocketAddress& address, const std::string& label,
                       Message&& hello, const KLVMsgProtection& protection) {
        return Outgo<Message>(hello,
                              [&](KLVMsgSocketMessage& one, const KLVMsgFramedMessage* framed) {
                                  return KeepPeer(address, label, one, framed, protection);
                              });
    }

    // Starts the loop: from now on messages move. Fails where the system has no thread to give.
    KLVMsgOutcome Start();

    // Has the loop's thread call the function with every event, for logs: in the order in which
    // they happen, NextEvent beside it. No lock is held meanwhile, and no connection is read or
    // written: so it is to be quick, and may call whatever waits for nothing (Post, Answer,
    // SetLabel, Peers, Disconnect, Counts, operations with a limit of 0ms), but not End or the
    // destructor. What it throws goes no further. Where it is a thousand events behind the oldest
    // are left out, and `missed` counts them. An empty function sees none. Failed: the session has
    // been started.
    KLVMsgOutcome Observe(std::function<void(const KLVMsgEvent& event)> function);

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

    // Waits for a message of exactly this class and hands over the oldest: of any connection, or
    // of those that are meant. A label means the connections that have it now; of one that has
    // gone, the last that it had. Peer gone: none is there and no such connection either, so that
    // none will come. Failed: the class was never registered, or has a handler. Full: so much that
    // nobody asks for has come before it that reading has stopped. A message that its class
    // refused is none: its connection ends.
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

    // The same of any class that was registered and has no handler: the oldest of them all. Its
    // type is in the outcome.
    KLVMsgReceivedAny ReceiveAny(KLVMsgTimeLimit limit);
    KLVMsgReceivedAny ReceiveAny(KLVMsgTimeLimit limit, const KLVMsgPeers& from);

    // Has Dispatch call the function with messages of exactly this class, which are Dispatch's
    // alone from now on: Receive of it fails. The message is the function's, which may do anything
    // that the thread that calls Dispatch may. Another function takes the place of the one before,
    // and an empty one gives the class back to Receive. Failed: the class was never registered.
    template <class Message>
    KLVMsgOutcome Handle(std::function<void(KLVMsgReceived<Message> received)> function) {
        CheckWanted<Message>();
        if (function == nullptr) {
            return SetHandler(typeid(Message), nullptr);
        }
        return SetHandler(typeid(Message), [handle = std::move(function)](KLVMsgReceivedAny any) {
            handle(any.Take<Message>());
        });
    }

    // The same for events, which are Dispatch's alone from now on: NextEvent fails. An event comes
    // behind every message that had come when it happened, and before later ones: what a peer has
    // sent is handled before its kGone is, and behind its kCame. An empty function gives them back
    // to NextEvent.
    KLVMsgOutcome HandleEvents(std::function<void(const KLVMsgEvent& event)> function);

    // Waits until there is a message of a class that has a handler, as Receive does, or an event if
    // events have one. Then calls handlers on this thread, with the oldest first, for all that are
    // there by then; what comes meanwhile is for the next time. With 0ms it does not wait: a loop
    // of one's own calls it when Descriptor() is readable. What a handler throws passes out of it:
    // its message is done, and the others are there for the next time. Failed: nothing has a
    // handler.
    KLVMsgOutcome Dispatch(KLVMsgTimeLimit limit);

    // A descriptor for loops of one's own (poll, epoll): readable while there is a message or an
    // event to be asked for, and once the session drains or has ended. It stays the session's:
    // neither read it nor close it. -1 where the system has none to give.
    int Descriptor();

    // Questions -----------------------------------------------------------------------------------

    // Goes to one connection alone: of a label to one that has it, in turn, and to no other when
    // that one fails. Queues the question as Post does, and waits for an answer of exactly this
    // class from there: past what else has come, in the inbox or not. There may be any number at a
    // time, on any thread but the loop's; also in a handler. Peer gone: there is no such
    // connection, or it went before it had answered, which ends the waiting at once; the text
    // tells how. Full: there is no room in its queue, or so much that nobody asks for has come
    // before the answer that reading has stopped. Too late: the question is withdrawn where none
    // of its bytes was taken; otherwise it may still arrive, and its answer is dropped. Failed:
    // the answer's class was never registered, or the question cannot be put into bytes.
    // Requires: the session has been started.
    template <class Answer, class Question>
    KLVMsgReceived<Answer> Ask(const KLVMsgPeers& to, const Question& question,
                               KLVMsgTimeLimit limit) {
        static_assert(std::is_base_of<KLVMsgCallMessage, Answer>::value,
                      "KLVMsgSession::Ask<T>: T must be a class that is derived from "
                      "KLVMsgCallMessage, the same as that of a registered prototype");
        return As<Answer>(AskMessage(to, Call(question), typeid(Answer), limit));
    }

    // Posts the answer to whoever sent the question, which is what Receive, ReceiveAll (one of its
    // messages) or a handler has given. Where no answer is wanted none goes, and that is done.
    // Requires: there is a message in it.
    template <class Received, class Message>
    KLVMsgOutcome Answer(const Received& question, const Message& answer) {
        const KLVMsgCallMessage* const asked = Call(*question);
        return AnswerMessage(question.peer, asked->cameWith, Call(answer));
    }

    // What has become of the questions so far.
    KLVMsgQuestionCounts Questions();

    // Connections ---------------------------------------------------------------------------------

    // Gives a connection another label. Peer gone: it is no longer there. Failed: it is a Keep's,
    // and keeps its label.
    KLVMsgOutcome SetLabel(KLVMsgPeer peer, const std::string& label);

    // What is known of a connection: as long as it is there, or something that has come from it
    // waits to be received. Peer gone: neither.
    KLVMsgPeerInfo Info(KLVMsgPeer peer);

    // The connections that are meant and there, the oldest first. One whose peer has ended its
    // output is no longer there: nothing more will come. It still takes an answer, though, until
    // the thread that has received its last message asks for the next one.
    std::vector<KLVMsgPeer> Peers(const KLVMsgPeers& meant);

    // Ends those connections: what is queued for them is dropped, and what the system has taken
    // still arrives if the peer reads it within five seconds. What has come from them may still be
    // received. Peer gone: there is none. A label, and All, also ends what Keep does; one peer that
    // is a Keep's comes back.
    KLVMsgOutcome Disconnect(const KLVMsgPeers& meant);

    // Waits until no such connection is there; or until there is one: a peer that has gone is not
    // waited for, as it does not come back.
    KLVMsgOutcome WaitUntilGone(const KLVMsgPeers& meant, KLVMsgTimeLimit limit);
    KLVMsgOutcome WaitUntilThere(const KLVMsgPeers& meant, KLVMsgTimeLimit limit);

    // What happens --------------------------------------------------------------------------------

    // Waits for an event, and hands over the oldest. The last thousand are kept. Failed: events
    // have a handler.
    KLVMsgEvent NextEvent(KLVMsgTimeLimit limit);

    // What has passed so far: over the connections that are meant and there, or over all of the
    // session, those that have gone included.
    KLVMsgCounts Counts(const KLVMsgPeers& meant);
    KLVMsgCounts Counts();

    // Ending --------------------------------------------------------------------------------------

    // Takes nothing new: no connection, and of what peers send nothing more is read. Hands out what
    // has come, until it is received and whoever has received a message asks for the next one (and
    // is told then that the session has ended), so that all may be answered; sends what is queued,
    // for a Keep's connection that is away too, when it is back; then Ends. For a thread that does
    // not receive itself. Too late: something was left, and the text says what; it is lost.
    KLVMsgOutcome Drain(KLVMsgTimeLimit limit);

    // Sends what is queued, ends the output of every connection, and waits up to `limit` for the
    // peers to have read all of it and to close; then the loop ends. Nothing that was done is lost,
    // but for what is queued for a Keep's connection that is away: then the outcome is peer gone.
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
        return As<Message>(ReceiveOne({typeid(Message), limit, from}));
    }
    template <class Message>
    static KLVMsgReceived<Message> As(KLVMsgReceived<KLVMsgSocketMessage> found) {
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

    // The question or answer, in whichever form it was given; null where there is none.
    template <class Message>
    static const KLVMsgCallMessage* Call(const Message& message) {
        constexpr bool isCall = std::is_base_of<KLVMsgCallMessage, Message>::value;
        static_assert(isCall || IsOwner<Message>::value,
                      "KLVMsgSession: a question, or an answer, must be an object of a class that "
                      "is derived from KLVMsgCallMessage, or a std::unique_ptr to one");
        if constexpr (isCall) {
            static_assert(KeepsWriting<Message>::value,
                          "KLVMsgSession: a class that is derived from KLVMsgCallMessage leaves "
                          "writing of its body to it");
            return &message;
        } else if constexpr (IsOwner<Message>::value) {
            return message == nullptr ? nullptr : Call(*message);
        } else {
            return nullptr;
        }
    }

    using Handler = std::function<void(KLVMsgReceivedAny)>;

    static KLVMsgOutcome NoMessage();
    KLVMsgOutcome RegisterPrototype(std::unique_ptr<KLVMsgSocketMessage> prototype,
                                    const std::type_info& type, const KLVMsgFramedMessage* framed);
    KLVMsgOutcome RegisterPrototype(std::unique_ptr<KLVMsgSocketMessage> prototype,
                                    const std::type_info& type, const KLVMsgFramedMessage* framed,
                                    bool isCall);
    KLVMsgOutcome KeepPeer(const KLVMsgSocketAddress& address, const std::string& label,
                           KLVMsgSocketMessage& hello, const KLVMsgFramedMessage* framed);
    KLVMsgOutcome KeepPeer(const KLVMsgSocketAddress& address, const std::string& label,
                           KLVMsgSocketMessage& hello, const KLVMsgFramedMessage* framed,
                           const KLVMsgProtection& protection);
    KLVMsgOutcome PostMessage(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                              const KLVMsgFramedMessage* framed);
    KLVMsgOutcome SendMessage(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                              const KLVMsgFramedMessage* framed, KLVMsgTimeLimit limit);
    KLVMsgReceived<KLVMsgSocketMessage> ReceiveOne(const Wanted& wanted);
    Found ReceiveMany(const Wanted& wanted);
    KLVMsgOutcome SetHandler(const std::type_info& type, Handler handler);
    KLVMsgReceived<KLVMsgSocketMessage> AskMessage(const KLVMsgPeers& to,
                                                   const KLVMsgCallMessage* question,
                                                   const std::type_info& answer,
                                                   KLVMsgTimeLimit limit);
    KLVMsgOutcome AnswerMessage(KLVMsgPeer to, std::uint64_t question,
                                const KLVMsgCallMessage* answer);

    friend class KLVMsgSessionCore;
    std::unique_ptr<KLVMsgSessionCore> m_core;
};
