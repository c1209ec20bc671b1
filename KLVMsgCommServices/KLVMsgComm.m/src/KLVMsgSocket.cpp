#include "KLVMsgSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "KLVMsgComm_IF.h"
#include "KLVMsgResolvedAddress.h"
#include "KLVMsgSocketField.h"
#include "KLVMsgSocketHold.h"

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

KLVMsgSocket::Departure& KLVMsgSocket::Departure::operator=(const Departure& other) {
    closed = other.closed;
    inputOpen = other.inputOpen;
    outputOpen = other.outputOpen;
    return *this;
}

void KLVMsgSocket::Close() {
    if (KLVMsgSocketHold::ClosesNow(*this)) {
        CloseDescriptor(descriptor);
    }
}

void KLVMsgSocket::CloseDescriptor(int number) {
    if (close(number) == -1) {
        Fail(errno);
    }
}

bool KLVMsgSocket::FailsAsClosed() {
    if (!KLVMsgLoad(closed) || !KLVMsgSocketHold::HasClosed(*this)) {
        return false;
    }
    Fail(EBADF);
    return true;
}

void KLVMsgSocket::PutIn(int number) {
    KLVMsgSocketHold::Renew(*this);
    descriptor = number;
}

void KLVMsgSocket::Fail(int error) { KLVMsgStore(lastError, error); }

void KLVMsgSocket::BindLocalAddress(KLVMsgSocketAddress local) {
    KLVString service;  // first, since its memory may not be had
    if (local.port > 0) {
        service += local.port;
    }
    address = local;
    const char* const serviceText = local.port > 0 ? service.Text() : nullptr;
    KLVMsgResolvedAddress resolved = KLVMsgResolveAddress(local.host, serviceText);
    if (resolved == nullptr) {
        Fail(errno);
        return;
    }

    PutIn(socket(resolved->ai_family, resolved->ai_socktype, resolved->ai_protocol));
    const bool bound = bind(descriptor, resolved->ai_addr, resolved->ai_addrlen) == 0;
    const int error = errno;  // before the release, which may change it
    resolved.reset();
    if (!bound) {
        Fail(error);
        return;
    }
    KLVMsgStore(closed, false);
    // The option is set after the bind, so it does not affect this bind.
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);

    if (local.port <= 0) {
        const int port = BoundPort(descriptor);
        if (port == -1) {
            Fail(errno);
        } else {
            address.port = port;
        }
    }
}
