#include "KLVMsgSession.h"

#include <cerrno>

#include "KLVMsgSessionCore.h"

KLVMsgSession::KLVMsgSession(const KLVMsgSessionOptions& options)
    : m_core(std::make_unique<KLVMsgSessionCore>(options)) {}

KLVMsgSession::~KLVMsgSession() {
    // In a child the thread is not there, and the mutex may be held for ever: it is all the
    // parent's.
    if (m_core->IsInChild()) {
        static_cast<void>(m_core.release());
    }
}

KLVMsgOutcome KLVMsgSession::NoMessage() {
    return {KLVMsgOutcome::kFailed, EINVAL, "there is no message"};
}

KLVMsgOutcome KLVMsgSession::RegisterPrototype(std::unique_ptr<KLVMsgSocketMessage> prototype,
                                               const std::type_info& type,
                                               const KLVMsgFramedMessage* framed) {
    return m_core->Register(std::move(prototype), type, framed);
}

KLVMsgOutcome KLVMsgSession::Serve(const KLVMsgSocketAddress& address, int* port) {
    return m_core->Serve(address, port, nullptr);
}

KLVMsgOutcome KLVMsgSession::Serve(const KLVMsgSocketAddress& address, int* port,
                                   const KLVMsgProtection& protection) {
    return m_core->Serve(address, port, protection.m_transports);
}

KLVMsgOutcome KLVMsgSession::StopServing(int port) { return m_core->StopServing(port); }

KLVMsgOutcome KLVMsgSession::Connect(const KLVMsgSocketAddress& address, const std::string& label,
                                     KLVMsgTimeLimit limit) {
    return m_core->Connect(address, label, limit.Deadline(), nullptr);
}

KLVMsgOutcome KLVMsgSession::Connect(const KLVMsgSocketAddress& address, const std::string& label,
                                     KLVMsgTimeLimit limit, const KLVMsgProtection& protection) {
    return m_core->Connect(address, label, limit.Deadline(), protection.m_transports);
}

KLVMsgOutcome KLVMsgSession::ConnectAgain(const KLVMsgSocketAddress& address,
                                          const std::string& label, KLVMsgTimeLimit limit) {
    return m_core->ConnectAgain(address, label, limit.Deadline(), nullptr);
}

KLVMsgOutcome KLVMsgSession::ConnectAgain(const KLVMsgSocketAddress& address,
                                          const std::string& label, KLVMsgTimeLimit limit,
                                          const KLVMsgProtection& protection) {
    return m_core->ConnectAgain(address, label, limit.Deadline(), protection.m_transports);
}

KLVMsgOutcome KLVMsgSession::Start() { return m_core->Start(); }

KLVMsgOutcome KLVMsgSession::PostMessage(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                                         const KLVMsgFramedMessage* framed) {
    return m_core->Post(to, message, framed);
}

KLVMsgOutcome KLVMsgSession::SendMessage(const KLVMsgPeers& to, KLVMsgSocketMessage& message,
                                         const KLVMsgFramedMessage* framed, KLVMsgTimeLimit limit) {
    return m_core->Send(to, message, framed, limit);
}

KLVMsgReceived<KLVMsgSocketMessage> KLVMsgSession::ReceiveOne(const Wanted& wanted) {
    return m_core->ReceiveOne(wanted);
}

KLVMsgSession::Found KLVMsgSession::ReceiveMany(const Wanted& wanted) {
    return m_core->ReceiveMany(wanted);
}

int KLVMsgSession::Descriptor() { return m_core->Descriptor(); }

KLVMsgOutcome KLVMsgSession::SetLabel(KLVMsgPeer peer, const std::string& label) {
    return m_core->SetLabel(peer, label);
}

std::vector<KLVMsgPeer> KLVMsgSession::Peers(const KLVMsgPeers& meant) {
    return m_core->Peers(meant);
}

KLVMsgOutcome KLVMsgSession::Disconnect(const KLVMsgPeers& meant) {
    return m_core->Disconnect(meant);
}

KLVMsgOutcome KLVMsgSession::WaitUntilGone(const KLVMsgPeers& meant, KLVMsgTimeLimit limit) {
    return m_core->WaitUntilGone(meant, limit);
}

KLVMsgEvent KLVMsgSession::NextEvent(KLVMsgTimeLimit limit) { return m_core->NextEvent(limit); }

KLVMsgCounts KLVMsgSession::Counts(const KLVMsgPeers& meant) { return m_core->Counts(meant); }

KLVMsgCounts KLVMsgSession::Counts() { return m_core->Counts(); }

KLVMsgOutcome KLVMsgSession::End(KLVMsgTimeLimit limit) { return m_core->End(limit); }
