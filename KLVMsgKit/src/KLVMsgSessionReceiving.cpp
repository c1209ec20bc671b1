// What a session receives. The loop puts what has come into the inbox; framed bodies become
// messages on the thread that asks for them, without the mutex.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include "KLVMsgAnyMessage.h"
#include "KLVMsgSessionCore.h"

namespace {

// How far above its limit the inbox goes while somebody waits for what is not in it.
constexpr std::size_t kStretch = 4;

// How long a peer that has ended its output is kept for an answer that nobody gives.
constexpr std::chrono::seconds kAnswerTime(30);

constexpr std::size_t kMostHands = 1000;

constexpr std::size_t kMostAtOnce = 4096;  // messages that are taken with one lock

KLVMsgOutcome NotRegistered() {
    return {KLVMsgOutcome::kFailed, EINVAL, "no prototype of this class was registered"};
}

// What is of no registered type has its header before its body.
void TakeName(KLVMsgAnyMessage& message, std::string_view& body) {
    std::uint32_t length = 0;
    std::memcpy(&length, body.data(), sizeof length);
    const std::string_view name = body.substr(sizeof length, length);
    message.type = name.substr(0, name.find('\0'));
    body.remove_prefix(sizeof length + length);
}

KLVMsgOutcome HasHandler() {
    return {KLVMsgOutcome::kFailed, EINVAL, "the class has a handler: its messages are Dispatch's"};
}

}  // namespace

KLVMsgOutcome KLVMsgSessionCore::InboxIsFull() {
    return Outcome(KLVMsgOutcome::kFull, ENOBUFS, kInboxIsFull);
}

// The application's side --------------------------------------------------------------------------

KLVMsgReceived<KLVMsgSocketMessage> KLVMsgSessionCore::ReceiveOne(const Wanted& wanted) {
    KLVMsgReceived<KLVMsgSocketMessage> received;
    KLVMsgOutcome& outcome = received;
    const std::uint32_t type = m_types.OfClass(wanted.type);
    if (type == KLVMsgMessageTypes::kNone) {
        outcome = NotRegistered();
        return received;
    }
    char bytes[KLVMsgParcel::kLongestOfRun];
    while (outcome && received.message == nullptr) {
        KLVMsgParcel::Owner parcel;
        std::string_view body;
        {
            Lock lock(m_mutex);
            const KLVMsgParcel* found = m_isEnding ? nullptr : Find(type, wanted.from);
            if (found == nullptr && !(outcome = AwaitParcel(lock, type, wanted, found))) {
                break;
            }
            parcel = TakeFirst(found, received.peer, bytes, body);
        }
        received.message = Unpack(std::move(parcel), type, body, received.peer);
    }
    return received;
}

// The message of a body, or the object in its parcel, if that was handed over; null when its class
// refuses it, which ends the connection. The parcel's block is then used again.
KLVMsgSessionCore::Message KLVMsgSessionCore::Unpack(KLVMsgParcel::Owner parcel, std::uint32_t type,
                                                     std::string_view body, KLVMsgPeer from) {
    Message message = parcel != nullptr && parcel->object != nullptr
                          ? Message(std::exchange(parcel->object, nullptr))
                          : Decode(type, body, from);
    if (parcel != nullptr && KLVMsgParcel::Stock::IsKept(*parcel)) {
        const Lock lock(m_mutex);
        parcel = m_spent.Put(std::move(parcel));
    }
    return message;
}

KLVMsgReceivedAll<KLVMsgSocketMessage> KLVMsgSessionCore::ReceiveMany(const Wanted& wanted) {
    KLVMsgReceivedAll<KLVMsgSocketMessage> received;
    KLVMsgOutcome& outcome = received;
    const std::uint32_t type = m_types.OfClass(wanted.type);
    if (type == KLVMsgMessageTypes::kNone) {
        outcome = NotRegistered();
        return received;
    }
    Parcels parcels;
    while (outcome && received.messages.empty()) {
        std::size_t left = 0;
        {
            Lock lock(m_mutex);
            const KLVMsgParcel* found = m_isEnding ? nullptr : Find(type, wanted.from);
            if (found == nullptr) {
                outcome = AwaitParcel(lock, type, wanted, found);
            }
            if (outcome) {
                // Room first: what is taken out is handed over.
                left = m_inbox.Count(type);
                parcels.reserve(std::min(left, kMostAtOnce));
                received.messages.reserve(left);
                wanted.makeRoom(wanted.all, left);
                left = TakePart(type, wanted.from, left, true, parcels);
            }
        }
        HandOver(type, parcels, received);
        while (left != 0) {
            {
                const Lock lock(m_mutex);
                left = TakePart(type, wanted.from, left, false, parcels);
            }
            HandOver(type, parcels, received);
        }
    }
    return received;
}

