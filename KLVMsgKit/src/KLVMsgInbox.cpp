#include "KLVMsgInbox.h"

#include <utility>

namespace {

using List = KLVMsgInbox::List;
using Hook = KLVMsgParcel::Hook;

void Append(List& list, Hook KLVMsgParcel::*hook, KLVMsgParcel* parcel) {
    (parcel->*hook) = {list.last, nullptr};
    (list.last == nullptr ? list.first : (list.last->*hook).next) = parcel;
    list.last = parcel;
    list.count += parcel->count;
}

void Remove(List& list, Hook KLVMsgParcel::*hook, KLVMsgParcel* parcel) {
    const Hook place = parcel->*hook;
    (place.previous == nullptr ? list.first : (place.previous->*hook).next) = place.next;
    (place.next == nullptr ? list.last : (place.next->*hook).previous) = place.previous;
}

}  // namespace

KLVMsgInbox::~KLVMsgInbox() {
    for (const List& list : m_ofClass) {
        for (KLVMsgParcel* parcel = list.first; parcel != nullptr;) {
            KLVMsgParcel* const next = parcel->ofClass.next;
            KLVMsgParcel::Free()(parcel);
            parcel = next;
        }
    }
}

void KLVMsgInbox::Push(Sender& sender, KLVMsgParcel::Owner parcel) {
    if (sender.ofClass.size() <= parcel->type) {
        sender.ofClass.resize(parcel->type + 1);
    }
    parcel->sender = &sender;
    parcel->order = ++m_order;
    const std::size_t cost = parcel->Cost();
    m_cost += cost;
    sender.cost += cost;
    m_count += parcel->count;
    sender.count += parcel->count;
    KLVMsgParcel* const pushed = parcel.release();
    Append(m_ofClass[pushed->type], &KLVMsgParcel::ofClass, pushed);
    Append(sender.ofClass[pushed->type], &KLVMsgParcel::ofSender, pushed);
}

KLVMsgParcel::Owner KLVMsgInbox::Take(const KLVMsgParcel* parcel) {
    KLVMsgParcel::Owner taken(const_cast<KLVMsgParcel*>(parcel));  // the inbox's own
    Sender& sender = *static_cast<Sender*>(taken->sender);
    Remove(m_ofClass[taken->type], &KLVMsgParcel::ofClass, taken.get());
    Remove(sender.ofClass[taken->type], &KLVMsgParcel::ofSender, taken.get());
    Uncount(*taken, taken->count, taken->Cost());
    return taken;
}

KLVMsgParcel::Owner KLVMsgInbox::TakeFirst(const KLVMsgParcel* parcel) {
    if (parcel->count == 1) {
        return Take(parcel);
    }
    auto& several = *const_cast<KLVMsgParcel*>(parcel);  // the inbox's own
    Uncount(several, 1, several.FirstSize() + KLVMsgParcel::kPerMessage);
    several.DropFirst();
    return nullptr;
}

void KLVMsgInbox::Uncount(KLVMsgParcel& parcel, std::size_t count, std::size_t cost) {
    Sender& sender = *static_cast<Sender*>(parcel.sender);
    m_ofClass[parcel.type].count -= count;
    sender.ofClass[parcel.type].count -= count;
    m_count -= count;
    sender.count -= count;
    m_cost -= cost;
    sender.cost -= cost;
}
