// A session that ends when what it has is done.
#include <algorithm>
#include <cerrno>
#include <string>

#include "KLVMsgSessionCore.h"

KLVMsgOutcome KLVMsgSessionCore::Drain(KLVMsgTimeLimit limit) {
    const Time deadline = limit.Deadline();
    std::string left;
    {
        Lock lock(m_mutex);
        if (KLVMsgOutcome ready = IsReady(); !ready) {
            return ready;
        }
        m_isDraining = true;
        Signal(m_endSignal.Number());
        m_loop.RemoveListeners(-1);
        m_book.ForEach([this](Peer& peer) { LimitReading(peer); });
        ReleaseHand();
        WakeEverybody();
        KLVMsgWaiter waiter;
        const KLVMsgEntry<KLVMsgWaiter> entry(m_drainWaiters, waiter);
        while (m_isStarted && !m_isEnding && !IsDrained() && waiter.Wait(lock, deadline)) {
        }
        if (m_isEnding) {
            return Ended(KLVMsgOutcome::kFailed);
        }
        left = WhatIsLeft();
    }
    KLVMsgOutcome outcome =
        End(std::max(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()),
                     std::chrono::milliseconds(0)));
    if (!left.empty() && outcome.error != ESHUTDOWN) {
        outcome = Late();
        outcome.text += ": " + left;
    }
    return outcome;
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

std::string KLVMsgSessionCore::WhatIsLeft() {
    std::string text;
    const auto add = [&](std::size_t count, const char* what) {
        text += count == 0 ? "" : (text.empty() ? "" : ", ") + std::to_string(count) + what;
    };
    std::size_t queued = 0;
    m_book.ForEach([&](const Peer& peer) {
        queued += peer.link != nullptr ? peer.link->connection.output.Messages() : 0;
    });
    add(m_inbox.Count(), " messages were not received");
    add(queued, " messages were not sent");
    add(IsAnyInHand() ? 1 : 0, " or more were received and may still have been answered");
    return text;
}

void KLVMsgSessionCore::WakeIfDrained() {
    if (!m_drainWaiters.empty() && IsDrained()) {
        for (KLVMsgWaiter* const one : m_drainWaiters) {
            one->Wake();
        }
    }
}
