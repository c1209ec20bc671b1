// For the session's own sources: a received message on its way to the application.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

#include "KLVMsgSocketMessage.h"

// What came on the wire: the bytes of a framed body, behind the object in the same block, or the
// message that a class has read by itself. Only bytes of the body that have come take memory.
class KLVMsgParcel {
public:
    struct Free {
        void operator()(KLVMsgParcel* parcel) const {
            delete parcel->object;
            std::free(parcel);
        }
    };
    using Owner = std::unique_ptr<KLVMsgParcel, Free>;

    // Blocks for short bodies that one thread has done with and another one takes anew, since
    // allocating and freeing is most of what a short message costs. No lock.
    class Stock {
    public:
        static constexpr std::size_t kRoom = 128;  // bytes of a body

        Stock() = default;
        ~Stock();
        Stock(const Stock&) = delete;
        Stock& operator=(const Stock&) = delete;

        // With room for so many bytes. Throws std::bad_alloc.
        Owner Take(std::size_t room);

        // Keeps the block of a short body, up to a number of them, and frees others.
        void Put(Owner parcel);

        // Takes over all that another one has, if this one has none.
        void Refill(Stock& other);

    private:
        static constexpr std::size_t kMost = 4096;

        KLVMsgParcel* m_first = nullptr;
        std::size_t m_count = 0;
    };

    // With room for `room` bytes. Throws std::bad_alloc.
    static Owner New(std::size_t room) {
        void* const block = std::malloc(sizeof(KLVMsgParcel) + room);
        if (block == nullptr) {
            throw std::bad_alloc();
        }
        return Owner(new (block) KLVMsgParcel);
    }

    // Makes the room larger, or smaller; the bytes stay. Throws std::bad_alloc and leaves it as it
    // was.
    // Requires: nobody else points to it.
    static void Resize(Owner& parcel, std::size_t room) {
        void* const moved = std::realloc(parcel.get(), sizeof(KLVMsgParcel) + room);
        if (moved == nullptr) {
            throw std::bad_alloc();
        }
        static_cast<void>(parcel.release());
        parcel.reset(static_cast<KLVMsgParcel*>(moved));
    }

    char* Bytes() { return reinterpret_cast<char*>(this + 1); }
    std::string_view Body() { return {Bytes(), size}; }

    // What it counts against the inbox's limits: with a short body nearly what its block takes.
    static constexpr std::size_t kPerMessage = 192;
    std::size_t Cost() const { return wireSize + kPerMessage; }

    // Its place in a list.
    struct Hook {
        KLVMsgParcel* previous = nullptr;
        KLVMsgParcel* next = nullptr;
    };

    Hook ofClass;                           // the inbox's: all of this class
    Hook ofSender;                          // the inbox's: those of them that one sender sent
    void* sender = nullptr;                 // the inbox's
    std::uint64_t order = 0;                // the inbox's: later ones have a larger one
    KLVMsgSocketMessage* object = nullptr;  // owned; of a class that has read its body itself
    std::size_t size = 0;                   // bytes of the body, if there is no object
    std::uint32_t type = 0;                 // its number among the registered types
    std::uint32_t wireSize = 0;             // header and body
    bool isShort = false;                   // its room is the stock's

private:
    KLVMsgParcel() = default;
};
static_assert(std::is_trivially_copyable<KLVMsgParcel>::value, "a block is moved by its bytes");

inline KLVMsgParcel::Stock::~Stock() {
    while (m_first != nullptr) {
        Free()(std::exchange(m_first, m_first->ofClass.next));
    }
}

inline KLVMsgParcel::Owner KLVMsgParcel::Stock::Take(std::size_t room) {
    if (room > kRoom) {
        return New(room);
    }
    if (m_first == nullptr) {
        Owner made = New(kRoom);
        made->isShort = true;
        return made;
    }
    --m_count;
    KLVMsgParcel* const taken = std::exchange(m_first, m_first->ofClass.next);
    *taken = KLVMsgParcel();
    taken->isShort = true;
    return Owner(taken);
}

inline void KLVMsgParcel::Stock::Put(Owner parcel) {
    if (parcel->isShort && parcel->object == nullptr && m_count < kMost) {
        ++m_count;
        parcel->ofClass.next = m_first;
        m_first = parcel.release();
    }
}

inline void KLVMsgParcel::Stock::Refill(Stock& other) {
    if (m_first == nullptr) {
        std::swap(m_first, other.m_first);
        std::swap(m_count, other.m_count);
    }
}
