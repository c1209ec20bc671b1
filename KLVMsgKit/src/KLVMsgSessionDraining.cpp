// A session that ends when what it has is done.
#include <algorithm>
#include <cerrno>
#include <string>

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
    return m_inbox.Count() == 0 && m_queuedCost == 0 && !IsAnyInHand() &&
           std::none_of(m_roomless.begin(), m_roomless.end(), waits);
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
