#include "KLVMsgSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "KLVMsgComm_IF.h"
#include "KLVMsgDepartures.h"
#include "KLVMsgResolvedAddress.h"
#include "KLVMsgSocketField.h"

using Lock = std::lock_guard<std::mutex>;
using Departures = KLVMsgDepartures<KLVMsgSocket, std::mutex, std::condition_variable>;

Departures& KLVMsgSocketDepartures = *new Departures;

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

KLVMsgSocket::KLVMsgSocket(unsigned char (*directions)(const KLVMsgSocket& socket))
    : m_directions(directions) {
    Startup();
}

void KLVMsgSocket::Close() {
    if (ClosesNow()) {
        CloseDescriptor(descriptor);
    }
}

// Marks the socket as closed. True when the descriptor is to be closed, false when that is left to
// the end of the last hold, or was done before: EBADF is stored then.
bool KLVMsgSocket::ClosesNow() {
    const Lock lock(KLVMsgSocketDepartures.Guard());
    if (IsAsClosed()) {
        Fail(EBADF);
        return false;
    }
    KLVMsgStore(closed, true);
    m_closedDescriptor = descriptor;
    m_directionsAtClose = m_directions == nullptr ? 0 : m_directions(*this);
    return KLVMsgSocketDepartures.ClosesNow(*this, descriptor);
}

bool KLVMsgSocket::HasClosed() {
    const Lock lock(KLVMsgSocketDepartures.Guard());
    return IsAsClosed();
}

// True when the fields that an application may change are as Close left them.
// Requires: the mutex is held.
bool KLVMsgSocket::IsAsClosed() const {
    return m_closedDescriptor != -1 && m_closedDescriptor == descriptor && KLVMsgLoad(closed) &&
           (m_directions == nullptr || m_directions(*this) == m_directionsAtClose);
}

void KLVMsgSocket::CloseDescriptor(int number) {
    if (close(number) == -1) {
        Fail(errno);
    }
}

bool KLVMsgSocket::FailsAsClosed() {
    if (!KLVMsgLoad(closed) || !HasClosed()) {
        return false;
    }
    Fail(EBADF);
    return true;
}

void KLVMsgSocket::PutIn(int number) {
    const Lock lock(KLVMsgSocketDepartures.Guard());
    m_closedDescriptor = -1;
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
