// For the session's own sources: one thread tells another one that something is done.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>

#include "KLVMsgLinger.h"
#include "KLVMsgTimeLimit.h"

// Is signalled once, and waited for by one thread, which may destroy it as soon as it has come: a
// semaphore allows that. With a condition variable whoever wakes up would wait at once again, for
// the mutex of the one who has woken it.
class KLVMsgSignal {
public:
    using Clock = KLVMsgTimeLimit::Clock;
    using Time = Clock::time_point;

    KLVMsgSignal() { sem_init(&m_count, 0, 0); }
    ~KLVMsgSignal() { sem_destroy(&m_count); }
    KLVMsgSignal(const KLVMsgSignal&) = delete;
    KLVMsgSignal& operator=(const KLVMsgSignal&) = delete;

    void Signal() {
        m_isSignalled = true;
        sem_post(&m_count);
    }

    // False when the time is over.
    bool Wait(Time limit) {
        KLVMsgLinger& linger = KLVMsgLinger::OfThread();
        bool hasCome = false;
        if (linger.Begin()) {
            linger.Look(limit, [&] { return hasCome = sem_trywait(&m_count) == 0; });
        }
        hasCome = hasCome || Sleep(limit);
        linger.End(hasCome);
        return hasCome && m_isSignalled;
    }

private:
    bool Sleep(Time limit) {
        const auto since = limit.time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
        const timespec until = {seconds.count(), std::chrono::nanoseconds(since - seconds).count()};
        int result = -1;
        do {
            result = limit == Time::max() ? sem_wait(&m_count)
                                          : sem_clockwait(&m_count, CLOCK_MONOTONIC, &until);
        } while (result == -1 && errno == EINTR);
        return result == 0;
    }

    sem_t m_count;

    // A semaphore orders memory, but ThreadSanitizer does not know sem_clockwait.
    std::atomic<bool> m_isSignalled{false};
};
