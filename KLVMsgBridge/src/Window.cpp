#include "Window.h"

#include <algorithm>
#include <utility>

void Window::Put(Parcel parcel) {
    m_bytes += parcel.Size();
    m_entries.push_back({std::move(parcel)});
}

Window::Sending Window::Next(Time now) {
    if (m_isInTrouble) {
        // The oldest one is never stored: it would be done with.
        const bool tries = m_open == 0 && now >= m_tryAgain && !m_entries.empty();
        m_isTrying = m_isTrying || tries;
        m_tries += tries ? 1 : 0;
        return tries ? Send(0, now) : Sending();
    }
    while (m_next < m_entries.size() && m_entries[m_next].state != kWaits) {
        ++m_next;
    }
    return m_next < m_entries.size() ? Send(m_next, now) : Sending();
}

Window::Sending Window::Send(std::size_t place, Time now) {
    Entry& entry = m_entries[place];
    const bool isAgain = std::exchange(entry.wasSent, true);
    entry.state = kOpen;
    entry.sent = now;
    ++m_open;
    m_next = place + 1;
    return {m_firstKey + place, &entry.parcel, Before(place), isAgain};
}

// Of those that go nowhere the stream does not know.
const Parcel* Window::Before(std::size_t place) const {
    while (place-- > 0) {
        if (!m_entries[place].parcel.subject.empty()) {
            return &m_entries[place].parcel;
        }
    }
    return nullptr;
}

Window::Entry* Window::Find(std::uint64_t key) {
    const std::uint64_t place = key - m_firstKey;
    return key >= m_firstKey && place < m_entries.size() ? &m_entries[place] : nullptr;
}

std::size_t Window::Stored(std::uint64_t key) {
    m_done.clear();
    Entry* const entry = Find(key);
    if (entry == nullptr || !entry->wasSent || entry->state == kStored) {
        return 0;
    }
    m_open -= entry->state == kOpen ? 1 : 0;
    entry->state = kStored;
    m_overtaken += entry != &m_entries.front() && m_entries.front().state == kWaits ? 1 : 0;
    while (!m_entries.empty() && m_entries.front().state == kStored) {
        m_bytes -= m_entries.front().parcel.Size();
        m_done.push_back(std::move(m_entries.front().parcel));
        m_entries.pop_front();
        ++m_firstKey;
        m_next -= m_next == 0 ? 0 : 1;
    }
    if (!m_done.empty() && m_isTrying) {
        m_isInTrouble = m_isTrying = false;
        m_tries = 0;
        m_pause = m_limits.pause;
    }
    return m_done.size();
}

bool Window::Knows(std::uint64_t key) {
    const Entry* const entry = Find(key);
    return entry != nullptr && entry->state != kStored;
}

void Window::Failed(std::uint64_t key, Time now) {
    Entry* const entry = Find(key);
    if (entry != nullptr && entry->state == kOpen) {
        Fail(*entry, now);
    }
}

void Window::Fail(Entry& entry, Time now) {
    entry.state = kWaits;
    --m_open;
    m_isInTrouble = true;
    m_isTrying = false;
    if (m_open == 0) {
        m_tryAgain = now + m_pause;
        m_pause = std::min(2 * m_pause, m_limits.longestPause);
    }
}

std::size_t Window::Tick(Time now) {
    std::size_t failed = 0;
    for (Entry& entry : m_entries) {
        if (entry.state == kOpen && now - entry.sent >= m_limits.answer) {
            Fail(entry, now);
            ++failed;
        }
    }
    return failed;
}

void Window::FailAll(Time now) {
    for (auto entry = m_entries.begin(); m_open != 0; ++entry) {
        if (entry->state == kOpen) {
            Fail(*entry, now);
        }
    }
}
