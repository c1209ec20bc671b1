// For applications and the library's own sources: what every socket has.
//
// Invariants:
// - A socket holds no lock. Registered ones are used under the registry's lock; a caller that uses
//   one directly sees to it that nobody else does at the same time.
// - Operations report nothing. A failing system call leaves its errno in `lastError`, except one
//   that sets SO_REUSEADDR or SO_KEEPALIVE, or ends a direction of a lost connection. A socket
//   overwrites `lastError` and never clears it.
// - Shutdown closes the descriptor, a destructor never does.
// - A socket closes a descriptor once. From then on its number may be somebody else's: an operation
//   that would still use it makes no system call and fails with EBADF. A caller who then changes
//   `descriptor`, `closed` or a direction flag has put in a new one, which the socket owns.
#pragma once

#include <atomic>

#include "KLVMsgExport.h"
#include "KLVMsgSocketAddress.h"
#include "mem_AllocationOperators.h"

// Base of the stream and the listening socket: one TCP descriptor. There is no virtual destructor;
// a socket is destroyed as what it is.
class KLVMSG_EXPORT KLVMsgSocket : public mem_AllocationOperators {
public:
    KLVMsgSocket();

    // Ends the socket's work and closes its descriptor (shutdown, close).
    virtual void Shutdown() = 0;

    // Closes the descriptor (close) and marks the socket as closed. The number stays in
    // `descriptor`. While the communicator, a wait or a stream works with the registered socket, on
    // whichever thread, only the mark is set. The descriptor is closed when they are done with it:
    // no other connection can be given its number before that.
    void Close();

    // Stores `local`, makes the descriptor (socket) and binds it (getaddrinfo, bind) to the first
    // address that the host resolves to. With a port of 0 or less the system's choice is stored in
    // `address.port` (getsockname). On failure the socket stays marked as closed; a descriptor that
    // was made stays open. Where the host does not resolve, `lastError` is whatever the resolver
    // left in errno.
    // Requires: the socket has no descriptor.
    void BindLocalAddress(KLVMsgSocketAddress local);

    KLVMsgSocketAddress address;  // where it is bound to, or was to be
    int descriptor = -1;          // -1 when there is none
    int lastError = 0;            // errno of the last failure, 0 when there was none
    bool closed = true;           // false from bind, connect or accept until Close

protected:
    // For a class with direction flags: `directions` gives them as a number, so that the socket can
    // tell whether one was changed since it closed its descriptor.
    explicit KLVMsgSocket(unsigned char (*directions)(const KLVMsgSocket& socket));

    ~KLVMsgSocket() = default;

    // Puts a descriptor in, or -1, which the socket owns from now on.
    void PutIn(int number);

    // True when the descriptor has been closed by this socket; stores EBADF then.
    bool FailsAsClosed();

    // Stores an errno in `lastError`.
    void Fail(int error);

private:
    friend class KLVMsgSocketHold;
    template <class Socket, class Mutex, class Condition>
    friend class KLVMsgDepartures;

    // How many work with the socket, and what is to be done when they are through. A copy of a
    // socket is held by nobody.
    struct Departure {
        Departure() = default;
        Departure(const Departure&) {}
        Departure& operator=(const Departure&) { return *this; }

        std::atomic<unsigned> holds{0};  // twice their number, and one more when the socket departs
        int toClose = -1;                // the descriptor to be closed, -1: none
        bool removed = false;            // to be destroyed
        KLVMsgSocket* next = nullptr;    // departing, too
    };

    bool ClosesNow();
    [[gnu::cold]] bool HasClosed();
    bool IsAsClosed() const;
    void CloseDescriptor(int number);

    unsigned char m_directionsAtClose = 0;
    int m_closedDescriptor = -1;  // the one that Close has closed, -1: none
    unsigned char (*m_directions)(const KLVMsgSocket& socket) = nullptr;  // null: it has none
    Departure m_departure;
};