// Takes out some of those that are there, `most` at the most: with all of a long inbox everybody
// else would wait for the mutex meanwhile. Returns how many may be left; none where memory has run
// short behind the first. Requires: there is room for them.
std::size_t KLVMsgSessionCore::TakePart(std::uint32_t type, const KLVMsgPeers* from,
                                        std::size_t most, bool isFirst, Parcels& parcels) {
    const KLVMsgParcel* found = Find(type, from);
    try {
        for (std::size_t taken = 0;
             found != nullptr && found->count <= most && taken < kMostAtOnce;) {
            most -= found->count;
            taken += found->count;
            Peer& peer = PeerOf(*found);
            TakeInHand(peer, isFirst && parcels.empty());
            const KLVMsgPeer sender = peer.peer;
            parcels.emplace_back(m_inbox.Take(found), sender);
            TookOut(peer, parcels.back().first->Cost());
            found = Find(type, from);
        }
    } catch (const std::bad_alloc&) {
        if (isFirst && parcels.empty()) {
            throw;
        }
        return 0;
    }
    return found != nullptr && found->count <= most ? most : 0;
}

// Makes messages of the parcels, whose blocks are then used again.
void KLVMsgSessionCore::HandOver(std::uint32_t type, Parcels& parcels, Found& received) {
    for (auto& [parcel, peer] : parcels) {
        parcel->ForEach([&, &one = *parcel, from = peer] {
            Message message = one.object != nullptr ? Message(std::exchange(one.object, nullptr))
                                                    : Decode(type, one.Body(), from);
            if (message != nullptr) {
                received.messages.push_back({std::move(message), from});
            }
        });
    }
    {
        const Lock lock(m_mutex);
        for (auto& [parcel, peer] : parcels) {
            parcel = m_spent.Put(std::move(parcel));
        }
    }
    parcels.clear();  // what is too much for that is freed without the mutex
}

// Where there is none: waits until there is, or none can come.
KLVMsgOutcome KLVMsgSessionCore::AwaitParcel(Lock& lock, std::uint32_t type, const Wanted& wanted,
                                             const KLVMsgParcel*& found) {
    ReleaseHand();
    const Time deadline = wanted.limit.Deadline();
    Receiver receiver{{}, type, wanted.from};
    const KLVMsgEntry<Receiver> entry(Receivers(type), receiver);
    KLVMsgOutcome outcome;
    for (bool inTime = true; outcome && found == nullptr && !IsEventNext(type, nullptr);) {
        if (m_isEnding || m_isDraining) {
            outcome = Ended(KLVMsgOutcome::kPeerGone);
        } else if (IsHandled(type)) {
            outcome = HasHandler();
        } else if (type == kHandled && !HasAnyHandler()) {
            outcome = {KLVMsgOutcome::kFailed, EINVAL, "nothing has a handler"};
        } else if (!MayCome(wanted.from)) {
            outcome = Gone(wanted.from == nullptr ? KLVMsgPeers::All() : *wanted.from);
        } else if (!inTime) {
            outcome = Late();
        } else if (!LetRead(wanted.from)) {
            outcome = InboxIsFull();
        } else {
            inTime = receiver.waiter.Wait(lock, deadline);
            found = m_isEnding ? nullptr : Find(type, wanted.from);
        }
    }
    return outcome;
}

// The oldest that fits.
const KLVMsgParcel* KLVMsgSessionCore::Find(std::uint32_t type, const KLVMsgPeers* from) {
    if (type < m_types.Size()) {
        return IsHandled(type) ? nullptr : FindOfClass(type, from);
    }
    const KLVMsgParcel* oldest = nullptr;
    for (std::uint32_t each = 0; each < m_types.Size(); ++each) {
        const KLVMsgParcel* const one =
            IsHandled(each) == (type == kHandled) ? FindOfClass(each, from) : nullptr;
        oldest = one != nullptr && (oldest == nullptr || one->order < oldest->order) ? one : oldest;
    }
    return oldest;
}

const KLVMsgParcel* KLVMsgSessionCore::FindOfClass(std::uint32_t type, const KLVMsgPeers* from) {
    if (m_inbox.Count(type) == 0) {
        return nullptr;
    }
    if (from == nullptr || from->HowMeant() == KLVMsgPeers::kAll) {
        return m_inbox.Oldest(type);
    }
    if (from->HowMeant() == KLVMsgPeers::kOne) {
        const Peer* const peer = m_book.Find(from->One());
        return peer == nullptr ? nullptr : KLVMsgInbox::Oldest(type, peer->sent);
    }
    const KLVMsgParcel* oldest = nullptr;
    m_book.ForMeant(*from, [&](const Peer& peer) {
        const KLVMsgParcel* const one = KLVMsgInbox::Oldest(type, peer.sent);
        oldest = one != nullptr && (oldest == nullptr || one->order < oldest->order) ? one : oldest;
    });
    return oldest;
}

