// For the library's own sources: taking channels off a list.
#pragma once

#include "KLVBasVector.h"
#include "KLVMsgChannel.h"

// The position of the first entry equal to `channel`, or -1.
inline int KLVMsgFindChannel(const KLVBasVector<KLVMsgChannel>& list,
                             const KLVMsgChannel& channel) {
    for (std::size_t i = 0; i < list.Size(); ++i) {
        if (list[i] == channel) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

inline void KLVMsgEraseFirst(KLVBasVector<KLVMsgChannel>& list, const KLVMsgChannel& channel) {
    list.Erase(KLVMsgFindChannel(list, channel));  // at -1 there is nothing to erase
}

inline void KLVMsgEraseEvery(KLVBasVector<KLVMsgChannel>& list, const KLVMsgChannel& channel) {
    for (int at; (at = KLVMsgFindChannel(list, channel)) != -1;) {
        list.Erase(at);
    }
}
