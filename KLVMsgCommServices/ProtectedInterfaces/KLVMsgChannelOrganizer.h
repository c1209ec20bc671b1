// For applications and the library's own sources: the list of known channels.
#pragma once

#include "KLVBasVector.h"
#include "KLVMsgChannel.h"
#include "KLVMsgChannelWaitable.h"
#include "KLVMsgExport.h"

class KLVMsgChannelQuery;

// The channels of a communicator, and which of them it watches. It owns no socket and holds no
// lock: its owner guards it. Its destruction closes nothing.
class KLVMSG_EXPORT KLVMsgChannelOrganizer {
public:
    // Appends the channel; with `mark` it is watched too. A channel registered twice is listed
    // twice.
    void RegisterChannel(const KLVMsgChannel& channel, bool mark);

    // Appends to `out` the channels that the query selects, or all of them without a query.
    void LookupChannel(KLVMsgChannelQuery* query, KLVBasVector<KLVMsgChannel>& out) const;

    // Takes the channel's first entry off each list, and shuts its connection down, even when it
    // was on neither. The caller's channel then holds -1, unless it was itself an entry of one of
    // the lists: that entry is gone. The flag has no effect.
    void RemoveChannel(KLVMsgChannel& channel, bool flag);

    // Removes every channel that the query selects, or all of them without a query.
    void RemoveChannel(KLVMsgChannelQuery* query, bool flag);

    // Shuts every channel's connection down and empties both lists.
    void Shutdown();

    KLVBasVector<KLVMsgChannel> channels;  // in the order of registration
    KLVMsgChannelWaitable waitable;        // its `channels` are the watched ones
};
