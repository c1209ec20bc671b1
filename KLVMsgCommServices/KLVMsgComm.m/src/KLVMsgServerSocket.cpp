#include "KLVMsgServerSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "KLVMsgCommSocket.h"
#include "KLVMsgConnectionLost.h"

KLVMsgServerSocket::KLVMsgServerSocket(KLVMsgSocketAddress local, int backlog) {
    if (closed) {
        BindLocalAddress(local);
    }
    if (listen(descriptor, backlog) == -1) {
        Fail(errno);
    }
}

KLVMsgCommSocket* KLVMsgServerSocket::Accept() {
    if (FailsAsClosed()) {
        return nullptr;
    }
    sockaddr_storage peer;
    socklen_t length = sizeof peer;
    const int accepted = accept(descriptor, reinterpret_cast<sockaddr*>(&peer), &length);
    if (accepted == -1) {
        const int error = errno;
        Fail(error);
        if (KLVMsgIsConnectionLost(error)) {
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
    connection->TakeOver(accepted);
    return connection;
}

void KLVMsgServerSocket::Shutdown() {
    if (descriptor != -1 && !FailsAsClosed() && shutdown(descriptor, SHUT_RDWR) == -1 &&
        !KLVMsgIsConnectionLost(errno)) {
        Fail(errno);
    }
    Close();
}
