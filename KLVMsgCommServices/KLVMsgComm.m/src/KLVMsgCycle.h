// For the library's own sources: the sockets that a cycle works with, turn by turn.
//
// A cycle (a wait and the reads that follow it, or a transmission) looks its sockets up once and
// holds them, see KLVMsgSocketHold. While it works, their numbers are given to nobody else. It
// serves no connection that was registered later, and lets a socket go after its last turn.
#pragma once

#include <cstddef>
#include <vector>

#include "KLVMsgChannel.h"

class KLVMsgSocket;

// A channel, and the socket that stood under its number, or null.
struct KLVMsgTurn {
    KLVMsgSocket* socket;
    KLVMsgChannel channel;
    bool lost = false;  // the turn has found the connection removed
};

// The lists of a cycle, apart from it so that their memory serves the next one as well.
struct KLVMsgCycleLists {
    std::vector<KLVMsgTurn> watched;
    std::vector<KLVMsgTurn> turns;
};

class KLVMsgCycle {
public:
    // Requires: the lists are empty, and nobody else uses them as long as the cycle lives.
    explicit KLVMsgCycle(KLVMsgCycleLists& lists) : m_lists(lists) {}

    // Ends all holds that are left and empties the lists.
    ~KLVMsgCycle() {
        EndWatch();
        while (m_current < m_lists.turns.size()) {
            EndTurn();
        }
        m_lists.turns.clear();
    }

    KLVMsgCycle(const KLVMsgCycle&) = delete;
    KLVMsgCycle& operator=(const KLVMsgCycle&) = delete;

    // What a wait watches, held until EndWatch. A closed socket is passed over.
    // Requires, Watch: the registry's lock is held, and `socket` is not null.
    void Watch(KLVMsgSocket* socket, const KLVMsgChannel& channel);
    void EndWatch();
    const std::vector<KLVMsgTurn>& Watched() const { return m_lists.watched; }

    // Appends a turn and holds its socket, if there is one, until the turn is over.
    // Requires: the registry's lock is held, or the socket.
    void AddTurn(const KLVMsgTurn& turn);

    // All turns. Those that are not over yet may be put into another order.
    std::vector<KLVMsgTurn>& Turns() { return m_lists.turns; }

    // Takes out a turn that is not to come.
    void DropTurn(std::size_t turn);

    // The turn that is being taken.
    KLVMsgTurn& Current() { return m_lists.turns[m_current]; }

    // It is over: what was closed or removed during the turn is closed and destroyed now.
    void EndTurn();

private:
    KLVMsgCycleLists& m_lists;
    std::size_t m_current = 0;
};
