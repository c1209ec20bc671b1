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

    // Blocks that one thread has done with and another one takes anew: allocating and freeing is
    // most of what a short message costs, and half of what the pages of a long one do. No lock.
    class Stock {
    public:
        static constexpr std::size_t kRoom = 128;  // bytes of a short body

        Stock() = default;
        ~Stock();
        Stock(const Stock&) = delete;
        Stock& operator=(const Stock&) = delete;

        // With room for so many bytes, or for as many as are wished if there is such a block.
        // Throws std::bad_alloc.
        Owner Take(std::size_t least, std::size_t wish);

        // Keeps the block of a short or a long body, as far as there are not too many; hands it
        // back otherwise. May tells it in advance, but for the number.
        Owner Put(Owner parcel);
        static bool May(const KLVMsgParcel& parcel) {
            return parcel.object == nullptr && (parcel.room == kRoom || parcel.room >= kLong);
        }

        // Takes over all that another one has, if this one has none of their kind.
        void Refill(Stock& other);

    private:
        static constexpr std::size_t kMostShort = 4096;                 // blocks
        static constexpr std::size_t kLong = std::size_t{16} << 10;     // bytes of a body
        static constexpr std::size_t kMostLong = std::size_t{2} << 20;  // bytes in all

        struct List {
            void Push(KLVMsgParcel* parcel, std::size_t cost);

            KLVMsgParcel* first = nullptr;
            std::size_t size = 0;
        };
        Owner TakeLong(std::size_t wish);

        List m_short;  // its size is their number
        List m_long;   // its size is their room
    };

    // With room for `room` bytes. Throws std::bad_alloc.
    static Owner New(std::size_t room) {
        void* const block = std::malloc(sizeof(KLVMsgParcel) + room);
        if (block == nullptr) {
            throw std::bad_alloc();
        }
        Owner made(new (block) KLVMsgParcel);
        made->room = room;
        return made;
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
        parcel->room = room;
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
    std::size_t room = 0;                   // for those
    std::uint32_t type = 0;                 // its number among the registered types
    std::uint32_t wireSize = 0;             // header and body

private:
    KLVMsgParcel() = default;
};
static_assert(std::is_trivially_copyable<KLVMsgParcel>::value, "a block is moved by its bytes");

inline KLVMsgParcel::Stock::~Stock() {
    for (List* const list : {&m_short, &m_long}) {
        while (list->first != nullptr) {
            Free()(std::exchange(list->first, list->first->ofClass.next));
        }
    }
}

inline KLVMsgParcel::Owner KLVMsgParcel::Stock::Take(std::size_t least, std::size_t wish) {
    if (least <= kRoom && m_short.first == nullptr) {
        return New(kRoom);
    }
    if (least <= kRoom) {
        --m_short.size;
        KLVMsgParcel* const taken = m_short.first;
        m_short.first = taken->ofClass.next;
        *taken = KLVMsgParcel();
        taken->room = kRoom;
        return Owner(taken);
    }
    Owner taken = wish < kLong ? nullptr : TakeLong(wish);
    return taken != nullptr ? std::move(taken) : New(least);
}

// Not one that is many times too large: it would be missed where it is needed.
inline KLVMsgParcel::Owner KLVMsgParcel::Stock::TakeLong(std::size_t wish) {
    KLVMsgParcel** place = &m_long.first;
    while (*place != nullptr && ((*place)->room < wish || (*place)->room / 4 > wish)) {
        place = &(*place)->ofClass.next;
    }
    Owner taken(*place);
    if (taken != nullptr) {
        const std::size_t kept = taken->room;
        *place = taken->ofClass.next;
        m_long.size -= kept;
        *taken = KLVMsgParcel();
        taken->room = kept;
    }
    return taken;
}

inline KLVMsgParcel::Owner KLVMsgParcel::Stock::Put(Owner parcel) {
    const bool isShort = parcel->room == kRoom;
    const std::size_t cost = isShort ? 1 : parcel->room;
    List& list = isShort ? m_short : m_long;
    if (May(*parcel) && list.size + cost <= (isShort ? kMostShort : kMostLong)) {
        list.Push(parcel.release(), cost);
    }
    return parcel;
}

inline void KLVMsgParcel::Stock::List::Push(KLVMsgParcel* parcel, std::size_t cost) {
    parcel->ofClass.next = first;
    first = parcel;
    size += cost;
}

inline void KLVMsgParcel::Stock::Refill(Stock& other) {
    if (m_short.first == nullptr) {
        std::swap(m_short, other.m_short);
    }
    if (m_long.first == nullptr) {
        std::swap(m_long, other.m_long);
    }
}
