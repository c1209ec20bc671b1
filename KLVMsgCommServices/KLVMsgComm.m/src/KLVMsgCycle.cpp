#include "KLVMsgCycle.h"

#include "KLVMsgSocketField.h"
#include "KLVMsgSocketHold.h"

void KLVMsgCycle::Watch(KLVMsgSocket* socket, const KLVMsgChannel& channel) {
    m_lists.watched.push_back({socket, channel});
    KLVMsgSocketHold::Begin(*socket);
    if (KLVMsgLoad(socket->closed)) {  // only now: until it was held it could be closed at any time
        m_lists.watched.pop_back();
        KLVMsgSocketHold::End(*socket);
    }
}

void KLVMsgCycle::EndWatch() {
    for (const KLVMsgTurn& watched : m_lists.watched) {
        KLVMsgSocketHold::End(*watched.socket);
    }
    m_lists.watched.clear();
}

void KLVMsgCycle::AddTurn(const KLVMsgTurn& turn) {
    m_lists.turns.push_back(turn);
    if (turn.socket != nullptr) {
        KLVMsgSocketHold::Begin(*turn.socket);
    }
}

void KLVMsgCycle::EndTurn() {
    KLVMsgSocket* const socket = m_lists.turns[m_current++].socket;
    if (socket != nullptr) {
        KLVMsgSocketHold::End(*socket);
    }
}

void KLVMsgCycle::DropTurn(std::size_t turn) {
    KLVMsgSocket* const socket = m_lists.turns[turn].socket;
    m_lists.turns.erase(m_lists.turns.begin() + static_cast<std::ptrdiff_t>(turn));
    KLVMsgSocketHold::End(*socket);
}
