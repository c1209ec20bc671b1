// For the session's own sources: where the application's threads and the loop meet.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include "KLVMsgEventQueue.h"
#include "KLVMsgInbox.h"
#include "KLVMsgLoop.h"
#include "KLVMsgMessageTypes.h"
#include "KLVMsgModuleUse.h"
#include "KLVMsgPeerBook.h"
#include "KLVMsgSession.h"
#include "KLVMsgWaiting.h"
#include "KLVMsgWireWriter.h"

// A message that somebody waits for; it is on the waiting thread's stack.
struct KLVMsgDelivery {
    KLVMsgWaiter waiter;
    std::size_t left = 0;              // connections that have it queued
    std::size_t size = 0;              // bytes on the wire
    std::vector<KLVMsgPeer> roomless;  // whose queue has no room for it yet
    bool failed = false;               // one of them went before all was taken
    std::string cause;                 // why, if there was memory for the words

    void Fail(const std::string& why) {
        failed = true;
        try {
            cause = why;
        } catch (const std::bad_alloc&) {
            cause.clear();
        }
    }
};

// What stands behind KLVMsgSession. The mutex guards all of it but the types, which do not change
// once the loop runs, and the options. It is never held while a message's own code runs, a system
// call transfers, or somebody waits.
//
// Sources: KLVMsgSessionCore.cpp has connections and the end, KLVMsgSessionGreeting.cpp how those
// begin that are not plain, KLVMsgSessionSending.cpp and KLVMsgSessionReceiving.cpp the two
// directions.
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

    explicit KLVMsgSessionCore(const KLVMsgSessionOptions& options);
    ~KLVMsgSessionCore();
    KLVMsgSessionCore(const KLVMsgSessionCore&) = delete;
    KLVMsgSessionCore& operator=(const KLVMsgSessionCore&) = delete;

    // The operations of KLVMsgSession.
    KLVMsgOutcome Register(Message prototype, const std::type_info& type,
                           const KLVMsgFramedMessage* framed);
    KLVMsgOutcome Serve(const KLVMsgSocketAddress& address, int* port,
                        const Transports& transports);
    KLVMsgOutcome StopServing(int port);
    KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, const std::string& label, Time limit,
                          const Transports& transports);
    KLVMsgOutcome ConnectAgain(const KLVMsgSocketAddress& address, const std::string& label,
                               Time limit, const Transports& transports);
    KLVMsgOutcome Start();
    KLVMsgOutcome Post(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                       const KLVMsgFramedMessage* framed);
    KLVMsgOutcome Send(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                       const KLVMsgFramedMessage* framed, KLVMsgTimeLimit limit);
    KLVMsgReceived<KLVMsgSocketMessage> ReceiveOne(const Wanted& wanted);
    KLVMsgReceivedAll<KLVMsgSocketMessage> ReceiveMany(const Wanted& wanted);
    int Descriptor();
    KLVMsgOutcome SetLabel(KLVMsgPeer peer, const std::string& label);
    std::vector<KLVMsgPeer> Peers(const KLVMsgPeers& meant);
    KLVMsgOutcome Disconnect(const KLVMsgPeers& meant);
    KLVMsgOutcome WaitUntilGone(const KLVMsgPeers& meant, KLVMsgTimeLimit limit);
    KLVMsgEvent NextEvent(KLVMsgTimeLimit limit);
    KLVMsgCounts Counts(const KLVMsgPeers& meant);
    KLVMsgCounts Counts();
    KLVMsgOutcome End(KLVMsgTimeLimit limit);

    // Whether this process is a child of the one that made the session.
    bool IsInChild() const;