// Takes out the first message. A short body is copied to `bytes`, so that its block is used again
// at once, or stays for those that are still in it; otherwise the parcel is handed over.
KLVMsgParcel::Owner KLVMsgSessionCore::TakeFirst(const KLVMsgParcel* found, KLVMsgPeer& from,
                                                 char (&bytes)[KLVMsgParcel::kLongestOfRun],
                                                 std::string_view& body) {
    auto& parcel = *const_cast<KLVMsgParcel*>(found);  // the inbox's own
    Peer& peer = PeerOf(parcel);
    TakeInHand(peer, true);  // takes memory: without it the message stays
    from = peer.peer;
    const std::size_t cost = parcel.FirstSize() + KLVMsgParcel::kPerMessage;
    body = parcel.Body();
    const bool isCopied =
        parcel.count != 1 || (parcel.object == nullptr && body.size() <= KLVMsgParcel::kShort);
    if (isCopied) {
        std::memcpy(bytes, body.data(), body.size());
        body = {bytes, body.size()};
    }
    KLVMsgParcel::Owner taken = m_inbox.TakeFirst(found);
    if (isCopied && taken != nullptr) {
        taken = m_spent.Put(std::move(taken));
    }
    TookOut(peer, cost);
    return taken;
}

KLVMsgSessionPeer& KLVMsgSessionCore::PeerOf(const KLVMsgParcel& parcel) {
    return *static_cast<Peer*>(static_cast<KLVMsgInbox::Sender*>(parcel.sender)->owner);
}

// There is room again; the peer may be forgotten now.
void KLVMsgSessionCore::TookOut(Peer& peer, std::size_t cost) {
    if (peer.isReadingPaused) {
        LimitReading(peer);
    }
    // Those who were stopped for the sake of all go on when half of all is gone.
    const std::size_t half = m_options.inboxLimitOfAll / 2;
    if (m_paused != 0 && m_inbox.Cost() <= half && m_inbox.Cost() + cost > half) {
        m_book.ForEach([this](Peer& one) { LimitReading(one); });
    }
    if (peer.link == nullptr && peer.sent.count == 0) {
        Forget(peer);
    }
    UpdateReadable();
}

// The message of a framed body; null when its class refuses it, which ends the connection.
KLVMsgSessionCore::Message KLVMsgSessionCore::Decode(std::uint32_t number, std::string_view body,
                                                     KLVMsgPeer from) {
    const KLVMsgMessageTypes::Type& type = m_types[number];
    try {
        Message message(type.prototype->NewInstance());
        auto* const framed = static_cast<KLVMsgFramedMessage*>(message.get());
        if (type.isAny) {
            TakeName(static_cast<KLVMsgAnyMessage&>(*framed), body);
        }
        if (framed != nullptr && framed->Decode(body)) {
            framed->whole = true;
            return message;
        }
        Refuse(from, KLVMsgEvent::kRefusedBody, {"Decode has refused a body of ", type.name});
    } catch (const std::bad_alloc&) {
        Refuse(from, KLVMsgEvent::kNoMemory, {"there was no memory for what came"});
    } catch (const std::exception& error) {
        Refuse(from, KLVMsgEvent::kRefusedBody,
               {"decoding ", type.name, " failed: ", error.what()});
    } catch (...) {
        Refuse(from, KLVMsgEvent::kRefusedBody, {"decoding ", type.name, " failed"});
    }
    return nullptr;
}

// Words for which there is no memory are left out.
void KLVMsgSessionCore::Refuse(KLVMsgPeer from, KLVMsgEvent::Cause cause,
                               std::initializer_list<std::string_view> words) {
    std::string text;
    try {
        for (const std::string_view word : words) {
            text += word;
        }
    } catch (const std::bad_alloc&) {
        text.clear();
    }
    const Lock lock(m_mutex);
    Peer* const peer = m_book.Find(from);
    if (peer != nullptr && peer->link != nullptr) {
        const KLVMsgLoop::LinkPtr link = peer->link;
        link->connection.End(cause, text);
        TellGone(*peer, cause, text, 0);
        m_loop.Touch(*link);
    }
}

