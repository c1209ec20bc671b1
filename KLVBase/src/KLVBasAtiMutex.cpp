#include "KLVBasAtiMutex.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>

#include "KLVBasAtiThreadingModel.h"
#include "mem_Allocation.h"

namespace {

// Hands itself over in the order of arrival: each Lock draws a ticket, and each Unlock serves the
// next one. Without waiters neither makes a system call.
//
// The counters are sequentially consistent: of a thread that draws a ticket and one that unlocks,
// at least one sees what the other has done, so no waiter is left asleep.
class TicketMutex final : public KLVBasAtiMutex {
public:
    void Lock() override {
        const unsigned int ticket = m_next++;
        if (m_serving != ticket) {
            Await(ticket);
        }
    }

    void Unlock() override {
        const unsigned int serving = ++m_serving;
        if (m_next != serving) {
            WakeWaiters();
        }
    }

private:
    // Both out of the way of a lock that is free.
    [[gnu::noinline, gnu::cold]] void Await(unsigned int ticket) {
        std::unique_lock<std::mutex> sleepers(m_sleepers);
        m_called.wait(sleepers, [this, ticket] { return m_serving == ticket; });
    }

    [[gnu::noinline, gnu::cold]] void WakeWaiters() {
        const std::lock_guard<std::mutex> sleepers(m_sleepers);
        m_called.notify_all();
    }

    std::atomic<unsigned int> m_next{0};
    std::atomic<unsigned int> m_serving{0};
    std::mutex m_sleepers;
    std::condition_variable m_called;
};

}  // namespace

KLVBasAtiMutex::~KLVBasAtiMutex() = default;

KLVBasAtiMutex* KLVBasAtiThreadingModel::newMutex() {
    void* const memory = mem_Malloc(sizeof(TicketMutex));
    return memory == nullptr ? nullptr : ::new (memory) TicketMutex;
}
