// For the session's own sources: a received message on its way to the application.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

#include "KLVMsgSocketMessage.h"

// What came on the wire: the bytes of a framed body, behind the object in the same block, or the
// message that a class has read by itself. Only bytes of the body that have come take memory. Short
// messages of one type that came together are one parcel: with millions of them a second, a block
// and a place in two lists for each would be most of what they cost.
class KLVMsgParcel {
public:
    struct Free {
        void operator()(KLVMsgParcel* parcel) const {
            delete parcel->object;
            std::free(parcel);
        }
    };
    using Owner = std::unique_ptr<KLVMsgParcel, Free>;

    static constexpr std::size_t kShort = 128;  // bytes of a body in the smallest block
    static constexpr std::size_t kRun = std::size_t{8} << 10;  // bytes of messages together
    static constexpr std::size_t kLongestOfRun = std::size_t{2} << 10;  // bytes of a body of these

    // Blocks that one thread has done with and another one takes anew: allocating and freeing is
    // most of what a short message costs, and half of what the pages of a long one do. No lock.
    class Stock {
    public:
        Stock() = default;
        ~Stock();
        Stock(const Stock&) = delete;
        Stock& operator=(const Stock&) = delete;

        // With room for so many bytes, or for as many as are wished if there is such a block.
        // Throws std::bad_alloc.
        Owner Take(std::size_t least, std::size_t wish);

        // Keeps the block of one of the usual sizes, or of a long body, as far as there are not too
        // many; hands it back otherwise. IsKept: it is of a kind that is.
        Owner Put(Owner parcel);
        static bool IsKept(const KLVMsgParcel& parcel) {
            return parcel.object == nullptr &&
                   (parcel.room == kShort || parcel.room == kRun || parcel.room >= kLong);
        }

        // Takes over all that another one has, if this one has none of their kind.
        void Refill(Stock& other);

    private:
        static constexpr std::size_t kMostShort = 1024;                 // blocks
        static constexpr std::size_t kMostRuns = 64;                    // blocks
        static constexpr std::size_t kLong = std::size_t{16} << 10;     // bytes of a body
        static constexpr std::size_t kMostLong = std::size_t{2} << 20;  // bytes in all

        struct List {
            void Push(KLVMsgParcel* parcel, std::size_t cost);
            Owner Pop(KLVMsgParcel** place, std::size_t cost);

            KLVMsgParcel* first = nullptr;
            std::size_t size = 0;
        };
        Owner TakeLong(std::size_t wish);

        List m_short;  // its size is their number
        List m_runs;   // as well
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

    // Of the first message in it: its body, if that is bytes, and its size on the wire.
    std::string_view Body() {
        const char* const body = Bytes() + begin + lead;
        std::uint32_t length = 0;
        if (lead != 0) {
            std::memcpy(&length, body - sizeof length, sizeof length);
        }
        return {body, lead != 0 ? length : size};
    }
    std::size_t FirstSize() { return lead != 0 ? lead + Body().size() : wireSize; }

    // Leaves the first one out. Requires: there are several.
    void DropFirst() {
        const auto gone = static_cast<std::uint32_t>(FirstSize());
        begin += gone;
        wireSize -= gone;
        --count;
    }

    // Calls `work` with each message as the first one; the last one stays.
    template <class Work>
    void ForEach(const Work& work) {
        for (work(); count != 1; work()) {
            DropFirst();
        }
    }

    // What it counts against the inbox's limits: with a short body nearly what its block takes.
    static constexpr std::size_t kPerMessage = 192;
    std::size_t Cost() const { return wireSize + count * kPerMessage; }

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
    std::size_t size = 0;                   // bytes of the body of one that is alone
    std::size_t room = 0;                   // for bytes
    std::uint32_t type = 0;                 // its number among the registered types
    std::uint32_t wireSize = 0;             // headers and bodies
    std::uint32_t count = 1;                // messages
    std::uint32_t lead = 0;   // bytes before each body of several, the last four of them its length
    std::uint32_t begin = 0;  // of the first one of several that is still in it

private:
    KLVMsgParcel() = default;
};
static_assert(std::is_trivially_copyable<KLVMsgParcel>::value, "a block is moved by its bytes");

inline KLVMsgParcel::Stock::~Stock() {
    for (List* const list : {&m_short, &m_runs, &m_long}) {
        while (list->first != nullptr) {
            Free()(std::exchange(list->first, list->first->ofClass.next));
        }
    }
}

inline KLVMsgParcel::Owner KLVMsgParcel::Stock::Take(std::size_t least, std::size_t wish) {
    Owner taken;
    if (least <= kShort) {
        least = kShort;
        taken = m_short.Pop(&m_short.first, 1);
    } else if (least <= kRun && least > kRun / 2) {
        least = kRun;
        taken = m_runs.Pop(&m_runs.first, 1);
    } else if (wish >= kLong) {
        taken = TakeLong(wish);
    }
    return taken != nullptr ? std::move(taken) : New(least);
}

// Not one that is many times too large: it would be missed where it is needed.
inline KLVMsgParcel::Owner KLVMsgParcel::Stock::TakeLong(std::size_t wish) {
    KLVMsgParcel** place = &m_long.first;
    while (*place != nullptr && ((*place)->room < wish || (*place)->room / 4 > wish)) {
        place = &(*place)->ofClass.next;
    }
    return m_long.Pop(place, *place != nullptr ? (*place)->room : 0);
}

inline KLVMsgParcel::Owner KLVMsgParcel::Stock::Put(Owner parcel) {
    const std::size_t block = parcel->room;
    List& list = block == kShort ? m_short : block == kRun ? m_runs : m_long;
    const std::size_t cost = &list == &m_long ? block : 1;
    const std::size_t most = block == kShort ? kMostShort : block == kRun ? kMostRuns : kMostLong;
    if (IsKept(*parcel) && list.size + cost <= most) {
        list.Push(parcel.release(), cost);
    }
    return parcel;
}

inline void KLVMsgParcel::Stock::List::Push(KLVMsgParcel* parcel, std::size_t cost) {
    parcel->ofClass.next = first;
    first = parcel;
    size += cost;
}

// As new, but for its room; null where there is none.
inline KLVMsgParcel::Owner KLVMsgParcel::Stock::List::Pop(KLVMsgParcel** place, std::size_t cost) {
    Owner taken(*place);
    if (taken != nullptr) {
        *place = taken->ofClass.next;
        size -= cost;
        const std::size_t kept = taken->room;
        *taken = KLVMsgParcel();
        taken->room = kept;
    }
    return taken;
}

inline void KLVMsgParcel::Stock::Refill(Stock& other) {
    for (List Stock::*const list : {&Stock::m_short, &Stock::m_runs, &Stock::m_long}) {
        if ((this->*list).first == nullptr) {
            std::swap(this->*list, other.*list);
        }
    }
}
