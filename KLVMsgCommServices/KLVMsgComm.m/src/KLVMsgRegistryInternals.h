// For the library's own sources: what the floors above ask of the registry beside its public
// operations.
#pragma once

#include "KLVMsgCommSocket.h"
#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgSocketField.h"
#include "KLVMsgSocketHold.h"
#include "KLVMsgSocketInternals.h"

inline KLVMsgConnectionServicesUtils& KLVMsgRegistry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

// The registry, locked as long as this lives: no number is given out, no socket removed.
class KLVMsgLockedRegistry {
public:
    // The socket under a number, or null.
    KLVMsgSocket* Find(int number) const { return m_registry.Find(number); }

    // The same if it is a stream socket.
    KLVMsgCommSocket* FindStreamSocket(int number) const {
        return KLVMsgAsStreamSocket(Find(number));
    }

    // What the registry's operations of these names do, if the socket is still the one under the
    // number: what has been registered since is not served. Requires: the socket is held.
    int SendMessageHeader(KLVMsgCommSocket* socket, int number, const KLVString& typeName) const {
        return Find(number) == socket ? m_registry.WriteHeader(*socket, typeName) : 0;
    }
    int RetrieveMessageType(KLVMsgCommSocket* socket, int number, KLVString& typeName) const {
        return Find(number) == socket ? m_registry.ReadHeader(*socket, number, typeName) : 0;
    }

    // The last error of whoever is registered under the own number of the socket under `number`. 0
    // for nobody: a socket that was connected anew has a number that it is not registered under.
    int LastErrorBehind(int number) const {
        const KLVMsgSocket* const socket = Find(number);
        const KLVMsgSocket* const own = socket == nullptr ? nullptr : Find(socket->descriptor);
        return own == nullptr ? 0 : KLVMsgLoad(own->lastError);
    }

    // What ShutDownConnection does.
    void ShutDownConnection(int number) const { m_registry.RemoveConnection(number); }

    // Registers an accepted connection and returns true. False when an entry that is not marked as
    // closed has its number: that one stays and serves the connection; the caller keeps `socket`.
    bool AddAccepted(KLVMsgCommSocket* socket) const { return m_registry.AddAccepted(socket); }

private:
    KLVMsgConnectionServicesUtils& m_registry = KLVMsgRegistry();  // made before it is locked
    const KLVBasAtiGlobalSingletonLock<KLVMsgConnectionServicesUtils> m_lock;
};

// The stream socket under a number, held for one transfer, or null.
inline KLVMsgHeldSocket<KLVMsgCommSocket> KLVMsgHoldStreamSocket(int number) {
    return KLVMsgHold(KLVMsgLockedRegistry().FindStreamSocket(number));
}
