// For the library's own sources: what they share about sockets.
#pragma once

#include <memory>
#include <typeinfo>

#include "KLVMsgCommSocket.h"

class KLVMsgServerSocket;

// True when the socket is of that very class, which is quicker to tell than whether it derives from
// it.
inline bool KLVMsgIsPlainStreamSocket(const KLVMsgSocket& socket) {
    return &typeid(socket) == &typeid(KLVMsgCommSocket);
}

// The socket as a stream socket, or null when it is none (or is null itself).
inline KLVMsgCommSocket* KLVMsgAsStreamSocket(KLVMsgSocket* socket) {
    return socket != nullptr && KLVMsgIsPlainStreamSocket(*socket)
               ? static_cast<KLVMsgCommSocket*>(socket)
               : dynamic_cast<KLVMsgCommSocket*>(socket);
}

// The same for a listening socket.
KLVMsgServerSocket* KLVMsgAsServerSocket(KLVMsgSocket* socket);

// Destroys a stream or listening socket as what it is, and leaves its descriptor alone. Null is
// ignored.
void KLVMsgDestroySocket(KLVMsgSocket* socket);

// Holds a socket until it is registered; one that never is gets closed and destroyed.
struct KLVMsgDiscardSocket {
    void operator()(KLVMsgSocket* socket) const {
        if (socket->descriptor != -1) {
            socket->Shutdown();
        }
        KLVMsgDestroySocket(socket);
    }
};
template <class Socket>
using KLVMsgSocketOwner = std::unique_ptr<Socket, KLVMsgDiscardSocket>;
