// For the session's own sources: where the application's threads and the loop meet.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include "KLVMsgDialer.h"
#include "KLVMsgEventQueue.h"
#include "KLVMsgInbox.h"
#include "KLVMsgKeep.h"
#include "KLVMsgLinger.h"
#include "KLVMsgLoop.h"
#include "KLVMsgMessageTypes.h"
#include "KLVMsgModuleUse.h"
#include "KLVMsgPeerBook.h"
#include "KLVMsgSession.h"
#include "KLVMsgSignal.h"
#include "KLVMsgWaiting.h"
#include "KLVMsgWireWriter.h"

// A message that somebody waits for; it is on the waiting thread's stack.
struct KLVMsgDelivery {
    KLVMsgWaiter waiter;
    std::size_t left = 0;              // connections that have it queued
    std::size_t size = 0;              // bytes on the wire
    std::vector<KLVMsgPeer> roomless;  // whose queue has no room for it yet
    bool isBegun = false;              // one of them has had it queued
    bool failed = false;               // one of them went before all was taken
    std::string cause;                 // why, if there was memory for the words

    // `why` makes the words.
    template <class Why>
    void Fail(const Why& why) {
        failed = true;
        try {
            cause = why();
        } catch (const std::bad_alloc&) {
            cause.clear();
        }
    }
};

// A question that somebody waits to be answered; it is on the asking thread's stack. Whoever is
// woken with an answer needs no mutex: many who ask would wait for it in turn.
struct KLVMsgQuestion {
    using Time = KLVMsgTimeLimit::Clock::time_point;

    // False when the time is over. Requires: the session's mutex is not held.
    bool Wait(Time limit) { return m_ready.Wait(limit); }

    // Once, and the last that is done with it. Requires: it is over.
    void Wake() { m_ready.Signal(); }

    // Guarded by the session's mutex, until it is over.
    KLVMsgDelivery delivery;  // of the question
    std::uint32_t type = 0;   // of the answer
    bool isOver = false;
    bool isAnswered = false;     // otherwise it is over for the cause in `failure`
    bool isSent = false;         // when it was answered: nobody has `delivery` any more
    KLVMsgParcel::Owner answer;  // null where its bytes were copied
    std::string_view body;       // of the answer
    char bytes[KLVMsgParcel::kShort];
    KLVMsgOutcome failure;
    KLVMsgQuestion* nextAnswered = nullptr;  // of those that are to be woken

private:
    KLVMsgSignal m_ready;
};

// What stands behind KLVMsgSession. The mutex guards all of it but the types, which do not change
// once the loop runs, and the options. It is never held while a message's own code runs, a system
// call transfers, or somebody waits.
//
// Sources: KLVMsgSessionCore.cpp has connections and events, KLVMsgSessionGreeting.cpp how they
// begin, KLVMsgSessionAdmitting.cpp who may connect, KLVMsgSessionKeeping.cpp the connections that
// come back, KLVMsgSessionSending.cpp and KLVMsgSessionReceiving.cpp the two directions,
// KLVMsgSessionAsking.cpp what goes both ways, KLVMsgSessionDispatching.cpp what calls the
// application (handlers, and who observes), KLVMsgSessionEnding.cpp the end.
class KLVMsgSessionCore final : private KLVMsgLoop::Owner {
public:
    using Peer = KLVMsgSessionPeer;
    using Lock = std::unique_lock<std::mutex>;
    using Clock = KLVMsgTimeLimit::Clock;
    using Time = Clock::time_point;
    using Wanted = KLVMsgSession::Wanted;
    using Message = std::unique_ptr<KLVMsgSocketMessage>;
    using Found = KLVMsgSession::Found;
    using Transports = std::shared_ptr<KLVMsgTransportFactory>;  // null: plain
    using Observer = std::function<void(const KLVMsgEvent&)>;

    explicit KLVMsgSessionCore(const KLVMsgSessionOptions& options);
    ~KLVMsgSessionCore();
    KLVMsgSessionCore(const KLVMsgSessionCore&) = delete;
    KLVMsgSessionCore& operator=(const KLVMsgSessionCore&) = delete;

