// For the library's own sources: what a cycle at work keeps from being closed.
//
// A connection number is a descriptor: once closed, it is the next one that the system gives away.
// So a cycle (a wait and the reads that follow it, a transmission, one transfer of a header or a
// body outside these) holds the sockets that it is going to use. One that is closed meanwhile is
// marked as closed at once, one that is removed leaves the registry at once; the descriptor is
// closed, and the object destroyed, when no cycle needs it any more.
//
// Invariants:
// - A cycle lives on the stack of the thread that works it. Several may work at once.
// - One mutex guards the list of cycles, their turns, and what KLVMsgSocket::m_departure holds. It is
//   the last lock that a thread takes, and not held while anything is closed.
#pragma once

#include <atomic>
#include <cstddef>
#include <vector>

class KLVMsgSocket;

class KLVMsgCycle {
public:
    KLVMsgCycle();

    // Ends the turns that are left.
    ~KLVMsgCycle();

    KLVMsgCycle(const KLVMsgCycle&) = delete;
    KLVMsgCycle& operator=(const KLVMsgCycle&) = delete;

    // An empty list for the sockets of turns to come, one each in their order, null where there is
    // none. Valid until Hold.
    std::vector<KLVMsgSocket*>& Plan();

    // Holds the sockets of that list, each until the end of its last turn. Those that were held
    // before and are not among them are let go of.
    // Requires: each is held by this cycle already, or registered and the registry's lock held.
    void Hold();

    // Holds one socket for one turn, or none if it is null; the cycle has held nothing before. Takes
    // no lock when an outer cycle of the thread holds the socket already.
    void Hold(KLVMsgSocket* socket);

    // The socket of a turn, or null.
    KLVMsgSocket* Socket(std::size_t turn) const { return m_turns[turn]; }

    // The socket of the turn that it is, or null.
    KLVMsgSocket* Current() const { return m_turns[m_turn.load(std::memory_order_relaxed)]; }

    // The current turn is over: what was only waiting for it is closed and destroyed now.
    void EndTurn();

    // For sockets ---------------------------------------------------------------------------------

    // True when `socket` has closed what its `descriptor` says, and nothing that Close left has been
    // changed since: the number may be somebody else's by now.
    static bool HasClosed(KLVMsgSocket& socket);

    // Marks `socket` as closed. True when the caller is to close the descriptor, false when that is
    // left to the last cycle that needs it, or was done before, which stores EBADF.
    static bool ClosesNow(KLVMsgSocket& socket);

    // Another descriptor has been put into `socket`, which owns it.
    static void Renew(KLVMsgSocket& socket);

    // For the registry ----------------------------------------------------------------------------

    // Destroys a socket that is no longer registered, now or when no cycle needs it any more.
    static void Destroy(KLVMsgSocket* socket);

    // The same for one whose number the system has given to somebody else: it is never closed. Null
    // is ignored.
    static void DestroyReplaced(KLVMsgSocket* socket);

    // Waits until listening sockets that were shut down are closed. Waits of other threads hold them
    // until they have woken up, and the port with them.
    // Requires: the registry's lock is not held.
    static void AwaitClosedListeners();

private:
    bool Needs(const KLVMsgSocket* socket) const;
    void Enter(KLVMsgSocket* const* turns, std::size_t count);
    bool IsOfThisThread() const;
    static bool IsNeeded(const KLVMsgSocket* socket);
    static bool KeepsAPort(KLVMsgSocket* socket);
    static bool Departs(KLVMsgSocket& socket);
    static KLVMsgSocket* FirstFree();
    static void Remove(KLVMsgSocket* socket);
    static void Settle();

    std::vector<KLVMsgSocket*> m_plan;         // the turns to come
    std::vector<KLVMsgSocket*> m_list;         // the sockets of the turns; if it is only one turn,
    KLVMsgSocket* m_single = nullptr;          // its socket
    KLVMsgSocket* const* m_turns = &m_single;  // whichever of the two it is
    std::size_t m_count = 0;                   // how many turns there are
    std::atomic<std::size_t> m_turn{0};        // the current one; those before it are over
    KLVMsgCycle* const m_outer;                // this thread's cycle in whose turn this one works
    KLVMsgCycle* m_next = nullptr;             // in the list of cycles at work
    bool m_atWork = false;                     // it is in that list
};
