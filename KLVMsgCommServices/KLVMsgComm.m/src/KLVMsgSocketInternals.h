// For the library's own sources: what they share about sockets.
#pragma once

#include <memory>

#include "KLVMsgSocket.h"

class KLVMsgCommSocket;
class KLVMsgServerSocket;

// True for the errno values that tell that the peer or the network is gone.
bool KLVMsgIsConnectionLost(int error);

// The socket as a stream socket, or null when it is none (or is null itself).
KLVMsgCommSocket* KLVMsgAsStreamSocket(KLVMsgSocket* socket);

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
