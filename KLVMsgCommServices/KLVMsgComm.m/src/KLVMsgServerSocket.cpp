#include "KLVMsgServerSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "KLVMsgCommSocket.h"
#include "KLVMsgSocketInternals.h"

KLVMsgServerSocket::KLVMsgServerSocket(KLVMsgSocketAddress local, int backlog) {
    if (closed) {
        BindLocalAddress(local);
    }
    if (listen(descriptor, backlog) == -1) {
        lastError = errno;
    }
}

KLVMsgCommSocket* KLVMsgServerSocket::Accept() {
    sockaddr_storage peer;
    socklen_t length = sizeof peer;
    const int accepted = accept(descriptor, reinterpret_cast<sockaddr*>(&peer), &length);
    if (accepted == -1) {
        lastError = errno;
        if (KLVMsgIsConnectionLost(lastError)) {
            Shutdown();
        }
        return nullptr;
    }
    KLVMsgCommSocket* connection = nullptr;
    try {
        connection = new KLVMsgCommSocket(address);
    } catch (...) {
        close(accepted);  // nobody else knows of it
        throw;
    }
    connection->descriptor = accepted;
    connection->closed = false;
    connection->inputOpen = true;
    connection->outputOpen = true;
    return connection;
}

void KLVMsgServerSocket::Shutdown() {
    if (descriptor != -1 && shutdown(descriptor, SHUT_RDWR) == -1 &&
        !KLVMsgIsConnectionLost(errno)) {
        lastError = errno;
    }
    Close();
}
