// For the session's own sources: what was received and not yet asked for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "KLVMsgParcel.h"

// Messages by class and by sender, each in the order in which they came, so that the oldest of a
// class, of anybody or of one sender, is found at once however many others wait. No lock.
class KLVMsgInbox {
public:
    struct List {
        KLVMsgParcel* first = nullptr;
        KLVMsgParcel* last = nullptr;
        std::size_t count = 0;  // messages
    };

    // Who sent them; part of what the session knows of a peer.
    struct Sender {
        void* owner = nullptr;      // whose part it is
        std::vector<List> ofClass;  // by type, as far as there have been any
        std::size_t count = 0;
        std::size_t cost = 0;  // in bytes, against the limits
    };

    KLVMsgInbox() = default;
    ~KLVMsgInbox();
    KLVMsgInbox(const KLVMsgInbox&) = delete;
    KLVMsgInbox& operator=(const KLVMsgInbox&) = delete;

    // Before anything else: how many types there are.
    void Prepare(std::size_t types) { m_ofClass.resize(types); }

    // Throws std::bad_alloc and takes nothing then.
    void Push(Sender& sender, KLVMsgParcel::Owner parcel);

    // The oldest of a class, of anybody or of one sender; null when there is none.
    const KLVMsgParcel* Oldest(std::uint32_t type) const { return m_ofClass[type].first; }
    static const KLVMsgParcel* Oldest(std::uint32_t type, const Sender& sender) {
        return type < sender.ofClass.size() ? sender.ofClass[type].first : nullptr;
    }

    // Takes one out, with all messages that are in it. Requires: it is there.
    KLVMsgParcel::Owner Take(const KLVMsgParcel* parcel);

    // Takes out its first message, and the parcel itself when there is no other in it.
    KLVMsgParcel::Owner TakeFirst(const KLVMsgParcel* parcel);

    std::size_t Count(std::uint32_t type) const { return m_ofClass[type].count; }
    std::size_t Count() const { return m_count; }
    std::size_t Cost() const { return m_cost; }

    // Of what was pushed last; later ones have a larger one.
    std::uint64_t LastOrder() const { return m_order; }

private:
    void Uncount(KLVMsgParcel& parcel, std::size_t count, std::size_t cost);

    std::vector<List> m_ofClass;
    std::size_t m_count = 0;
    std::size_t m_cost = 0;
    std::uint64_t m_order = 0;
};
