#include "KLVMsgSocketHold.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "KLVMsgCommSocket.h"
#include "KLVMsgServerSocket.h"
#include "KLVMsgSocketField.h"
#include "KLVMsgSocketInternals.h"

std::atomic<int> KLVMsgSocketHold::s_departures{0};

static std::mutex mutex;

// The sockets that were held when they were closed or removed, the last one first.
static KLVMsgSocket* departing = nullptr;

// One of them has been closed or destroyed. Never destroyed: threads may still wait at exit.
static auto& departed = *new std::condition_variable;

using Lock = std::unique_lock<std::mutex>;

// Closing once ------------------------------------------------------------------------------------

// True when the fields that an application may change are as Close left them.
// Requires, as all do below that do not lock it themselves: the mutex is held.
bool KLVMsgSocketHold::IsUnchanged(KLVMsgSocket& socket) {
    const auto& left = socket.m_departure;
    const KLVMsgCommSocket* const stream = KLVMsgAsStreamSocket(&socket);
    return left.closed != -1 && left.closed == socket.descriptor && KLVMsgLoad(socket.closed) &&
           (stream == nullptr || (left.inputOpen == KLVMsgLoad(stream->inputOpen) &&
                                  left.outputOpen == KLVMsgLoad(stream->outputOpen)));
}

bool KLVMsgSocketHold::HasClosed(KLVMsgSocket& socket) {
    const Lock lock(mutex);
    return IsUnchanged(socket);
}

bool KLVMsgSocketHold::ClosesNow(KLVMsgSocket& socket) {
    const Lock lock(mutex);
    if (IsUnchanged(socket)) {
        KLVMsgStore(socket.lastError, EBADF);
        return false;
    }
    KLVMsgStore(socket.closed, true);
    auto& left = socket.m_departure;
    left.closed = socket.descriptor;
    if (const KLVMsgCommSocket* const stream = KLVMsgAsStreamSocket(&socket)) {
        left.inputOpen = KLVMsgLoad(stream->inputOpen);
        left.outputOpen = KLVMsgLoad(stream->outputOpen);
    }
    if (left.toClose != -1 || !Departs(socket)) {
        return true;
    }
    left.toClose = socket.descriptor;
    return false;
}

void KLVMsgSocketHold::Renew(KLVMsgSocket& socket) {
    const Lock lock(mutex);
    socket.m_departure.closed = -1;
}

// Removal -----------------------------------------------------------------------------------------

void KLVMsgSocketHold::Destroy(KLVMsgSocket* socket) {
    {
        const Lock lock(mutex);
        if (Departs(*socket)) {
            socket->m_departure.removed = true;
            return;
        }
    }
    KLVMsgDestroySocket(socket);
}

void KLVMsgSocketHold::AwaitClosedListeners() {
    if (s_departures.load() == 0) {
        return;
    }
    Lock lock(mutex);
    departed.wait_for(lock, std::chrono::seconds(1), [] {
        KLVMsgSocket* socket = departing;
        while (socket != nullptr &&
               (socket->m_departure.toClose == -1 || KLVMsgAsServerSocket(socket) == nullptr)) {
            socket = socket->m_departure.next;
        }
        return socket == nullptr;
    });
}

// The end of the last hold ------------------------------------------------------------------------

// In this order: the end of a wait begins the hold of a turn before it ends its own.
bool KLVMsgSocketHold::IsHeld(const KLVMsgSocket& socket) {
    return socket.m_departure.waits.load() != 0 || socket.m_departure.holds.load() != 0;
}

// Puts the socket among the departing ones if it is held, and tells whether it is there.
bool KLVMsgSocketHold::Departs(KLVMsgSocket& socket) {
    auto& departure = socket.m_departure;
    if (departure.departing) {
        return true;
    }
    s_departures.fetch_add(1);
    if (!IsHeld(socket)) {
        s_departures.fetch_sub(1);
        return false;
    }
    departure.departing = true;
    departure.next = departing;
    departing = &socket;
    return true;
}

// The first departing socket that is not held and that nobody is closing, or null.
KLVMsgSocket* KLVMsgSocketHold::FirstFree() {
    KLVMsgSocket* socket = departing;
    while (socket != nullptr && (socket->m_departure.closing || IsHeld(*socket))) {
        socket = socket->m_departure.next;
    }
    return socket;
}

void KLVMsgSocketHold::Remove(KLVMsgSocket& socket) {
    KLVMsgSocket** link = &departing;
    while (*link != &socket) {
        link = &(*link)->m_departure.next;
    }
    *link = socket.m_departure.next;
    socket.m_departure.departing = false;
    s_departures.fetch_sub(1);
}

// Closes and destroys what is free.
void KLVMsgSocketHold::Settle() {
    Lock lock(mutex);
    while (KLVMsgSocket* const socket = FirstFree()) {
        auto& departure = socket->m_departure;
        if (departure.toClose != -1) {
            departure.closing = true;  // nobody else closes or destroys it meanwhile
            const int descriptor = departure.toClose;
            lock.unlock();  // closing may take its time: applications can set SO_LINGER
            socket->CloseDescriptor(descriptor);
            lock.lock();
            departure.closing = false;
            departure.toClose = -1;
        } else {
            Remove(*socket);
            if (departure.removed) {
                KLVMsgDestroySocket(socket);
            }
        }
        departed.notify_all();
    }
}