private:
    struct Receiver {
        KLVMsgWaiter waiter;
        std::uint32_t type;
        const KLVMsgPeers* from;
    };
    struct GoneWaiter {
        KLVMsgWaiter waiter;
        const KLVMsgPeers* meant;
    };
    // What a thread has received last, and may still answer.
    struct Hand {
        std::thread::id thread;
        std::vector<KLVMsgPeer> peers;
    };

    // Who was accepted and still greets, or has been turned away and not left.
    struct Guest {
        std::string address;
        KLVMsgLoop::LinkPtr link;
        bool isTold = false;
    };

    using Parcels = std::vector<std::pair<KLVMsgParcel::Owner, KLVMsgPeer>>;

    static KLVMsgOutcome Late();
    static KLVMsgOutcome Ended(KLVMsgOutcome::Status status);
    KLVMsgOutcome Gone(const KLVMsgPeers& meant);
    KLVMsgOutcome IsReady() const;

    // Connections.
    std::unique_ptr<KLVMsgTransport> Plain(KLVMsgDescriptor socket) const;
    KLVMsgOutcome Adopt(std::unique_ptr<KLVMsgTransport> transport, const std::string& label,
                        const std::string& address);
    void TellCame(const Peer& peer, const KLVMsgTransport& transport);
    void TellRefused(const std::string& address, const KLVMsgOutcome& outcome);
    void TellGone(Peer& peer, KLVMsgEvent::Cause cause, const std::string& text, int error);
    void Forget(Peer& peer);
    void EndAnswerless(Peer& peer);
    void EndOneHalf();
    void WakeThoseWhoseAreGone();
    void WakeEverybody();
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
    KLVMsgOutcome Invite(std::unique_ptr<KLVMsgTransport> transport, const std::string& address,
                         KLVMsgTransportFactory& transports);
    KLVMsgOutcome AdoptGuest(KLVMsgLoop::Link& link, const std::string& address);
    void GuestIsOver(KLVMsgLoop::Link& link);
    void TellNotRenewed(const std::string& address, const std::string& warning);

    // Sending.
    bool Fits(const Peer& peer, const KLVMsgWireWriter& bytes, KLVMsgOutcome& outcome) const;
    bool HasRoom(const Peer& peer, std::size_t size) const;
    void Append(Peer& peer, const KLVMsgWireWriter& bytes, KLVMsgDelivery* delivery);
    void Deliver(Lock& lock, Peer& peer, const KLVMsgWireWriter& bytes, KLVMsgDelivery* delivery,
                 bool isOnlyOne);
    void UpdateCost(Peer& peer);
    KLVMsgOutcome PostToMany(Lock& lock, const KLVMsgPeers& to, const KLVMsgWireWriter& bytes);
    KLVMsgOutcome FindReceivers(const KLVMsgPeers& to, const KLVMsgWireWriter& bytes,
                                KLVMsgDelivery& delivery);
    void AwaitDelivery(Lock& lock, KLVMsgDelivery& delivery, const KLVMsgWireWriter& bytes,
                       Time deadline);
    void RetryRoomless(Lock& lock, KLVMsgDelivery& delivery, const KLVMsgWireWriter& bytes);
    void Withdraw(KLVMsgDelivery& delivery);
    KLVMsgOutcome LeaveOut(const KLVMsgDelivery& delivery, bool isLabel);
    void FailAwaited(Peer& peer, const std::string& cause);
    void WakeRoomless();

    // Receiving.
    KLVMsgOutcome AwaitParcel(Lock& lock, std::uint32_t type, const Wanted& wanted,
                              const KLVMsgParcel*& found);
    const KLVMsgParcel* Find(std::uint32_t type, const KLVMsgPeers* from);
    std::size_t TakePart(std::uint32_t type, const KLVMsgPeers* from, std::size_t most,
                         bool isFirst, Parcels& parcels);
    void HandOver(std::uint32_t type, Parcels& parcels, Found& received);
    KLVMsgParcel::Owner TakeOut(const KLVMsgParcel* parcel, KLVMsgPeer& from, bool isNext);
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

    // KLVMsgLoop::Owner
    void OnCame(KLVMsgLoop::Link& link, KLVMsgWireReader::Arrivals& arrivals,
                KLVMsgParcel::Stock& stock) override;
    void OnInputEnded(KLVMsgLoop::Link& link) override;
    void OnTook(KLVMsgLoop::Link& link) override;
    void OnStalls(KLVMsgLoop::Link& link) override;
    void OnOver(KLVMsgLoop::Link& link) override;
    void OnAccepted(KLVMsgDescriptor socket, const std::string& address,
                    const KLVMsgLoop::Listener& listener) override;
    void OnGreeted(KLVMsgLoop::Link& link, const KLVMsgTransport::Greeting& greeting) override;
    void OnListenerFailed(const KLVMsgLoop::Listener& listener, int error) override;

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
    std::size_t m_live = 0;        // connections that are not over
    std::size_t m_queuedCost = 0;  // of all outputs
    std::size_t m_paused = 0;      // peers that are not read
    KLVMsgCounts m_past;           // of connections that are over
    Time m_lastOwnWrite{};         // when a caller last wrote by himself
    std::vector<Hand> m_hands;
    bool m_isStarted = false;
    bool m_isEnding = false;
    bool m_isEnded = false;
    KLVMsgDescriptor m_readable;
    bool m_isReadable = false;

    std::vector<std::list<Receiver*>> m_receivers;  // by type
    std::list<KLVMsgDelivery*> m_roomless;
    std::list<GoneWaiter*> m_goneWaiters;
    std::list<KLVMsgWaiter*> m_eventWaiters;
    std::list<KLVMsgWaiter*> m_endWaiters;  // ConnectAgain's pauses, and End

    KLVMsgLoop m_loop;  // ends before what it tells
};
