// What a session sends. Messages become bytes on the caller's thread and without the mutex; the
// bytes are then appended to the output of each connection.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <string>
#include <utility>

#include "KLVMsgSessionCore.h"

namespace {

// A caller writes by himself if the last such write is longer ago than this: it halves the round
// trip, and with messages that follow each other closer than that, gathering them is what counts.
constexpr std::chrono::microseconds kQuiet(10);

// A header of this size fits into every segment.
constexpr std::size_t kSmallName = 32;

KLVMsgOutcome NoMemory() {
    return {KLVMsgOutcome::kFailed, ENOMEM, "no memory for the message's bytes"};
}

}  // namespace

KLVMsgOutcome KLVMsgSessionCore::Post(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                                      const KLVMsgFramedMessage* framed) {
    KLVMsgWireWriter bytes(*m_spentBodies);
    KLVMsgOutcome outcome = bytes.Write(message, framed, m_options.largestBody);
    if (outcome) {
        Lock lock(m_mutex);
        try {
            PostBytes(lock, to, bytes, outcome);
        } catch (const std::bad_alloc&) {
            outcome = NoMemory();
        }
    }
    return outcome;
}

void KLVMsgSessionCore::PostBytes(Lock& lock, const KLVMsgPeers& to, const KLVMsgWireWriter& bytes,
                                  KLVMsgOutcome& outcome) {
    if (m_isEnding) {
        outcome = Ended(KLVMsgOutcome::kPeerGone);
        return;
    }
    if (to.HowMeant() != KLVMsgPeers::kOne) {
        outcome = PostToMany(lock, to, bytes);
        return;
    }
    Peer* const peer = m_book.Find(to.One());
    if (peer == nullptr || !peer->Takes()) {
        outcome = Gone(to);
    } else if (Fits(*peer, bytes, outcome)) {
        if (HasRoom(*peer, bytes.Size())) {
            Deliver(lock, *peer, bytes, nullptr, true);
        } else {
            outcome = NoRoom();
        }
    }
}

KLVMsgOutcome KLVMsgSessionCore::PostToMany(Lock& lock, const KLVMsgPeers& to,
                                            const KLVMsgWireWriter& bytes) {
    std::vector<Peer*> meant;
    m_book.Find(to, meant);
    const auto takes = [](const Peer* peer) { return peer->TakesByLabel(); };
    meant.erase(
        std::remove_if(meant.begin(), meant.end(), [&](Peer* peer) { return !takes(peer); }),
        meant.end());
    if (meant.empty()) {
        return Gone(to);
    }
    KLVMsgOutcome outcome;
    for (const Peer* const peer : meant) {
        if (!Fits(*peer, bytes, outcome)) {
            return outcome;
        }
    }
    for (Peer* const peer : meant) {
        bool hasRoom = HasRoom(*peer, bytes.Size());
        try {
            if (hasRoom) {
                Deliver(lock, *peer, bytes, nullptr, meant.size() == 1);
            }
        } catch (const std::bad_alloc&) {
            hasRoom = false;  // others may have it already
        }
        if (!hasRoom) {
            TellLeftOut(*peer);
            outcome = NoRoom();
        }
    }
    return outcome;
}

KLVMsgOutcome KLVMsgSessionCore::Send(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                                      const KLVMsgFramedMessage* framed, KLVMsgTimeLimit limit) {
    const Time deadline = limit.Deadline();
    KLVMsgWireWriter bytes(*m_spentBodies);
    KLVMsgOutcome outcome = bytes.Write(message, framed, m_options.largestBody);
    if (!outcome) {
        return outcome;
    }
    KLVMsgDelivery delivery;
    delivery.size = bytes.Size();
    Lock lock(m_mutex);
    if (m_isEnding) {
        return Ended(KLVMsgOutcome::kPeerGone);
    }
    outcome = FindReceivers(to, bytes, delivery);
    if (!outcome) {
        return outcome;
    }
    const KLVMsgEntry<KLVMsgDelivery> entry(m_roomless, delivery);
    AwaitDelivery(lock, delivery, bytes, deadline);
    if (delivery.left != 0) {
        Withdraw(delivery);
        outcome = Late();
    }
    if (!delivery.roomless.empty()) {
        outcome = LeaveOut(delivery, to.HowMeant() != KLVMsgPeers::kOne);
        delivery.roomless.clear();
        WakeIfDrained();
        return outcome;
    }
    if (delivery.failed) {
        return {KLVMsgOutcome::kPeerGone, m_isEnding ? ESHUTDOWN : ENOTCONN,
                std::move(delivery.cause)};
    }
    return outcome;
}

