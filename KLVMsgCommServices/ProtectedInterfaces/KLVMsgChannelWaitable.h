// For applications and the library's own sources: waiting for many connections at once.
#pragma once

#include "KLVBasVector.h"
#include "KLVMsgChannel.h"
#include "KLVMsgExport.h"

// A set of channels to wait on, and what the waits have found. It holds no lock: the communicator
// guards the ones that it is given.
class KLVMSG_EXPORT KLVMsgChannelWaitable {
public:
    // A waitable without channels.
    KLVMsgChannelWaitable() = default;

    // A waitable that watches these channels.
    explicit KLVMsgChannelWaitable(const KLVBasVector<KLVMsgChannel>& watched);

    // Waits (select) until a watched connection is readable or the time is over, and appends what
    // it found. The results of earlier waits stay: the caller clears them.
    //
    // For a readable listening socket, the waiting connection is accepted and registered, and a
    // channel for it with an empty label goes to `newChannels`. Entries of `channels` with its
    // number leave: they are about a connection that has gone. Any other readable connection, one
    // that the peer has closed included, goes to `readyChannels`: in ascending order of
    // descriptors, and once for each of its entries in `channels`. One that is removed during the
    // wait does not.
    //
    // Connections that are unknown or marked as closed are passed over, as are those whose
    // descriptor does not fit the descriptor set (1024 and above): these are never found readable,
    // and their end shows on a send only. With none left to watch it returns at once, and without
    // channels it does not touch the registry either.
    //
    // Takes the registry's lock to look the connections up, before the wait and after it, and holds
    // none while it waits. std::bad_alloc may come when some connections have been accepted: these
    // are in `newChannels`, and nothing else has changed.
    //
    // The time is in milliseconds. 0 looks without waiting. Exactly 1000 is given to the system as
    // 1,000,000 microseconds, and a negative time as it is. A time that select refuses ends the
    // wait, as does a signal. A wait that ended so is reported on aio_cerr as "waiting for select"
    // and the errno.
    void WaitForConnectionAndMessages(int timeoutMilliseconds);

    bool acceptConnections = true;              // false: readable listening sockets are ignored
    KLVBasVector<KLVMsgChannel> channels;       // the watched ones
    KLVBasVector<KLVMsgChannel> readyChannels;  // found to have data
    KLVBasVector<KLVMsgChannel> newChannels;    // accepted
};
