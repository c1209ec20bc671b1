// For the session's own sources: waiting for what comes soon.
#pragma once

#include <sched.h>

#include <algorithm>
#include <chrono>

#include "KLVMsgTimeLimit.h"

// How one thread waits: where its last wait was a short one, it looks again and again for a while
// before it sleeps, and lets others have the processor between two looks. To sleep and to be woken
// takes longer than the time between messages that come one upon the other, and costs the one who
// wakes as well. Where they come seldom it sleeps at once, so that waiting for long costs nothing.
class KLVMsgLinger {
public:
    using Clock = KLVMsgTimeLimit::Clock;
    using Time = Clock::time_point;

    static constexpr std::chrono::microseconds kLongest{200};

    // A wait begins; whether to look before sleeping.
    bool Begin() {
        m_began = Clock::now();
        return m_looks;
    }

    // Looks until `isOver` says so, but not beyond the limit. Who still has to wait then sleeps.
    template <class IsOver>
    void Look(Time limit, const IsOver& isOver) const {
        const Time end = std::min(limit, m_began + kLongest);
        while (!isOver() && Clock::now() < end) {
            sched_yield();
        }
    }

    // The wait has ended, with what was waited for or without.
    void End(bool hasCome) { m_looks = hasCome && Clock::now() - m_began < kLongest; }

    // That of the calling thread, for what it waits for outside a loop.
    static KLVMsgLinger& OfThread() {
        static thread_local KLVMsgLinger linger;
        return linger;
    }

private:
    Time m_began{};
    bool m_looks = false;
};