bool KLVMsgSessionCore::MayCome(const KLVMsgPeers* from) {
    if (from == nullptr || from->HowMeant() == KLVMsgPeers::kAll) {
        return m_book.IsAnyThere(KLVMsgPeers::All()) || m_loop.HasListeners() || !m_keeps.empty();
    }
    return m_book.IsAnyThere(*from) ||
           (from->HowMeant() == KLVMsgPeers::kLabel && m_keeps.count(from->Label()) != 0);
}

// As many as there are messages for.
void KLVMsgSessionCore::WakeReceivers(std::uint32_t type) {
    for (const std::uint32_t set : {type, IsHandled(type) ? kHandled : kUnhandled}) {
        const std::list<Receiver*>& receivers = Receivers(set);
        std::size_t left = receivers.empty() ? 0 : CountOf(set);
        for (auto one = receivers.begin(); one != receivers.end() && left != 0; ++one) {
            if (Find(set, (*one)->from) != nullptr) {
                (*one)->waiter.Wake();
                --left;
            }
        }
    }
}

// Those for whom no message can come any more.
void KLVMsgSessionCore::WakeThoseWithoutHope() {
    for (const auto& receivers : m_receivers) {
        for (Receiver* const one : receivers) {
            if (!MayCome(one->from)) {
                one->waiter.Wake();
            }
        }
    }
}

// Limits ------------------------------------------------------------------------------------------

// They are told that nothing more is read for them.
void KLVMsgSessionCore::WakeThoseWhoseInboxIsFull() {
    for (const auto& receivers : m_receivers) {
        for (Receiver* const one : receivers) {
            if (!LetRead(one->from)) {
                one->waiter.Wake();
            }
        }
    }
}

// Whether somebody waits for what this peer may still send.
bool KLVMsgSessionCore::IsAwaited(const Peer& peer) const {
    if (!peer.questions.empty()) {
        return true;
    }
    for (const auto& receivers : m_receivers) {
        for (const Receiver* const one : receivers) {
            if (one->from == nullptr || one->from->Include(peer.peer, peer.label)) {
                return true;
            }
        }
    }
    return false;
}

// Stops reading from a peer whose messages fill the inbox, and goes on when half of them are gone.
void KLVMsgSessionCore::LimitReading(Peer& peer) {
    if (peer.link == nullptr) {
        return;
    }
    const std::size_t own = peer.sent.cost;
    const std::size_t all = m_inbox.Cost();
    const bool isFull =
        peer.sent.count != 0 && (own >= m_options.inboxLimit || all >= m_options.inboxLimitOfAll);
    const bool isHalf = own > m_options.inboxLimit / 2 || all > m_options.inboxLimitOfAll / 2;
    bool pauses = isFull || (peer.isReadingPaused && isHalf && peer.sent.count != 0);
    if (pauses && own / kStretch < m_options.inboxLimit &&
        all / kStretch < m_options.inboxLimitOfAll && IsAwaited(peer)) {
        pauses = false;
    }
    pauses = pauses || m_isDraining;
    if (pauses != peer.isReadingPaused) {
        peer.isReadingPaused = pauses;
        pauses ? ++m_paused : --m_paused;
        if (pauses && !m_isDraining) {  // otherwise they are told that the session ends
            FailQuestions(peer, KLVMsgOutcome::kFull, ENOBUFS, kInboxIsFull);
        }
        peer.link->connection.AllowReading(Clock::now(), !pauses);
        m_loop.Touch(*peer.link);
    }
}

// Lets those be read who may send what is waited for. False when all of them have filled the inbox
// beyond measure.
bool KLVMsgSessionCore::LetRead(const KLVMsgPeers* from) {
    if (m_paused == 0) {
        return true;
    }
    bool isAnyRead = false;
    bool isAnyThere = false;
    m_book.ForMeant(from == nullptr ? KLVMsgPeers::All() : *from, [&](Peer& peer) {
        if (peer.IsThere()) {
            LimitReading(peer);
            isAnyThere = true;
            isAnyRead = isAnyRead || !peer.isReadingPaused;
        }
    });
    return isAnyRead || !isAnyThere;
}

// Answers to those who have ended their output ----------------------------------------------------

// The thread waits for the next message: it answers the last ones no more.
void KLVMsgSessionCore::ReleaseHand() {
    Hand* const hand = MyHand();
    if (hand != nullptr) {
        Release(*hand, 0);
    }
}

// Lets go of all but the first ones.
void KLVMsgSessionCore::Release(Hand& hand, std::size_t kept) {
    for (; hand.peers.size() > kept; hand.peers.pop_back()) {
        Peer* const peer = m_book.Find(hand.peers.back());
        if (peer != nullptr && --peer->inHand == 0 && peer->isHalf) {
            EndAnswerless(*peer);
        }
    }
    WakeIfDrained();
}

