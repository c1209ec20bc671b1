// For the library's own sources: what the floors above ask of the registry beside its public
// operations.
#pragma once

#include <cstddef>
#include <vector>

#include "KLVMsgCommSocket.h"
#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgCycle.h"

using KLVMsgRegistryLock = KLVBasAtiGlobalSingletonLock<KLVMsgConnectionServicesUtils>;

inline KLVMsgConnectionServicesUtils& KLVMsgRegistry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

class KLVMsgRegistryInternals {
public:
    // Looks up `count` connections under one hold of the lock and has the cycle hold their sockets,
    // one a turn: `numberAt(i)` is the number of turn i. One that is registered later is not served.
    template <class NumberAt>
    static void Hold(KLVMsgCycle& cycle, std::size_t count, NumberAt numberAt) {
        std::vector<KLVMsgSocket*>& turns = cycle.Plan();
        turns.reserve(count);
        const KLVMsgRegistryLock lock;
        for (std::size_t i = 0; i < count; ++i) {
            turns.push_back(KLVMsgRegistry().Find(numberAt(i)));
        }
        cycle.Hold();
    }

    // The same for one connection. Returns its socket if it is a stream socket, or null.
    static KLVMsgCommSocket* HoldStreamSocket(KLVMsgCycle& cycle, int number) {
        const KLVMsgRegistryLock lock;
        KLVMsgCommSocket* const socket = KLVMsgRegistry().FindStreamSocket(number);
        cycle.Hold(socket);
        return socket;
    }

    // True when the socket is the one under the number.
    // Requires: the lock is held.
    static bool IsRegistered(int number, const KLVMsgSocket* socket) {
        return KLVMsgRegistry().Find(number) == socket;
    }

    // Registers an accepted connection and returns true. False when an entry that is not marked as
    // closed has its number: that one stays and serves the connection, and the socket is the caller's.
    static bool AddAccepted(KLVMsgCommSocket* socket) { return KLVMsgRegistry().AddAccepted(socket); }
};
