// For the library's own sources: what keeps a socket from being closed and destroyed.
//
// A connection number is a descriptor: once closed, it is the next one that the system gives away.
// Whoever works with registered sockets holds them. A socket that is closed meanwhile is marked as
// closed at once, and one that is removed leaves the registry at once. The descriptor is closed,
// and the object destroyed, when the last hold ends. Without a hold both are done at once.
//
// A hold begins while the registry's lock is held, which is what removes sockets. There are two
// kinds, so that a wait on hundreds of connections costs little: `waits`, begun and ended under the
// registry's lock for many sockets at once, and `holds`, which end at any time.
//
// A mutex guards what is in KLVMsgSocket::m_departure beside these two counts. It is the last lock
// that a thread takes, where something is closed, destroyed or found closed. It is not held during
// the close itself.
#pragma once

#include <atomic>
#include <memory>

#include "KLVMsgSocket.h"

class KLVMsgSocketHold {
public:
    // Requires: the socket is registered and the registry locked, or the socket is held already.
    static void Begin(KLVMsgSocket& socket) { socket.m_departure.holds.fetch_add(1); }

    // May close and destroy the socket.
    static void End(KLVMsgSocket& socket) {
        socket.m_departure.holds.fetch_sub(1);
        if (s_departures.load() != 0) {
            Settle();
        }
    }

    // The same for a wait. Requires: the registry's lock is held. The last EndWait of a wait is
    // followed by AfterWait, without the lock, which closes and destroys what is free then.
    static void BeginWait(KLVMsgSocket& socket) { AddWaits(socket, 1); }
    static void EndWait(KLVMsgSocket& socket) { AddWaits(socket, -1); }
    static void AfterWait() {
        if (s_departures.fetch_add(0) != 0) {
            Settle();
        }
    }

    // Marks the socket as closed. True when the caller is to close the descriptor, false when that
    // is left to the end of the last hold, or was done before: EBADF is stored then.
    static bool ClosesNow(KLVMsgSocket& socket);

    // True when the socket has closed its descriptor, and nobody has put in another one.
    [[gnu::cold]] static bool HasClosed(KLVMsgSocket& socket);

    // A descriptor has been put into the socket, which owns it.
    static void Renew(KLVMsgSocket& socket);

    // Destroys a socket that is no longer registered, now or when its last hold ends.
    static void Destroy(KLVMsgSocket* socket);

    // Waits until listening sockets that were shut down are closed: until the waits of other
    // threads have woken up the port stays taken. Not longer than a second, should one not wake up.
    static void AwaitClosedListeners();

private:
    // Only ever changed under the registry's lock, so that adding needs no locked instruction.
    static void AddWaits(KLVMsgSocket& socket, int count) {
        std::atomic<int>& waits = socket.m_departure.waits;
        waits.store(waits.load(std::memory_order_relaxed) + count, std::memory_order_release);
    }

    static bool IsHeld(const KLVMsgSocket& socket);
    static bool IsUnchanged(KLVMsgSocket& socket);
    static bool Departs(KLVMsgSocket& socket);
    static KLVMsgSocket* FirstFree();
    static void Remove(KLVMsgSocket& socket);
    [[gnu::cold]] static void Settle();  // out of the way of what ends a hold

    // How many sockets wait for the end of a hold. Whoever ends a hold does so before looking here,
    // and whoever closes a socket counts it here before looking at the holds: one sees the other.
    static std::atomic<int> s_departures;
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