// Whom it is for, all of them without room as yet.
KLVMsgOutcome KLVMsgSessionCore::FindReceivers(const KLVMsgPeers& to, const KLVMsgWireWriter& bytes,
                                               KLVMsgDelivery& delivery) {
    std::vector<Peer*> meant;
    m_book.Find(to, meant);
    const bool isOne = to.HowMeant() == KLVMsgPeers::kOne;
    KLVMsgOutcome outcome;
    for (const Peer* const peer : meant) {
        if (isOne ? peer->Takes() : peer->TakesByLabel()) {
            if (!Fits(*peer, bytes, outcome)) {
                return outcome;
            }
            delivery.roomless.push_back(peer->peer);
        }
    }
    return delivery.roomless.empty() ? Gone(to) : outcome;
}

// Queues it where and when there is room, and waits until all is taken or the time is over.
void KLVMsgSessionCore::AwaitDelivery(Lock& lock, KLVMsgDelivery& delivery,
                                      const KLVMsgWireWriter& bytes, Time deadline) {
    try {
        RetryRoomless(lock, delivery, bytes);
        while ((delivery.left != 0 || !delivery.roomless.empty()) &&
               delivery.waiter.Wait(lock, deadline)) {
            RetryRoomless(lock, delivery, bytes);
        }
    } catch (...) {
        Withdraw(delivery);
        throw;
    }
}

// Queues the message for those who have room by now. Where memory is short once others have it,
// that is the same as too little room. Throws std::bad_alloc while nobody has it.
void KLVMsgSessionCore::RetryRoomless(Lock& lock, KLVMsgDelivery& delivery,
                                      const KLVMsgWireWriter& bytes) {
    const bool isOnlyOne = delivery.roomless.size() == 1 && delivery.left == 0;
    for (std::size_t i = 0; i < delivery.roomless.size();) {
        const KLVMsgPeer one = delivery.roomless[i];
        Peer* const peer = m_book.Find(one);
        const bool isThere = peer != nullptr && peer->Takes();
        if (isThere && !HasRoom(*peer, delivery.size)) {
            ++i;
            continue;
        }
        if (!isThere) {
            delivery.Fail(
                [&] { return m_isEnding ? "the session has ended" : m_book.WhyGone(one); });
        }
        const auto place =
            delivery.roomless.erase(delivery.roomless.begin() + static_cast<std::ptrdiff_t>(i));
        try {
            if (isThere) {
                Deliver(lock, *peer, bytes, &delivery, isOnlyOne);
            }
        } catch (const std::bad_alloc&) {
            if (!delivery.isBegun) {
                throw;
            }
            delivery.roomless.insert(place, one);  // its memory is still there
            ++i;
        }
    }
}

// Takes back what was not begun; what was may still arrive.
void KLVMsgSessionCore::Withdraw(KLVMsgDelivery& delivery) {
    m_book.ForEach([&](Peer& peer) {
        if (WithdrawFrom(peer.awaited, peer.link.get(), delivery)) {
            UpdateCost(peer);
            m_loop.Touch(*peer.link);
        }
    });
    for (const auto& [label, keep] : m_keeps) {
        WithdrawFrom(keep->leavingAwaited, keep->leaving.get(), delivery);
    }
    delivery.left = 0;
    WakeRoomless();
}

// True when its bytes were cut out.
bool KLVMsgSessionCore::WithdrawFrom(Queue& awaited, KLVMsgLoop::Link* link,
                                     const KLVMsgDelivery& delivery) {
    const auto is = [&](const Peer::Awaited& one) { return one.delivery == &delivery; };
    const auto found = std::find_if(awaited.begin(), awaited.end(), is);
    if (found == awaited.end()) {
        return false;
    }
    const Peer::Awaited one = *found;
    auto later = awaited.erase(found);
    if (link == nullptr || !link->connection.CutOut(one.begin, one.end)) {
        return false;
    }
    for (; later != awaited.end(); ++later) {
        later->begin -= one.end - one.begin;
        later->end -= one.end - one.begin;
    }
    return true;
}

void KLVMsgSessionCore::TellLeftOut(const Peer& peer) {
    Tell([&] {
        KLVMsgEvent event = Event(KLVMsgEvent::kLeftOut, &peer);
        event.what = peer.address + ": a message had no room in the queue";
        return event;
    });
}

KLVMsgOutcome KLVMsgSessionCore::LeaveOut(const KLVMsgDelivery& delivery, bool isLabel) {
    for (const KLVMsgPeer peer : delivery.roomless) {
        const Peer* const one = m_book.Find(peer);
        if (isLabel && one != nullptr) {
            TellLeftOut(*one);
        }
    }
    return NoRoom();
}

