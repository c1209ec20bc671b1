// How a session ends: at once, or when what it has is done.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "KLVMsgSessionCore.h"

namespace {

void Add(std::string& text, std::size_t count, const char* what) {
    text += count == 0 ? "" : (text.empty() ? ": " : ", ") + std::to_string(count) + what;
}

}  // namespace

KLVMsgOutcome KLVMsgSessionCore::Drain(KLVMsgTimeLimit limit) {
    const Time deadline = limit.Deadline();
    std::size_t received = 0;
    std::size_t queued = 0;
    std::size_t inHand = 0;
    {
        Lock lock(m_mutex);
        if (KLVMsgOutcome ready = IsReady(); !ready) {
            return ready;
        }
        KLVMsgWaiter waiter;
        const KLVMsgEntry<KLVMsgWaiter> entry(m_drainWaiters, waiter);
        BeginDraining();
        while (m_isStarted && !m_isEnding && !IsDrained() && waiter.Wait(lock, deadline)) {
        }
        if (m_isEnding) {
            return Ended(KLVMsgOutcome::kFailed);
        }
        received = m_inbox.Count();
        inHand = IsAnyInHand() ? 1 : 0;
        m_book.ForEach([&](const Peer& peer) {
            queued += peer.link != nullptr ? peer.link->connection.output.Messages() : 0;
        });
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    KLVMsgOutcome outcome = End(std::max(left, std::chrono::milliseconds(0)));
    if (received + queued + inHand != 0 && outcome.error != ESHUTDOWN) {
        outcome = Late();
        std::string text;
        Add(text, received, " messages were not received");
        Add(text, queued, " messages were not sent");
        Add(text, inHand, " or more were received and may still have been answered");
        outcome.text += text;
    }
    return outcome;
}

void KLVMsgSessionCore::BeginDraining() {
    m_isDraining = true;
    Signal(m_endSignal.Number());
    m_loop.RemoveListeners(-1);
    m_book.ForEach([this](Peer& peer) { LimitReading(peer); });
    ReleaseHand();
    WakeEverybody();
    UpdateReadable();  // who waits there asks for the next message, as those in Receive do
}

// What has come is received and answered, and what was queued, or waits for room, is sent.
bool KLVMsgSessionCore::IsDrained() {
    const auto waits = [](const KLVMsgDelivery* one) { return !one->roomless.empty(); };
    const auto leaves = [](const auto& keep) { return keep.second->leaving != nullptr; };
    return m_inbox.Count() == 0 && m_queuedCost == 0 && !IsAnyInHand() &&
           std::none_of(m_roomless.begin(), m_roomless.end(), waits) &&
           std::none_of(m_keeps.begin(), m_keeps.end(), leaves);
}

// Whether a thread has a message that it may still answer.
bool KLVMsgSessionCore::IsAnyInHand() {
    return std::any_of(m_hands.begin(), m_hands.end(), [this](const Hand& hand) {
        return std::any_of(hand.peers.begin(), hand.peers.end(), [this](KLVMsgPeer one) {
            const Peer* const peer = m_book.Find(one);
            return peer != nullptr && peer->Takes();
        });
    });
}

void KLVMsgSessionCore::WakeIfDrained() {
    if (!m_drainWaiters.empty() && IsDrained()) {
        for (KLVMsgWaiter* const one : m_drainWaiters) {
            one->Wake();
        }
    }
}

KLVMsgOutcome KLVMsgSessionCore::End(KLVMsgTimeLimit limit) {
    const Time deadline = limit.Deadline();
    bool haveAllClosed = true;
    std::size_t lost = 0;
    std::string words;
    words.reserve(100);  // what has ended cannot fail for want of them
    {
        Lock lock(m_mutex);
        if (m_isEnding) {
            return Ended(KLVMsgOutcome::kFailed);
        }
        KLVMsgWaiter waiter;
        const KLVMsgEntry<KLVMsgWaiter> entry(m_endWaiters, waiter);
        lost = BeginToEnd();
        while (m_isStarted && m_live != 0 && waiter.Wait(lock, deadline)) {
        }
        haveAllClosed = m_live == 0 || !m_isStarted;
    }
    m_loop.Stop();
    m_dialer.reset();  // nobody uses it any more; a name may take its time
    Lock lock(m_mutex);
    m_loop.Clear("the session has ended");
    if (m_ready && lost != 0) {
        words += std::to_string(lost);
        words += " messages were queued for a connection that is away";
        return {KLVMsgOutcome::kPeerGone, ENOTCONN, std::move(words)};
    }
    return !m_ready ? m_ready : haveAllClosed ? KLVMsgOutcome() : Late();
}

// From now on nothing new is taken, and every connection ends when it has sent what is queued. How
// many messages were queued for connections that are away.
std::size_t KLVMsgSessionCore::BeginToEnd() {
    const std::string cause = "the session has ended";  // takes memory: without it nothing is done
    m_isEnding = true;
    std::size_t lost = 0;
    EndKeeps(KLVMsgPeers::All(), cause, lost);
    Signal(m_endSignal.Number());
    m_loop.RemoveListeners(-1);
    WakeEverybody();
    for (KLVMsgWaiter* const one : m_drainWaiters) {
        one->Wake();
    }
    UpdateReadable();
    m_book.ForEach([this](Peer& peer) {
        if (peer.link != nullptr) {
            peer.link->connection.EndOutput(true);
            m_loop.Touch(*peer.link);
        }
    });
    return lost;
}

void KLVMsgSessionCore::WakeEverybody() {
    for (const auto& receivers : m_receivers) {
        for (Receiver* const one : receivers) {
            one->waiter.Wake();
        }
    }
    for (PresenceWaiter* const one : m_presenceWaiters) {
        one->waiter.Wake();
    }
    for (KLVMsgWaiter* const one : m_eventWaiters) {
        one->Wake();
    }
    for (KLVMsgWaiter* const one : m_endWaiters) {
        one->Wake();
    }
    for (KLVMsgDelivery* const one : m_roomless) {
        one->waiter.Wake();
    }
    m_book.ForEach([](Peer& peer) {
        FailQuestions(peer, KLVMsgOutcome::kPeerGone, ESHUTDOWN, "the session has ended");
    });
}
