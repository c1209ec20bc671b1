// For applications: the handle on a connection.
#pragma once

#include "KLVMsgExport.h"
#include "KLVString.h"

class KLVMsgSocket;

// A connection number as a value, copied freely. Socket and label are the registry's: every
// operation asks it, under its lock, and no channel owns a connection.
class KLVMSG_EXPORT KLVMsgChannel {
public:
    KLVMsgChannel() = default;

    // The channel of a registered socket, whose connection takes `label` as its name. With a null
    // socket the channel stays without a connection.
    KLVMsgChannel(KLVMsgSocket* socket, const KLVString& label);

    // The label is the connection's name: all channels of one connection share it.
    KLVString GetLabel() const;
    void SetLabel(const KLVString& label);

    // The registered socket, or null. It stays the registry's.
    KLVMsgSocket* GetSocket() const;

    // Equal means the same connection number.
    bool operator==(const KLVMsgChannel& other) const { return connection == other.connection; }

    // True when the connection is registered and not marked as closed.
    bool IsActiveInCurrentThreads();

    // Shuts the connection down for all its channels; this one then holds -1. See the registry's
    // ShutDownConnection.
    void Shutdown();

    int connection = -1;  // -1: none
};
