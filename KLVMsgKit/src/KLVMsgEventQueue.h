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
    // `order` is that of the last message that came before it. Throws std::bad_alloc.
    void Push(KLVMsgEvent event, std::uint64_t order = 0) {
        if (m_events.size() == kMost) {
            Miss();
            m_events.pop_front();
        }
        m_events.push_back({std::move(event), order});
    }

    // One for which there was no memory.
    void Miss() { ++m_missed; }

    bool IsEmpty() const { return m_events.empty(); }
    std::size_t Size() const { return m_events.size(); }

    // Of the oldest. Requires: it is not empty.
    std::uint64_t Order() const { return m_events.front().order; }

    // Takes no memory: to move a deque does.
    void Swap(KLVMsgEventQueue& other) noexcept {
        m_events.swap(other.m_events);
        std::swap(m_missed, other.m_missed);
    }

    // Requires: it is not empty.
    KLVMsgEvent Take() {
        KLVMsgEvent event = std::move(m_events.front().event);
        m_events.pop_front();
        event.missed = std::exchange(m_missed, 0);
        return event;
    }

private:
    static constexpr std::size_t kMost = 1000;

    struct Entry {
        KLVMsgEvent event;
        std::uint64_t order;
    };
    std::deque<Entry> m_events;
    std::uint64_t m_missed = 0;
};
