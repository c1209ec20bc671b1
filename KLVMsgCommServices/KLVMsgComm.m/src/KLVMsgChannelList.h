// For the library's own sources: taking channels off a list.
#pragma once

#include <cstddef>
#include <functional>

#include "KLVBasVector.h"
#include "KLVMsgChannel.h"
#include "KLVMsgVectors.h"
#include "omi_IntTable.h"

// The position of the first entry with this connection number, or -1.
inline int KLVMsgFindChannel(const KLVBasVector<KLVMsgChannel>& list, int number) {
    for (std::size_t i = 0; i < list.Size(); ++i) {
        if (list[i].connection == number) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// True when `channel` itself, and not only its number, stands in the list.
inline bool KLVMsgIsEntry(const KLVBasVector<KLVMsgChannel>& list, const KLVMsgChannel& channel) {
    return list.Size() != 0 && !std::less<>()(&channel, &list[0]) &&
           !std::less<>()(&list[list.Size() - 1], &channel);
}

inline void KLVMsgEraseFirst(KLVBasVector<KLVMsgChannel>& list, int number) {
    list.Erase(KLVMsgFindChannel(list, number));  // at -1 there is nothing to erase
}

inline void KLVMsgEraseEvery(KLVBasVector<KLVMsgChannel>& list, int number) {
    for (int at; (at = KLVMsgFindChannel(list, number)) != -1;) {
        list.Erase(at);
    }
}

// Erases what KLVMsgEraseFirst would for each number, as often as it is counted, in one pass.
inline void KLVMsgEraseCounted(KLVBasVector<KLVMsgChannel>& list, omi_IntTable<int>& counts) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < list.Size(); ++i) {
        const int number = list[i].connection;
        const int count = counts.Lookup(number);
        if (count > 0) {
            counts.Insert(number, count - 1);
        } else {
            list[kept++] = list[i];
        }
    }
    KLVMsgShrink(list, kept);
}

// Erases the first entry of each selected channel from both lists. Memory that cannot be had leaves
// them as they were.
inline void KLVMsgEraseSelected(const KLVBasVector<KLVMsgChannel>& selected,
                                KLVBasVector<KLVMsgChannel>& first,
                                KLVBasVector<KLVMsgChannel>& second) {
    omi_IntTable<int> inFirst;
    for (std::size_t i = 0; i < selected.Size(); ++i) {
        const int number = selected[i].connection;
        inFirst.Insert(number, inFirst.Lookup(number) + 1);
    }
    omi_IntTable<int> inSecond = inFirst;
    KLVMsgEraseCounted(first, inFirst);
    KLVMsgEraseCounted(second, inSecond);
}
