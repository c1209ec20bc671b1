// For applications and the library's own sources: what every socket has.
//
// Invariants:
// - A socket holds no lock. Registered ones are used under the registry's lock; a caller that uses
//   one directly sees to it that nobody else does at the same time.
// - Operations report nothing. A failing system call leaves its errno in `lastError`, but for those
//   that set SO_REUSEADDR or SO_KEEPALIVE or end a direction of a lost connection. `lastError` is
//   only ever overwritten by them, never cleared.
// - Shutdown closes the descriptor, a destructor never does.
#pragma once

#include "KLVMsgExport.h"
#include "KLVMsgSocketAddress.h"
#include "mem_AllocationOperators.h"

// Base of the stream and the listening socket: one TCP descriptor. There is no virtual destructor;
// a socket is destroyed as what it is.
class KLVMSG_EXPORT KLVMsgSocket : public mem_AllocationOperators {
public:
    KLVMsgSocket();

    // Ends the socket's work and closes its descriptor (shutdown, close).
    virtual void Shutdown() = 0;

    // Closes the descriptor (close) and marks the socket as closed. The number stays in
    // `descriptor`: closing twice closes whatever has been given that number since.
    void Close();

    // Stores `local`, makes the descriptor (socket) and binds it (getaddrinfo, bind) to the first
    // address that the host resolves to. With a port of 0 or less the system's choice is stored in
    // `address.port` (getsockname). On failure the socket stays marked as closed; a descriptor that
    // was made stays open. Where the host does not resolve, `lastError` is whatever the resolver
    // left in errno.
    // Requires: the socket has no descriptor.
    void BindLocalAddress(KLVMsgSocketAddress local);

    KLVMsgSocketAddress address;  // where it is bound to, or was to be
    int descriptor = -1;          // -1 when there is none
    int lastError = 0;            // errno of the last failure, 0 when there was none
    bool closed = true;           // false from bind, connect or accept until Close

protected:
    ~KLVMsgSocket() = default;
};