    // The operations of KLVMsgSession.
    KLVMsgOutcome Register(Message prototype, const std::type_info& type,
                           const KLVMsgFramedMessage* framed, bool isCall);
    KLVMsgOutcome RegisterOthers();
    KLVMsgOutcome Observe(Observer observer);
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, KLVMsgAdmit admit, int* port,
                        const Transports& transports);
    KLVMsgOutcome StopServing(int port);
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label, Time limit,
                          KLVMsgPeer* made, const Transports& transports);
    KLVMsgOutcome ConnectAgain(const KLVMsgSocketAddress& address, const std::string& label,
                               Time limit, KLVMsgPeer* made, const Transports& transports);
    KLVMsgOutcome Keep(const KLVMsgSocketAddress& address, const std::string& label,
                       KLVMsgSocketMessage* hello, const KLVMsgFramedMessage* framed,
                       const Transports& transports);
    KLVMsgOutcome Start();
    KLVMsgOutcome Post(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                       const KLVMsgFramedMessage* framed);
    KLVMsgOutcome Send(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                       const KLVMsgFramedMessage* framed, KLVMsgTimeLimit limit);
    KLVMsgReceived<KLVMsgSocketMessage> ReceiveOne(const Wanted& wanted);
    KLVMsgReceivedAll<KLVMsgSocketMessage> ReceiveMany(const Wanted& wanted);
    KLVMsgReceivedAny ReceiveAny(KLVMsgTimeLimit limit, const KLVMsgPeers* from);
    KLVMsgOutcome SetHandler(const std::type_info& type, KLVMsgSession::Handler handler);
    KLVMsgOutcome SetEventHandler(Observer handler);
    KLVMsgOutcome Dispatch(KLVMsgTimeLimit limit);
    KLVMsgReceived<KLVMsgSocketMessage> Ask(const KLVMsgPeers& to,
                                            const KLVMsgCallMessage& question,
                                            const std::type_info& answer, KLVMsgTimeLimit limit);
    KLVMsgOutcome Answer(KLVMsgPeer to, std::uint64_t question, const KLVMsgCallMessage& answer);
    KLVMsgQuestionCounts Questions();
    int Descriptor();
    KLVMsgOutcome SetLabel(KLVMsgPeer peer, const std::string& label);
    KLVMsgPeerInfo Info(KLVMsgPeer peer);
    std::vector<KLVMsgPeer> Peers(const KLVMsgPeers& meant);
    KLVMsgOutcome Disconnect(const KLVMsgPeers& meant);
    KLVMsgOutcome WaitUntil(bool isThere, const KLVMsgPeers& meant, KLVMsgTimeLimit limit);
    KLVMsgEvent NextEvent(KLVMsgTimeLimit limit);
    KLVMsgCounts Counts(const KLVMsgPeers& meant);
    KLVMsgCounts Counts();
    KLVMsgOutcome Drain(KLVMsgTimeLimit limit);
    KLVMsgOutcome End(KLVMsgTimeLimit limit);

    // Whether this process is a child of the one that made the session.
    bool IsInChild() const;

