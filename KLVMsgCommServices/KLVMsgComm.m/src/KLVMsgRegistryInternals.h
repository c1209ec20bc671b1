// For the library's own sources: what the floors above ask of the registry beside its public
// operations.
#pragma once

#include "KLVMsgCommSocket.h"
#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgSocketHold.h"

using KLVMsgRegistryLock = KLVBasAtiGlobalSingletonLock<KLVMsgConnectionServicesUtils>;

inline KLVMsgConnectionServicesUtils& KLVMsgRegistry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

class KLVMsgRegistryInternals {
public:
    // The socket under a number, or null. Requires: the lock is held.
    static KLVMsgSocket* Find(int number) { return KLVMsgRegistry().Find(number); }

    // The stream socket under a number, held for one transfer, or null. Takes the lock.
    static KLVMsgHeldSocket<KLVMsgCommSocket> HoldStreamSocket(int number) {
        const KLVMsgRegistryLock lock;
        KLVMsgCommSocket* const socket = KLVMsgRegistry().FindStreamSocket(number);
        if (socket != nullptr) {
            KLVMsgSocketHold::Begin(*socket);
        }
        return KLVMsgHeldSocket<KLVMsgCommSocket>(socket);
    }

    // Registers an accepted connection and returns true. False when an entry that is not marked as
    // closed has its number: that one stays and serves the connection, and `socket` is the caller's.
    // Takes the lock.
    static bool AddAccepted(KLVMsgCommSocket* socket) { return KLVMsgRegistry().AddAccepted(socket); }
};
