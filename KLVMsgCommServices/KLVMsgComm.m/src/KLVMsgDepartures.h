// For the library's own sources: when a socket is closed and destroyed that others work with.
//
// Whoever works with a socket holds it. One that is to be closed or destroyed meanwhile departs: it
// is closed and destroyed when its last hold ends. Whether there are holds and whether the socket
// departs is one number, so that each decision is one step that no other can come between:
//
//     0         at rest: nobody holds it, it is closed and destroyed at once
//     2n        held n times
//     2n + 1    held n times, and departing: who ends the last of them finds 3 and settles
//     1         departing and free: whoever settles comes first to it takes it by a hold
//
// The mutex guards what is in Departure beside that number, and the list of the departing sockets.
// It is not held while one is closed.
//
// `Socket` has the number and the rest in a Departure, see KLVMsgSocket. All types are parameters,
// so that a checker can put its own in their place and try every order in which threads can meet.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

template <class Socket, class Mutex, class Condition>
class KLVMsgDepartures {
public:
    using Lock = std::unique_lock<Mutex>;

    // Acquires, and Departs releases also where it finds nobody: of two threads one sees what the
    // other has marked, or that it is there.
    // Requires: the socket is registered and the registry locked, or the socket is held already.
    static void Begin(Socket& socket) {
        socket.m_departure.holds.fetch_add(oneHold, std::memory_order_acquire);
    }

    // True when Settle is to follow. The socket may be gone by then.
    [[nodiscard]] static bool End(Socket& socket) {
        return socket.m_departure.holds.fetch_sub(oneHold, std::memory_order_release) ==
               oneHold + departs;
    }

    // For what is done to a socket in one step with a decision of the next two.
    Mutex& Guard() { return m_mutex; }

    // True when the caller is to close the descriptor, false when that is left to the last hold's
    // end. Requires: the mutex is held, and the socket marked as closed.
    bool ClosesNow(Socket& socket, int descriptor) {
        // One that was put in while another waits for its close is closed without a wait.
        if (socket.m_departure.toClose != -1 || !Departs(socket)) {
            return true;
        }
        socket.m_departure.toClose = descriptor;
        return false;
    }

    // The same for destroying. Requires: the mutex is held, and nobody begins a hold who has none.
    bool DestroysNow(Socket& socket) {
        if (!Departs(socket)) {
            return true;
        }
        socket.m_departure.removed = true;
        return false;
    }

    // Closes and destroys what is free, by calling close(socket, descriptor) and destroy(socket).
    template <class Close, class Destroy>
    void Settle(Close close, Destroy destroy) {
        Lock lock(m_mutex);
        while (Socket* const socket = TakeFree()) {
            auto& departure = socket->m_departure;
            if (departure.toClose != -1) {
                const int descriptor = departure.toClose;
                lock.unlock();  // closing may take its time: applications can set SO_LINGER
                close(*socket, descriptor);
                lock.lock();
                departure.toClose = -1;
                departure.holds.fetch_sub(oneHold, std::memory_order_relaxed);
                m_closed.notify_all();
            } else {
                Remove(*socket);
                departure.holds.fetch_sub(oneHold + departs, std::memory_order_relaxed);
                if (departure.removed) {
                    destroy(socket);
                }
            }
        }
    }

    // Waits until no socket is left to be closed for which concerns(socket) is true, but not longer
    // than the limit.
    template <class Concerns>
    void AwaitClosed(std::chrono::milliseconds limit, Concerns concerns) {
        Lock lock(m_mutex);
        m_closed.wait_for(lock, limit, [&] {
            Socket* socket = m_departing;
            while (socket != nullptr && (socket->m_departure.toClose == -1 || !concerns(*socket))) {
                socket = socket->m_departure.next;
            }
            return socket == nullptr;
        });
    }

private:
    static constexpr unsigned departs = 1;
    static constexpr unsigned oneHold = 2;

    // Requires, all three: the mutex is held.

    // Marks the socket as departing if it is held, and tells whether it is marked.
    bool Departs(Socket& socket) {
        auto& departure = socket.m_departure;
        unsigned found = 0;
        while (!departure.holds.compare_exchange_strong(found, found == 0 ? 0 : found | departs,
                                                        std::memory_order_acq_rel,
                                                        std::memory_order_relaxed)) {
        }
        if (found != 0 && (found & departs) == 0) {
            departure.next = m_departing;
            m_departing = &socket;
        }
        return found != 0;
    }

    // A departing socket that nobody holds, held now; null when there is none.
    Socket* TakeFree() {
        for (Socket* socket = m_departing; socket != nullptr; socket = socket->m_departure.next) {
            unsigned found = departs;
            if (socket->m_departure.holds.compare_exchange_strong(found, departs + oneHold,
                                                                  std::memory_order_acquire,
                                                                  std::memory_order_relaxed)) {
                return socket;
            }
        }
        return nullptr;
    }

    void Remove(Socket& socket) {
        Socket** link = &m_departing;
        while (*link != &socket) {
            link = &(*link)->m_departure.next;
        }
        *link = socket.m_departure.next;
    }

    Mutex m_mutex;
    Condition m_closed;             // one of them has been closed
    Socket* m_departing = nullptr;  // the last one first
};

class KLVMsgSocket;

// Those of the library's sockets. Never destroyed: threads may still end their holds at exit.
extern KLVMsgDepartures<KLVMsgSocket, std::mutex, std::condition_variable>& KLVMsgSocketDepartures;
