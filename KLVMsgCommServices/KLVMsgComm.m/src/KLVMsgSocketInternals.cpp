#include "KLVMsgSocketInternals.h"

#include "KLVMsgServerSocket.h"
#include "mem_Allocation.h"

KLVMsgServerSocket* KLVMsgAsServerSocket(KLVMsgSocket* socket) {
    return socket == nullptr || KLVMsgIsPlainStreamSocket(*socket)
               ? nullptr
               : dynamic_cast<KLVMsgServerSocket*>(socket);
}

void KLVMsgDestroySocket(KLVMsgSocket* socket) {
    // Named destructors, since the base class has no virtual one.
    if (KLVMsgCommSocket* const stream = KLVMsgAsStreamSocket(socket)) {
        stream->KLVMsgCommSocket::~KLVMsgCommSocket();
        mem_Free(stream);
    } else if (KLVMsgServerSocket* const server = KLVMsgAsServerSocket(socket)) {
        server->KLVMsgServerSocket::~KLVMsgServerSocket();
        mem_Free(server);
    }
}
