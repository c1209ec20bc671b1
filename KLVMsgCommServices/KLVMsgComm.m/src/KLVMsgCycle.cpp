#include "KLVMsgCycle.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>

#include "KLVMsgCommSocket.h"
#include "KLVMsgServerSocket.h"
#include "KLVMsgSocketField.h"
#include "KLVMsgSocketInternals.h"

static std::mutex mutex;

// The cycles at work, newest first.
static KLVMsgCycle* atWork = nullptr;

// The sockets that a cycle needed when they were closed or given up, and whether there are any. A
// cycle ends a turn and then looks whether anything departs; a socket that departs says so and then
// looks whether a cycle needs it. Both orders are sequentially consistent, so that one sees the other.
static KLVMsgSocket* departing = nullptr;
static std::atomic<bool> anyDeparting{false};
static std::condition_variable departed;

// The cycle that this thread works, the innermost one.
static thread_local KLVMsgCycle* innermost = nullptr;

// The memory of this thread's last lists, so that a cycle takes none that finds them long enough.
struct SpareLists {
    std::vector<KLVMsgSocket*> plan;
    std::vector<KLVMsgSocket*> list;
};
static thread_local SpareLists spare;

using Lock = std::unique_lock<std::mutex>;

// A cycle and its turns ---------------------------------------------------------------------------

KLVMsgCycle::KLVMsgCycle() : m_outer(innermost) { innermost = this; }

KLVMsgCycle::~KLVMsgCycle() {
    innermost = m_outer;
    if (!m_atWork) {
        return;
    }
    {
        const Lock lock(mutex);
        KLVMsgCycle** link = &atWork;
        while (*link != this) {
            link = &(*link)->m_next;
        }
        *link = m_next;
    }
    Settle();
    if (m_plan.capacity() != 0) {
        spare.plan.swap(m_plan);
        spare.list.swap(m_list);
    }
}

std::vector<KLVMsgSocket*>& KLVMsgCycle::Plan() {
    if (m_plan.capacity() == 0) {
        m_plan.swap(spare.plan);
        m_list.swap(spare.list);
    }
    m_plan.clear();
    return m_plan;
}

void KLVMsgCycle::Hold() {
    const bool heldBefore = m_count != 0;
    {
        const Lock lock(mutex);
        m_list.swap(m_plan);
        Enter(m_list.data(), m_list.size());
    }
    if (heldBefore) {
        Settle();
    }
}

void KLVMsgCycle::Hold(KLVMsgSocket* socket) {
    m_single = socket;
    for (const KLVMsgCycle* cycle = m_outer; cycle != nullptr; cycle = cycle->m_outer) {
        if (cycle->Needs(socket)) {
            return;
        }
    }
    if (socket != nullptr) {
        const Lock lock(mutex);
        Enter(&m_single, 1);
    }
}

void KLVMsgCycle::EndTurn() {
    m_turn.store(m_turn.load(std::memory_order_relaxed) + 1);
    if (anyDeparting) {
        Settle();
    }
}

// Requires, as all below do that do not lock it themselves: the mutex is held.
void KLVMsgCycle::Enter(KLVMsgSocket* const* turns, std::size_t count) {
    m_turns = turns;
    m_count = count;
    m_turn = 0;
    if (!m_atWork) {
        m_next = atWork;
        atWork = this;
        m_atWork = true;
    }
}

// Also called without the mutex, by the cycle's own thread.
bool KLVMsgCycle::Needs(const KLVMsgSocket* socket) const {
    const std::size_t turn = std::min(m_turn.load(), m_count);
    return std::find(m_turns + turn, m_turns + m_count, socket) != m_turns + m_count;
}

bool KLVMsgCycle::IsOfThisThread() const {
    const KLVMsgCycle* cycle = innermost;
    while (cycle != nullptr && cycle != this) {
        cycle = cycle->m_outer;
    }
    return cycle != nullptr;
}

// Sockets -----------------------------------------------------------------------------------------

// True when the fields that applications may change are as Close left them.
static bool IsUnchanged(KLVMsgSocket& socket, int descriptor, bool inputOpen, bool outputOpen) {
    const KLVMsgCommSocket* const stream = KLVMsgAsStreamSocket(&socket);
    return socket.descriptor == descriptor && KLVMsgLoad(socket.closed) &&
           (stream == nullptr || (KLVMsgLoad(stream->inputOpen) == inputOpen &&
                                  KLVMsgLoad(stream->outputOpen) == outputOpen));
}

bool KLVMsgCycle::HasClosed(KLVMsgSocket& socket) {
    const Lock lock(mutex);
    const auto& was = socket.m_departure;
    return was.closed != -1 &&
           IsUnchanged(socket, was.closed, was.inputOpen, was.outputOpen);
}

