#include "KLVMsgSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <typeinfo>

#include "KLVMsgCommSocket.h"
#include "KLVMsgComm_IF.h"
#include "KLVMsgResolvedAddress.h"
#include "KLVMsgServerSocket.h"
#include "KLVMsgSocketInternals.h"
#include "mem_Allocation.h"

// The port that the system has given to a bound descriptor, or -1 with errno set.
static int BoundPort(int descriptor) {
    sockaddr_storage bound = {};
    socklen_t length = sizeof bound;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&bound), &length) == -1) {
        return -1;
    }
    sockaddr_in address;  // an IPv6 address has its port at the same place
    std::memcpy(&address, &bound, sizeof address);
    return ntohs(address.sin_port);
}

KLVMsgSocket::KLVMsgSocket() { Startup(); }

void KLVMsgSocket::Close() {
    if (close(descriptor) == -1) {
        lastError = errno;
    }
    closed = true;
}

void KLVMsgSocket::BindLocalAddress(KLVMsgSocketAddress local) {
    KLVString service;  // first, since its memory may not be had
    if (local.port > 0) {
        service += local.port;
    }
    address = local;
    const char* const serviceText = local.port > 0 ? service.Text() : nullptr;
    const KLVMsgResolvedAddress resolved = KLVMsgResolveAddress(local.host, serviceText);
    if (resolved == nullptr) {
        lastError = errno;
        return;
    }

    descriptor = socket(resolved->ai_family, resolved->ai_socktype, resolved->ai_protocol);
    if (bind(descriptor, resolved->ai_addr, resolved->ai_addrlen) == -1) {
        lastError = errno;
        return;
    }
    closed = false;
    // The option is set after the bind, so it does not affect this bind.
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);

    if (local.port <= 0) {
        const int port = BoundPort(descriptor);
        if (port == -1) {
            lastError = errno;
        } else {
            address.port = port;
        }
    }
}

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

void KLVMsgDestroySocket(KLVMsgSocket* socket) {
    // Named destructors, since the base class has no virtual one.
    if (KLVMsgCommSocket* const stream = KLVMsgAsStreamSocket(socket)) {
        stream->KLVMsgCommSocket::~KLVMsgCommSocket();
        mem_Free(stream);
    } else if (KLVMsgServerSocket* const server = dynamic_cast<KLVMsgServerSocket*>(socket)) {
        server->KLVMsgServerSocket::~KLVMsgServerSocket();
        mem_Free(server);
    }
}
