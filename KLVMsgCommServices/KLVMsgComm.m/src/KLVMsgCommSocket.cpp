#include "KLVMsgCommSocket.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>

#include "KLVMsgResolvedAddress.h"
#include "KLVMsgSocketInternals.h"

// Closing resets the connection at once instead of draining it.
static const linger resetOnClose = {1, 0};

KLVMsgCommSocket::KLVMsgCommSocket(KLVMsgSocketAddress) {}

void KLVMsgCommSocket::Connect(KLVMsgSocketAddress peer) {
    KLVString service;  // first, since its memory may not be had
    service += peer.port;
    if (inputOpen || outputOpen) {
        Shutdown();
        descriptor = -1;
        inputOpen = false;
        outputOpen = false;
        closed = true;
    }
    const KLVMsgResolvedAddress resolved = KLVMsgResolveAddress(peer.host, service.Text());
    if (resolved == nullptr) {
        lastError = errno;
        return;
    }

    descriptor = socket(resolved->ai_family, resolved->ai_socktype, resolved->ai_protocol);
    if (connect(descriptor, resolved->ai_addr, resolved->ai_addrlen) == -1) {
        lastError = errno;
        return;
    }
    closed = false;
    if (setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &resetOnClose, sizeof resetOnClose) == -1) {
        lastError = errno;
        return;
    }
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    inputOpen = true;
    outputOpen = true;
}

int KLVMsgCommSocket::write(const char* data, int length) {
    if (!outputOpen || length < 0) {
        return -1;
    }
    const ssize_t sent = send(descriptor, data, static_cast<std::size_t>(length), 0);
    if (sent == -1) {
        lastError = errno;
        ShutDownWhenLost(lastError);
        return -1;
    }
    return static_cast<int>(sent);
}

int KLVMsgCommSocket::read(char* buffer, int length) {
    if (!inputOpen || length < 0) {
        return -1;
    }
    const ssize_t received = recv(descriptor, buffer, static_cast<std::size_t>(length), 0);
    if (received == 0) {
        Shutdown();
        return 0;
    }
    if (received == -1) {
        lastError = errno;
        ShutDownWhenLost(lastError);
        return -1;
    }
    return static_cast<int>(received);
}

bool KLVMsgCommSocket::IsConnected() {
    return descriptor != -1 && !closed && (outputOpen || inputOpen);
}

void KLVMsgCommSocket::ShutDownInput() { ShutDownDirection(inputOpen, SHUT_RD); }

void KLVMsgCommSocket::ShutDownOutput() { ShutDownDirection(outputOpen, SHUT_WR); }

void KLVMsgCommSocket::Shutdown() {
    ShutDownInput();
    ShutDownOutput();
    Close();
}

void KLVMsgCommSocket::ShutDownDirection(bool& open, int how) {
    if (!open || descriptor == -1) {
        return;
    }
    if (shutdown(descriptor, how) == -1 && !KLVMsgIsConnectionLost(errno)) {
        lastError = errno;
        return;
    }
    open = false;
}

void KLVMsgCommSocket::ShutDownWhenLost(int error) {
    if (KLVMsgIsConnectionLost(error)) {
        Shutdown();
    }
}