bool KLVMsgCycle::ClosesNow(KLVMsgSocket& socket) {
    const Lock lock(mutex);
    auto& departure = socket.m_departure;
    if (departure.closed != -1 && IsUnchanged(socket, departure.closed, departure.inputOpen,
                                              departure.outputOpen)) {
        KLVMsgStore(socket.lastError, EBADF);
        return false;
    }
    KLVMsgStore(socket.closed, true);
    departure.closed = socket.descriptor;
    if (const KLVMsgCommSocket* const stream = KLVMsgAsStreamSocket(&socket)) {
        departure.inputOpen = KLVMsgLoad(stream->inputOpen);
        departure.outputOpen = KLVMsgLoad(stream->outputOpen);
    }
    if (departure.toClose != -1 || !Departs(socket)) {
        return true;
    }
    departure.toClose = socket.descriptor;
    return false;
}

void KLVMsgCycle::Renew(KLVMsgSocket& socket) {
    const Lock lock(mutex);
    socket.m_departure.closed = -1;
}

void KLVMsgCycle::Destroy(KLVMsgSocket* socket) {
    {
        const Lock lock(mutex);
        if (Departs(*socket)) {
            socket->m_departure.destroyed = true;
            return;
        }
    }
    KLVMsgDestroySocket(socket);
}

void KLVMsgCycle::DestroyReplaced(KLVMsgSocket* socket) {
    if (socket == nullptr) {
        return;
    }
    {
        const Lock lock(mutex);
        socket->m_departure.toClose = -1;
    }
    Destroy(socket);
}

void KLVMsgCycle::AwaitClosedListeners() {
    if (!anyDeparting) {
        return;
    }
    Lock lock(mutex);
    departed.wait(lock, [] {
        KLVMsgSocket* socket = departing;
        while (socket != nullptr && !KeepsAPort(socket)) {
            socket = socket->m_departure.next;
        }
        return socket == nullptr;
    });
}

bool KLVMsgCycle::IsNeeded(const KLVMsgSocket* socket) {
    const KLVMsgCycle* cycle = atWork;
    while (cycle != nullptr && !cycle->Needs(socket)) {
        cycle = cycle->m_next;
    }
    return cycle != nullptr;
}

// True for a listening socket that another thread has still to close. What this thread's own cycles
// hold is not worth waiting for.
bool KLVMsgCycle::KeepsAPort(KLVMsgSocket* socket) {
    if (socket->m_departure.toClose == -1 || KLVMsgAsServerSocket(socket) == nullptr) {
        return false;
    }
    const KLVMsgCycle* cycle = atWork;
    while (cycle != nullptr && !(cycle->Needs(socket) && cycle->IsOfThisThread())) {
        cycle = cycle->m_next;
    }
    return cycle == nullptr;
}

// Puts the socket among the departing ones if a cycle needs it; false if none does.
bool KLVMsgCycle::Departs(KLVMsgSocket& socket) {
    auto& departure = socket.m_departure;
    if (departure.departing) {
        return true;
    }
    anyDeparting = true;
    if (!IsNeeded(&socket)) {
        anyDeparting = departing != nullptr;
        return false;
    }
    departure.departing = true;
    departure.next = departing;
    departing = &socket;
    return true;
}

// The first departing socket that no cycle needs and nobody is closing, or null.
KLVMsgSocket* KLVMsgCycle::FirstFree() {
    KLVMsgSocket* socket = departing;
    while (socket != nullptr && (socket->m_departure.closing || IsNeeded(socket))) {
        socket = socket->m_departure.next;
    }
    return socket;
}

void KLVMsgCycle::Remove(KLVMsgSocket* socket) {
    KLVMsgSocket** link = &departing;
    while (*link != socket) {
        link = &(*link)->m_departure.next;
    }
    *link = socket->m_departure.next;
    socket->m_departure.departing = false;
    anyDeparting = departing != nullptr;
}

// Takes the mutex itself: closes and destroys what is free.
void KLVMsgCycle::Settle() {
    if (!anyDeparting) {
        return;
    }
    Lock lock(mutex);
    while (KLVMsgSocket* const socket = FirstFree()) {
        auto& departure = socket->m_departure;
        if (departure.toClose != -1) {
            departure.closing = true;  // nobody else closes or destroys it meanwhile
            const int descriptor = departure.toClose;
            lock.unlock();  // an application may have made closing wait for what is unsent
            socket->CloseDescriptor(descriptor);
            lock.lock();
            departure.closing = false;
            departure.toClose = -1;
        } else {
            Remove(socket);
            if (departure.destroyed) {
                KLVMsgDestroySocket(socket);
            }
        }
        departed.notify_all();
    }
}
