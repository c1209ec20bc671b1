#include "KLVBasAtiMutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <new>

#include "KLVBasAtiThreadingModel.h"
#include "mem_Allocation.h"

namespace {

// Hands itself over in the order of arrival: each Lock draws a ticket, and each Unlock calls the
// next one. Without waiters neither makes a system call.
//
// One number holds both counts, so that Unlock calls a ticket and learns whether somebody waits for
// it in one step: from then on the mutex is the next thread's, which may destroy it.
//
//      63            32 31             0
//     +----------------+----------------+
//     | ticket called  | threads that   |
//     |                | hold or wait   |
//     +----------------+----------------+
class TicketMutex final : public KLVBasAtiMutex {
public:
    void Lock() override {
        const std::uint64_t before = m_state.fetch_add(1);
        if (Threads(before) != 0) {
            Await(Called(before) + Threads(before));
        }
    }

    void Unlock() override {
        // One thread less and one ticket further, which starts anew after the largest.
        const std::uint64_t before = m_state.fetch_add((std::uint64_t{1} << 32) - 1);
        if (Threads(before) != 1) {
            Wake(Called(before) + 1);
        }
    }

private:
    static std::uint32_t Called(std::uint64_t state) {
        return static_cast<std::uint32_t>(state >> 32);
    }
    static std::uint32_t Threads(std::uint64_t state) { return static_cast<std::uint32_t>(state); }

    // Where the kernel finds the ticket called.
    std::uint32_t* CalledPlace() {
        return reinterpret_cast<std::uint32_t*>(&m_state) +
               (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 1 : 0);
    }

    // A sleeping thread is in one of 32 groups. Far from its turn it shares one with the tickets of
    // its block, and is woken when the first of them is called; from then on it is alone in one of
    // the other groups. So each thread wakes a few times, however many wait.
    static constexpr std::uint32_t block = 16;

    static std::uint32_t OwnGroup(std::uint32_t ticket) { return 1u << ticket % block; }
    static std::uint32_t BlockGroup(std::uint32_t ticket) {
        return 1u << (block + ticket / block % block);
    }

    // Both out of the way of a lock that is free.
    [[gnu::noinline, gnu::cold]] void Await(std::uint32_t ticket) {
        for (std::uint32_t called; (called = Called(m_state)) != ticket;) {
            const bool near = called / block == ticket / block;
            // Returns at once when another ticket has been called since.
            Futex(FUTEX_WAIT_BITSET_PRIVATE, called, near ? OwnGroup(ticket) : BlockGroup(ticket));
        }
    }

    // Only names the place: should the mutex be gone by now, nobody sleeps there.
    [[gnu::noinline, gnu::cold]] void Wake(std::uint32_t ticket) {
        const bool first = ticket % block == 0;
        Futex(FUTEX_WAKE_BITSET_PRIVATE, INT_MAX,
              OwnGroup(ticket) | (first ? BlockGroup(ticket) : 0));
    }

    // Leaves errno alone, which callers may have yet to read.
    void Futex(int operation, std::uint32_t value, std::uint32_t groups) {
        const int error = errno;
        syscall(SYS_futex, CalledPlace(), operation, value, nullptr, nullptr, groups);
        errno = error;
    }

    std::atomic<std::uint64_t> m_state{0};
    static_assert(sizeof m_state == sizeof(std::uint64_t), "the kernel reads its upper half");
};

}  // namespace

KLVBasAtiMutex::~KLVBasAtiMutex() = default;

KLVBasAtiMutex* KLVBasAtiThreadingModel::newMutex() {
    void* const memory = mem_Malloc(sizeof(TicketMutex));
    return memory == nullptr ? nullptr : ::new (memory) TicketMutex;
}
