// For the library's own sources: taking channels off a list.
#pragma once

#include <cstddef>
#include <functional>

#include "KLVBasVector.h"
#include "KLVMsgChannel.h"

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