// Whether this connection takes this message, room aside; the outcome tells why not.
bool KLVMsgSessionCore::Fits(const Peer& peer, const KLVMsgWireWriter& bytes,
                             KLVMsgOutcome& outcome) const {
    if (!m_options.wholeHeaders || bytes.NameSize() <= kSmallName) {
        return true;
    }
    const std::size_t segment = peer.isPlace ? 0 : peer.link->transport->Segment();
    const bool fits = segment == 0 || bytes.NameSize() + 4 <= segment;
    if (!fits) {
        outcome = {KLVMsgOutcome::kFailed, EMSGSIZE,
                   "the type's name does not fit into a segment of " + std::to_string(segment) +
                       " bytes, so that receivers without a session would miss it"};
    }
    return fits;
}

bool KLVMsgSessionCore::HasRoom(const Peer& peer, std::size_t size) const {
    const KLVMsgOutput& output = peer.link->connection.output;
    const std::size_t cost = size + KLVMsgOutput::kPerMessage;
    return output.IsEmpty() || (output.Cost() + cost <= m_options.queueLimit &&
                                m_queuedCost + cost <= m_options.queueLimitOfAll);
}

// Queues it, and writes it at once where that is worth while.
void KLVMsgSessionCore::Deliver(Lock& lock, Peer& peer, const KLVMsgWireWriter& bytes,
                                KLVMsgDelivery* delivery, bool isOnlyOne) {
    const bool isAlone = isOnlyOne && m_loop.IsAsleep() && peer.link->connection.output.IsEmpty() &&
                         !peer.link->isWriting && peer.link->transport->IsPlain();
    Append(peer, bytes, delivery);
    Time now{};
    if (isAlone && (now = Clock::now()) - m_lastOwnWrite > kQuiet) {
        const KLVMsgLoop::LinkPtr link = peer.link;  // the peer may go meanwhile
        m_loop.WriteNow(lock, link, now);
        m_lastOwnWrite = Clock::now();
    } else if (!peer.link->connection.IsFull()) {
        m_loop.Touch(*peer.link);
    }
}

void KLVMsgSessionCore::Append(Peer& peer, const KLVMsgWireWriter& bytes,
                               KLVMsgDelivery* delivery) {
    KLVMsgOutput& output = peer.link->connection.output;
    const KLVMsgOutput::Position begin = output.Appended();
    if (delivery != nullptr) {
        peer.awaited.push_back({begin, begin + bytes.Size(), delivery});
    }
    try {
        output.Append(bytes.Head(), bytes.Body(), bytes.Shared());
    } catch (...) {
        if (delivery != nullptr) {
            peer.awaited.pop_back();
        }
        throw;
    }
    if (delivery != nullptr) {
        ++delivery->left;
        delivery->isBegun = true;
    }
    UpdateCost(peer);
}

void KLVMsgSessionCore::UpdateCost(Peer& peer) {
    const std::size_t cost = peer.link == nullptr ? 0 : peer.link->connection.output.Cost();
    m_queuedCost = m_queuedCost - peer.cost + cost;
    peer.cost = cost;
    WakeIfDrained();
}

void KLVMsgSessionCore::OnTook(KLVMsgLoop::Link& link) {
    if (link.client == nullptr) {
        TakeBackLate(link);
        return;
    }
    Peer& peer = *static_cast<Peer*>(link.client);
    if (peer.keep != nullptr && !link.connection.Takes()) {
        OpenPlace(*peer.keep);
    }
    const KLVMsgOutput& output = link.connection.output;
    TellTaken(peer.awaited, output.Taken());
    if (!link.connection.Takes() && output.IsEmpty() && !peer.awaited.empty()) {
        FailAwaited(peer.awaited, link.connection.Text());
    }
    UpdateCost(peer);
    WakeRoomless();
}

void KLVMsgSessionCore::TellTaken(Queue& awaited, KLVMsgOutput::Position taken) {
    while (!awaited.empty() && awaited.front().end <= taken) {
        KLVMsgDelivery& delivery = *awaited.front().delivery;
        awaited.pop_front();
        if (--delivery.left == 0) {
            delivery.waiter.Wake();
        }
    }
}

// They will not be taken any more.
void KLVMsgSessionCore::FailAwaited(Queue& awaited, const std::string& cause) {
    for (const Peer::Awaited& one : awaited) {
        one.delivery->Fail([&] { return cause; });
        if (--one.delivery->left == 0) {
            one.delivery->waiter.Wake();
        }
    }
    awaited.clear();
}

// Wakes those whose messages have room by now, or never will.
void KLVMsgSessionCore::WakeRoomless() {
    for (KLVMsgDelivery* const delivery : m_roomless) {
        const bool isReady =
            std::any_of(delivery->roomless.begin(), delivery->roomless.end(), [&](KLVMsgPeer one) {
                const Peer* const peer = m_book.Find(one);
                return peer == nullptr || !peer->Takes() || HasRoom(*peer, delivery->size);
            });
        if (isReady && !delivery->waiter.IsWoken()) {
            delivery->waiter.Wake();
        }
    }
}
