// For the session's own sources: events that nobody has asked for yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

#include "KLVMsgEvent.h"

// The last thousand; the next one tells how many were dropped before it. No lock.
class KLVMsgEventQueue {
public:
    // Throws std::bad_alloc.
    void Push(KLVMsgEvent event) {
        if (m_events.size() == kMost) {
            Miss();
            m_events.pop_front();
        }
        m_events.push_back(std::move(event));
    }

    // One for which there was no memory.
    void Miss() { ++m_missed; }

    bool IsEmpty() const { return m_events.empty(); }

    // Takes no memory: to move a deque does.
    void Swap(KLVMsgEventQueue& other) noexcept {
        m_events.swap(other.m_events);
        std::swap(m_missed, other.m_missed);
    }

    // Requires: it is not empty.
    KLVMsgEvent Take() {
        KLVMsgEvent event = std::move(m_events.front());
        m_events.pop_front();
        event.missed = std::exchange(m_missed, 0);
        return event;
    }

private:
    static constexpr std::size_t kMost = 1000;

    std::deque<KLVMsgEvent> m_events;
    std::uint64_t m_missed = 0;
};
