// For applications and the library's own sources: the socket that accepts connections.
#pragma once

#include "KLVMsgExport.h"
#include "KLVMsgSocket.h"

class KLVMsgCommSocket;

class KLVMSG_EXPORT KLVMsgServerSocket : public KLVMsgSocket {
public:
    // Binds to `local` and listens (listen) with `backlog` connections waiting at the most. It
    // listens even when the bind failed. Failure shows in `closed`, `lastError` and, when no socket
    // could be made at all, in a descriptor of -1.
    KLVMsgServerSocket(KLVMsgSocketAddress local, int backlog);

    // Takes one waiting connection (accept), or waits until there is one. Returns a connected
    // socket that the caller owns, without any socket option set, or null on failure. The errors
    // that tell of a lost connection (see KLVMsgCommSocket, ECONNABORTED among them) shut this
    // listening socket down.
    KLVMsgCommSocket* Accept();

    // Ends both directions (shutdown with SHUT_RDWR) and closes the descriptor.
    void Shutdown() override;
};