// The thread has a message of this peer now: with `isNext` instead of what it had.
void KLVMsgSessionCore::TakeInHand(Peer& peer, bool isNext) {
    Hand* hand = MyHand();
    if (isNext && hand != nullptr && hand->peers.size() == 1 && hand->peers[0] == peer.peer) {
        return;  // the next one of the same peer
    }
    if (hand == nullptr) {
        // Threads that have ended are not told apart: the one that came first is let go.
        if (m_hands.size() == kMostHands) {
            Release(m_hands.front(), 0);
            m_hands.erase(m_hands.begin());
        }
        hand = &m_hands.emplace_back(Hand{std::this_thread::get_id(), {}});
    }
    if (hand->peers.empty() || hand->peers.back() != peer.peer) {
        hand->peers.push_back(peer.peer);
        ++peer.inHand;
    }
    if (isNext) {
        std::swap(hand->peers.front(), hand->peers.back());
        Release(*hand, 1);
    }
}

KLVMsgSessionCore::Hand* KLVMsgSessionCore::MyHand() {
    const auto me = std::this_thread::get_id();
    for (Hand& hand : m_hands) {
        if (hand.thread == me) {
            return &hand;
        }
    }
    return nullptr;
}

// Its output has ended, and nobody has anything of it that might be answered.
void KLVMsgSessionCore::EndAnswerless(Peer& peer) {
    if (peer.link != nullptr && peer.sent.count == 0 && peer.inHand == 0) {
        peer.link->connection.EndOutput(false);
        m_loop.Touch(*peer.link);
    }
}

// Makes room by giving up the oldest one that waits for an answer.
void KLVMsgSessionCore::EndOneHalf() {
    Peer* oldest = nullptr;
    m_book.ForEach([&](Peer& peer) {
        if (peer.isHalf && peer.link != nullptr &&
            (oldest == nullptr || peer.peer < oldest->peer)) {
            oldest = &peer;
        }
    });
    if (oldest != nullptr) {
        oldest->link->connection.End(KLVMsgEvent::kClosed, "the peer has closed");
        m_loop.Touch(*oldest->link);
    }
}

// The loop's side ---------------------------------------------------------------------------------

void KLVMsgSessionCore::OnCame(KLVMsgLoop::Link& link, KLVMsgWireReader::Arrivals& arrivals,
                               KLVMsgParcel::Stock& stock) {
    stock.Refill(m_spent);
    if (link.client == nullptr || m_isEnding) {
        return;
    }
    Peer& peer = *static_cast<Peer*>(link.client);
    std::uint32_t type = KLVMsgMessageTypes::kNone;
    try {
        for (KLVMsgParcel::Owner& parcel : arrivals.messages) {
            if (type != KLVMsgMessageTypes::kNone && type != parcel->type) {
                WakeReceivers(type);
            }
            peer.messagesReceived += parcel->count;
            if (m_types[parcel->type].isCall && TakeAnswer(peer, parcel)) {
                continue;
            }
            type = parcel->type;
            m_inbox.Push(peer.sent, std::move(parcel));
        }
        for (const std::string& name : arrivals.unknown) {
            Tell([&] {
                KLVMsgEvent event = Event(KLVMsgEvent::kUnknownType, &peer);
                event.type = name;
                event.what = "a message of the unknown type " + name + " was passed over";
                return event;
            });
        }
    } catch (const std::bad_alloc&) {
        link.connection.End(KLVMsgEvent::kNoMemory, "there was no memory for what came");
    }
    if (type != KLVMsgMessageTypes::kNone) {
        WakeReceivers(type);
    }
    LimitReading(peer);
    if (peer.isReadingPaused) {
        WakeThoseWhoseInboxIsFull();
    }
    UpdateReadable();
}

void KLVMsgSessionCore::OnInputEnded(KLVMsgLoop::Link& link) {
    if (link.client == nullptr) {
        return;
    }
    Peer& peer = *static_cast<Peer*>(link.client);
    if (peer.keep != nullptr) {
        link.connection.End(link.connection.WhyOver(), "");  // it comes back: nothing is to follow
    }
    TellGone(peer, link.connection.WhyOver(), link.connection.Text(), link.connection.Error());
    if (link.connection.IsOver()) {
        return;
    }
    if (peer.sent.count == 0 && peer.inHand == 0) {
        link.connection.EndOutput(false);
        return;
    }
    peer.isHalf = true;
    link.connection.AwaitAnswer(Clock::now() + kAnswerTime);
}
