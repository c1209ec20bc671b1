#include "KLVMsgCommSocket.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>

#include "KLVMsgConnectionLost.h"
#include "KLVMsgResolvedAddress.h"
#include "KLVMsgSocketField.h"

// Closing resets the connection at once instead of draining it.
static const linger resetOnClose = {1, 0};

KLVMsgCommSocket::KLVMsgCommSocket(KLVMsgSocketAddress) : KLVMsgSocket(&Directions) {}

unsigned char KLVMsgCommSocket::Directions(const KLVMsgSocket& socket) {
    const auto& stream = static_cast<const KLVMsgCommSocket&>(socket);
    return static_cast<unsigned char>((KLVMsgLoad(stream.inputOpen) ? 1 : 0) |
                                      (KLVMsgLoad(stream.outputOpen) ? 2 : 0));
}

void KLVMsgCommSocket::Connect(KLVMsgSocketAddress peer) {
    KLVString service;  // first, since its memory may not be had
    service += peer.port;
    if (KLVMsgLoad(inputOpen) || KLVMsgLoad(outputOpen)) {
        Shutdown();
        PutIn(-1);
        SetDirections(false);
        KLVMsgStore(closed, true);
    }
    const KLVMsgResolvedAddress resolved = KLVMsgResolveAddress(peer.host, service.Text());
    if (resolved == nullptr) {
        Fail(errno);
        return;
    }

    PutIn(socket(resolved->ai_family, resolved->ai_socktype, resolved->ai_protocol));
    if (connect(descriptor, resolved->ai_addr, resolved->ai_addrlen) == -1) {
        Fail(errno);
        return;
    }
    KLVMsgStore(closed, false);
    if (setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &resetOnClose, sizeof resetOnClose) == -1) {
        Fail(errno);
        return;
    }
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    SetDirections(true);
}

void KLVMsgCommSocket::TakeOver(int connected) {
    PutIn(connected);
    KLVMsgStore(closed, false);
    SetDirections(true);
}

void KLVMsgCommSocket::SetDirections(bool open) {
    KLVMsgStore(inputOpen, open);
    KLVMsgStore(outputOpen, open);
}

int KLVMsgCommSocket::write(const char* data, int length) {
    if (!KLVMsgLoad(outputOpen) || length < 0 || FailsAsClosed()) {
        return -1;
    }
    const ssize_t sent = send(descriptor, data, static_cast<std::size_t>(length), 0);
    if (sent == -1) {
        FailAndShutDownWhenLost(errno);
        return -1;
    }
    return static_cast<int>(sent);
}

int KLVMsgCommSocket::read(char* buffer, int length) {
    if (!KLVMsgLoad(inputOpen) || length < 0 || FailsAsClosed()) {
        return -1;
    }
    const ssize_t received = recv(descriptor, buffer, static_cast<std::size_t>(length), 0);
    if (received == 0) {
        Shutdown();
        return 0;
    }
    if (received == -1) {
        FailAndShutDownWhenLost(errno);
        return -1;
    }
    return static_cast<int>(received);
}

bool KLVMsgCommSocket::IsConnected() {
    return descriptor != -1 && !KLVMsgLoad(closed) &&
           (KLVMsgLoad(outputOpen) || KLVMsgLoad(inputOpen));
}

void KLVMsgCommSocket::ShutDownInput() { ShutDownDirection(inputOpen, SHUT_RD); }

void KLVMsgCommSocket::ShutDownOutput() { ShutDownDirection(outputOpen, SHUT_WR); }

void KLVMsgCommSocket::Shutdown() {
    ShutDownInput();
    ShutDownOutput();
    Close();
}

void KLVMsgCommSocket::ShutDownDirection(bool& open, int how) {
    if (!KLVMsgLoad(open) || descriptor == -1 || FailsAsClosed()) {
        return;
    }
    if (shutdown(descriptor, how) == -1 && !KLVMsgIsConnectionLost(errno)) {
        Fail(errno);
        return;
    }
    KLVMsgStore(open, false);
}

void KLVMsgCommSocket::FailAndShutDownWhenLost(int error) {
    Fail(error);
    if (KLVMsgIsConnectionLost(error)) {
        Shutdown();
    }
}