private:
    struct Receiver {
        KLVMsgWaiter waiter;
        std::uint32_t type;
        const KLVMsgPeers* from;
    };
    struct PresenceWaiter {
        KLVMsgWaiter waiter;
        const KLVMsgPeers* meant;
        bool isThere;  // whether it waits until one is there, or none
    };
    // What a thread has received last, and may still answer.
    struct Hand {
        std::thread::id thread;
        std::vector<KLVMsgPeer> peers;
    };

    // Who was accepted and still greets, or has been turned away and not left.
    struct Guest {
        std::uint64_t listener = 0;
        std::string address;
        KLVMsgLoop::LinkPtr link;
        bool isTold = false;
    };

    // Beside the number of a type: all that have a handler, and all that have none.
    static constexpr std::uint32_t kHandled = 0xfffffffe;
    static constexpr std::uint32_t kUnhandled = 0xfffffffd;
    static constexpr std::uint32_t kSets = 2;

    static constexpr char kInboxIsFull[] =
        "what nobody asks for has filled the inbox before such a message came";

    using Handler = std::shared_ptr<const KLVMsgSession::Handler>;
    using EventHandler = std::shared_ptr<const Observer>;
    struct Taken {
        KLVMsgReceivedAny received;
        Handler handler;            // null where there is none
        KLVMsgEvent event;          // in place of a message, if `eventHandler` is one
        EventHandler eventHandler;  // null for a message
        std::size_t left = 0;       // of the same set
    };
    using Queue = KLVMsgFifo<Peer::Awaited>;
    using Parcels = std::vector<std::pair<KLVMsgParcel::Owner, KLVMsgPeer>>;

    static KLVMsgOutcome Outcome(KLVMsgOutcome::Status status, int error, std::string_view words);
    static KLVMsgOutcome Late();
    static KLVMsgOutcome Ended(KLVMsgOutcome::Status status);
    static KLVMsgOutcome InboxIsFull();
    static KLVMsgOutcome TooMany();
    static KLVMsgOutcome NoRoom();
    KLVMsgOutcome Gone(const KLVMsgPeers& meant);
    KLVMsgOutcome IsReady() const;
    KLVMsgOutcome MayRegister() const;
    void AddType(KLVMsgMessageTypes::Type type);

    // Connections.
    std::unique_ptr<KLVMsgTransport> Plain(KLVMsgDescriptor socket) const;
    KLVMsgOutcome Adopt(std::unique_ptr<KLVMsgTransport> transport, const std::string& label,
                        const std::string& address, Peer*& made);
    static std::string HostOf(const KLVMsgSocketAddress& address);
    void TellCame(const Peer& peer, const KLVMsgTransport& transport);
    void TellRefused(const std::string& address, int error, const std::string& why);
    KLVMsgOutcome Admit(Lock& lock, std::uint64_t listener, const std::string& address,
                        const std::vector<std::string>& names, std::string& served);

    // Connections that come back.
    KLVMsgOutcome MakeKeep(const KLVMsgSocketAddress& address, const std::string& label,
                           std::unique_ptr<KLVMsgKeep> made);
    KLVMsgOutcome PrepareDialer();
    KLVMsgLoop::LinkPtr NewPlaceLink(const Peer& place) const;
    bool IsAway(const std::string& label) const;
    void OpenPlace(KLVMsgKeep& keep);
    void TakeBack(KLVMsgKeep& keep, KLVMsgLoop::Link& link, Queue& awaited);
    void TakeBackLate(KLVMsgLoop::Link& link);
    void Part(Peer& peer, const KLVMsgLoop::LinkPtr& link);
    static bool MoveQueue(KLVMsgOutput& from, Queue& awaited, KLVMsgOutput& to, Queue& toAwaited);
    void MoveRoomless(KLVMsgPeer from, KLVMsgPeer to);
    void OnDialed(KLVMsgKeep& keep, KLVMsgOutcome outcome, KLVMsgDescriptor socket);
    template <class Step>
    void GoOn(KLVMsgKeep& keep, const Step& step);
    KLVMsgOutcome ComeBack(KLVMsgKeep& keep, KLVMsgDescriptor socket);
    KLVMsgOutcome GreetServer(KLVMsgKeep& keep, KLVMsgDescriptor socket);
    KLVMsgKeep* KeepThatGreets(const KLVMsgLoop::Link& link) const;
    void GreetedServer(KLVMsgKeep& keep, const KLVMsgTransport::Greeting& greeting);
    void GreetingFailed(KLVMsgKeep& keep, int error, const std::string& why);
    KLVMsgOutcome BeAdmitted(KLVMsgKeep& keep, const KLVMsgLoop::LinkPtr& guest);
    void Resume(KLVMsgKeep& keep, Peer& made, KLVMsgLoop::LinkPtr spare);
    void TellAway(KLVMsgKeep& keep, const KLVMsgOutcome& outcome);
    void TellLost(const Peer& peer, std::size_t count, const char* why);
    std::size_t EndKeeps(const KLVMsgPeers& meant, const std::string& cause, std::size_t& lost);

    void TellGone(Peer& peer, KLVMsgEvent::Cause cause, const std::string& text, int error);
    void Forget(Peer& peer);
    void EndAnswerless(Peer& peer);
    void EndOneHalf();
    void WakePresenceWaiters();
    std::size_t BeginToEnd();
    void WakeEverybody();
    bool IsDrained();
    bool IsAnyInHand();
    void WakeIfDrained();
    void BeginDraining();
    static void Signal(int descriptor);
    static KLVMsgEvent Event(KLVMsgEvent::Kind kind, const Peer* peer);
    void PushEvent(KLVMsgEvent event);
    void TellLeftOut(const Peer& peer);

    // Tells an event that `make` makes; one for which there is no memory counts as missed.
    template <class Make>
    void Tell(const Make& make) {
        try {
            PushEvent(make());
        } catch (const std::bad_alloc&) {
            m_events.Miss();
        }
    }
    void UpdateReadable();
    static void AddCounts(KLVMsgCounts& counts, Peer& peer);

    // Greetings.
    KLVMsgOutcome Greet(std::unique_ptr<KLVMsgTransport>& transport,
                        KLVMsgTransportFactory& transports, const KLVMsgSocketAddress& address,
                        Time limit);
    KLVMsgOutcome Invite(std::unique_ptr<KLVMsgTransport> transport, std::uint64_t listener,
                         const std::string& address);
    KLVMsgOutcome AdoptGuest(Lock& lock, KLVMsgLoop::Link& link, const Guest& guest);
    Peer& AdoptGreeted(const KLVMsgLoop::LinkPtr& link, const std::string& label,
                       const std::string& address);
    void GuestIsOver(KLVMsgLoop::Link& link);
    void TellNotRenewed(const std::string& address, const std::string& warning);

    // Sending.
    bool Fits(const Peer& peer, const KLVMsgWireWriter& bytes, KLVMsgOutcome& outcome) const;
    bool HasRoom(const Peer& peer, std::size_t size) const;
    void Append(Peer& peer, const KLVMsgWireWriter& bytes, KLVMsgDelivery* delivery);
    void Deliver(Lock& lock, Peer& peer, const KLVMsgWireWriter& bytes, KLVMsgDelivery* delivery,
                 bool isOnlyOne);
    void UpdateCost(Peer& peer);
    void PostBytes(Lock& lock, const KLVMsgPeers& to, const KLVMsgWireWriter& bytes,
                   KLVMsgOutcome& outcome);
    KLVMsgOutcome PostToMany(Lock& lock, const KLVMsgPeers& to, const KLVMsgWireWriter& bytes);
    KLVMsgOutcome FindReceivers(const KLVMsgPeers& to, const KLVMsgWireWriter& bytes,
                                KLVMsgDelivery& delivery);
    void AwaitDelivery(Lock& lock, KLVMsgDelivery& delivery, const KLVMsgWireWriter& bytes,
                       Time deadline);
    void RetryRoomless(Lock& lock, KLVMsgDelivery& delivery, const KLVMsgWireWriter& bytes);
    void Withdraw(KLVMsgDelivery& delivery);
    static bool WithdrawFrom(Queue& awaited, KLVMsgLoop::Link* link,
                             const KLVMsgDelivery& delivery);
    KLVMsgOutcome LeaveOut(const KLVMsgDelivery& delivery, bool isLabel);
    static void TellTaken(Queue& awaited, KLVMsgOutput::Position taken);
    static void FailAwaited(Queue& awaited, const std::string& cause);
    void WakeRoomless();

    // Receiving.
    KLVMsgOutcome AwaitParcel(Lock& lock, std::uint32_t type, const Wanted& wanted,
                              const KLVMsgParcel*& found);
    const KLVMsgParcel* Find(std::uint32_t type, const KLVMsgPeers* from);
    const KLVMsgParcel* FindOfClass(std::uint32_t type, const KLVMsgPeers* from);
    std::size_t TakePart(std::uint32_t type, const KLVMsgPeers* from, std::size_t most,
                         bool isFirst, Parcels& parcels);
    void HandOver(std::uint32_t type, Parcels& parcels, Found& received);
    KLVMsgParcel::Owner TakeFirst(const KLVMsgParcel* found, KLVMsgPeer& from,
                                  char (&bytes)[KLVMsgParcel::kLongestOfRun],
                                  std::string_view& body);
    static Peer& PeerOf(const KLVMsgParcel& parcel);
    void TookOut(Peer& peer, std::size_t cost);
    Message Unpack(KLVMsgParcel::Owner parcel, std::uint32_t type, std::string_view body,
                   KLVMsgPeer from);
    Message Decode(std::uint32_t number, std::string_view body, KLVMsgPeer from);
    void Refuse(KLVMsgPeer from, KLVMsgEvent::Cause cause,
                std::initializer_list<std::string_view> words);
    bool MayCome(const KLVMsgPeers* from);
    void WakeReceivers(std::uint32_t type);
    void WakeThoseWithoutHope();
    void WakeThoseWhoseInboxIsFull();
    void LimitReading(Peer& peer);
    bool IsAwaited(const Peer& peer) const;
    bool LetRead(const KLVMsgPeers* from);
    void ReleaseHand();
    void Release(Hand& hand, std::size_t kept);
    void TakeInHand(Peer& peer, bool isNext);
    Hand* MyHand();

    // Asking.
    Peer* NextToAsk(const KLVMsgPeers& to);
    KLVMsgOutcome NobodyToAsk(const KLVMsgPeers& to);
    KLVMsgOutcome PutQuestion(Lock& lock, const KLVMsgPeers& to, const KLVMsgWireWriter& bytes,
                              std::uint64_t number, KLVMsgQuestion& question, KLVMsgPeer& asked);
    KLVMsgOutcome AwaitAnswer(Lock& lock, KLVMsgQuestion& question, std::uint64_t number,
                              KLVMsgPeer asked, Time deadline);
    static void FailQuestions(Peer& peer, KLVMsgOutcome::Status status, int error,
                              std::string_view cause);
    bool TakeAnswer(Peer& peer, KLVMsgParcel::Owner& parcel);

    // Dispatching.
    bool IsHandled(std::uint32_t type) const {
        return type < m_handlers.size() && m_handlers[type] != nullptr;
    }
    std::list<Receiver*>& Receivers(std::uint32_t type);
    KLVMsgOutcome TakeOne(std::uint32_t set, const Wanted& wanted, Taken& taken);
    bool IsEventNext(std::uint32_t set, const KLVMsgParcel* found) const;
    std::size_t CountOf(std::uint32_t set) const;
    bool HasAnyHandler() const;
    void WakeForEvent();
    void TellObserver(Lock& lock);

    // KLVMsgLoop::Owner
    void OnCame(KLVMsgLoop::Link& link, KLVMsgWireReader::Arrivals& arrivals,
                KLVMsgParcel::Stock& stock) override;
    void OnInputEnded(KLVMsgLoop::Link& link) override;
    void OnTook(KLVMsgLoop::Link& link) override;
    void OnStalls(KLVMsgLoop::Link& link) override;
    void OnOver(KLVMsgLoop::Link& link) override;
    void OnAccepted(Lock& lock, std::uint64_t listener, KLVMsgDescriptor socket,
                    const std::string& address) override;
    void OnGreeted(Lock& lock, KLVMsgLoop::Link& link,
                   const KLVMsgTransport::Greeting& greeting) override;
    void OnListenerFailed(const KLVMsgLoop::Listener& listener, int error) override;
    void OnGroupCame(Lock& lock) override;
    void OnErrand(Lock& lock) override { TellObserver(lock); }
    void OnReadable() override;

    const KLVMsgModuleUse m_module;
    const KLVMsgSessionOptions m_options;
    const pid_t m_process;
    KLVMsgMessageTypes m_types;
    KLVMsgOutcome m_ready;  // why nothing works, if nothing does
    KLVMsgDescriptor m_endSignal;

    const std::shared_ptr<KLVMsgSpentBodies> m_spentBodies = std::make_shared<KLVMsgSpentBodies>();

    std::mutex m_mutex;
    KLVMsgPeerBook m_book;
    std::map<std::uint64_t, Guest> m_guests;  // by the link's id, the oldest first
    KLVMsgInbox m_inbox;
    KLVMsgParcel::Stock m_spent;  // blocks of messages that were handed over
    KLVMsgEventQueue m_events;
    Observer m_observer;           // does not change once the loop runs
    KLVMsgEventQueue m_observed;   // what it has not seen yet
    KLVMsgEventQueue m_telling;    // what it sees now: the loop's own
    std::size_t m_live = 0;        // connections that are not over
    std::size_t m_queuedCost = 0;  // of all outputs
    std::size_t m_paused = 0;      // peers that are not read
    std::map<std::string, std::unique_ptr<KLVMsgKeep>> m_keeps;  // by label
    std::unique_ptr<KLVMsgDialer> m_dialer;                      // null before there was one
    std::minstd_rand m_chance;                                   // for their pauses
    KLVMsgCounts m_past;                                         // of connections that are over
    Time m_lastOwnWrite{};  // when a caller last wrote by himself
    std::vector<Hand> m_hands;
    bool m_isStarted = false;
    bool m_isDraining = false;
    bool m_isEnding = false;
    KLVMsgDescriptor m_readable;
    bool m_isReadable = false;

    std::atomic<std::uint64_t> m_lastQuestion{0};  // its number
    KLVMsgQuestionCounts m_questions;              // but for those that wait
    KLVMsgQuestion* m_firstAnswered = nullptr;     // and not woken yet
    KLVMsgQuestion** m_lastAnswered = &m_firstAnswered;

    std::vector<Handler> m_handlers;  // by type, as far as there have been any
    EventHandler m_eventHandler;      // null: events are NextEvent's

    // Those of the two sets first, then by type.
    std::vector<std::list<Receiver*>> m_receivers{kSets};
    std::list<KLVMsgDelivery*> m_roomless;
    std::list<PresenceWaiter*> m_presenceWaiters;
    std::list<KLVMsgWaiter*> m_eventWaiters;
    std::list<KLVMsgWaiter*> m_endWaiters;  // ConnectAgain's pauses, and End
    std::list<KLVMsgWaiter*> m_drainWaiters;

    KLVMsgLoop m_loop;  // ends before what it tells
};
