// For the session's own sources: threads of the application that wait.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <utility>

#include "KLVMsgLinger.h"
#include "KLVMsgTimeLimit.h"

// Each waiting operation has a place of its own to be woken at, so that it wakes up for what it
// waits for and not for what happens to others.
class KLVMsgWaiter {
public:
    using Time = KLVMsgTimeLimit::Clock::time_point;

    // Lets the mutex go until it is woken or the time is over; false then.
    bool Wait(std::unique_lock<std::mutex>& lock, Time limit) {
        KLVMsgLinger& linger = KLVMsgLinger::OfThread();
        if (linger.Begin()) {
            lock.unlock();
            linger.Look(limit, [this] { return m_isWoken.load(); });
            lock.lock();
        }
        const bool woken = m_ready.wait_until(lock, limit, [this] { return m_isWoken.load(); });
        m_isWoken = false;
        linger.End(woken);
        return woken;
    }

    // Requires: the mutex is held.
    void Wake() {
        m_isWoken = true;
        m_ready.notify_one();
    }
    bool IsWoken() const { return m_isWoken; }

private:
    std::condition_variable m_ready;
    std::atomic<bool> m_isWoken{false};  // changes with the mutex held
};

// Puts something into a list as long as it lives.
template <class T>
class KLVMsgEntry {
public:
    KLVMsgEntry(std::list<T*>& list, T& one)
        : m_list(list), m_place(list.insert(list.end(), &one)) {}
    ~KLVMsgEntry() { m_list.erase(m_place); }
    KLVMsgEntry(const KLVMsgEntry&) = delete;
    KLVMsgEntry& operator=(const KLVMsgEntry&) = delete;

private:
    std::list<T*>& m_list;
    typename std::list<T*>::iterator m_place;
};
