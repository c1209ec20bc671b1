#include "KLVMsgSocketInternals.h"

#include <cerrno>
#include <typeinfo>

#include "KLVMsgCommSocket.h"
#include "KLVMsgServerSocket.h"
#include "mem_Allocation.h"

bool KLVMsgIsConnectionLost(int error) {
    switch (error) {
        case ENETDOWN:
        case ENETUNREACH:
        case ENETRESET:
        case ECONNABORTED:
        case ECONNRESET:
        case ENOTCONN:
        case ESHUTDOWN:
            return true;
        default:
            return false;
    }
}

KLVMsgCommSocket* KLVMsgAsStreamSocket(KLVMsgSocket* socket) {
    // Mostly it is exactly that, which is quicker to tell than whether it derives from it.
    if (socket != nullptr && typeid(*socket) == typeid(KLVMsgCommSocket)) {
        return static_cast<KLVMsgCommSocket*>(socket);
    }
    return dynamic_cast<KLVMsgCommSocket*>(socket);
}

KLVMsgServerSocket* KLVMsgAsServerSocket(KLVMsgSocket* socket) {
    if (socket != nullptr && typeid(*socket) == typeid(KLVMsgCommSocket)) {
        return nullptr;  // the usual case again
    }
    return dynamic_cast<KLVMsgServerSocket*>(socket);
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
