// For the library's own sources: what keeps a socket from being closed and destroyed.
//
// A connection number is a descriptor: once closed, it is the next one that the system gives away.
// Whoever works with registered sockets holds them. A socket that is closed meanwhile is marked as
// closed at once, and one that is removed leaves the registry at once. The descriptor is closed,
// and the object destroyed, when the last hold ends. Without a hold both are done at once.
//
// A hold begins while the registry's lock is held, which is what removes sockets, and ends at any
// time. The mutex that closing and destroying take (KLVMsgDepartures) is the last lock of a thread.
#pragma once

#include <memory>

#include "KLVMsgDepartures.h"
#include "KLVMsgSocket.h"

class KLVMsgSocketHold {
public:
    // Requires: the socket is registered and the registry locked, or the socket is held already.
    // Whether it is closed is to be looked at after that.
    static void Begin(KLVMsgSocket& socket) { KLVMsgSocketDepartures.Begin(socket); }

    // May close and destroy the socket.
    static void End(KLVMsgSocket& socket) {
        if (KLVMsgSocketDepartures.End(socket)) {
            Settle();
        }
    }

    // True when the socket has closed its descriptor, and nobody has put in another one.
    [[gnu::cold]] static bool HasClosed(KLVMsgSocket& socket) { return socket.HasClosed(); }

    // Destroys a socket that is no longer registered, now or when its last hold ends.
    static void Destroy(KLVMsgSocket* socket);

    // Waits until listening sockets that were shut down are closed: until the waits of other
    // threads have woken up the port stays taken. Not longer than a second, should one not wake up.
    static void AwaitClosedListeners();

private:
    [[gnu::cold]] static void Settle();  // out of the way of what ends a hold
};

// Ends a hold with its scope.
struct KLVMsgEndHold {
    void operator()(KLVMsgSocket* socket) const { KLVMsgSocketHold::End(*socket); }
};
template <class Socket>
using KLVMsgHeldSocket = std::unique_ptr<Socket, KLVMsgEndHold>;

// Holds a socket, or nothing if it is null. See KLVMsgSocketHold::Begin.
template <class Socket>
KLVMsgHeldSocket<Socket> KLVMsgHold(Socket* socket) {
    if (socket != nullptr) {
        KLVMsgSocketHold::Begin(*socket);
    }
    return KLVMsgHeldSocket<Socket>(socket);
}
