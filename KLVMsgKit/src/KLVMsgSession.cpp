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

// For programs that were built before there were questions.
KLVMsgOutcome KLVMsgSession::RegisterPrototype(std::unique_ptr<KLVMsgSocketMessage> prototype,
                                               const std::type_info& type,
                                               const KLVMsgFramedMessage* framed) {
    return m_core->Register(std::move(prototype), type, framed, false);
}

KLVMsgOutcome KLVMsgSession::RegisterPrototype(std::unique_ptr<KLVMsgSocketMessage> prototype,
                                               const std::type_info& type,
                                               const KLVMsgFramedMessage* framed, bool isCall) {
    return m_core->Register(std::move(prototype), type, framed, isCall);
}

KLVMsgOutcome KLVMsgSession::RegisterOthers() { return m_core->RegisterOthers(); }

KLVMsgOutcome KLVMsgSession::Observe(std::function<void(const KLVMsgEvent&)> function) {
    return m_core->Observe(std::move(function));
}

KLVMsgOutcome KLVMsgSession::Serve(const KLVMsgSocketAddress& address, int* port) {
    return m_core->Serve(address, nullptr, port, nullptr);
}

KLVMsgOutcome KLVMsgSession::Serve(const KLVMsgSocketAddress& address, KLVMsgAdmit admit,
                                   int* port) {
    return m_core->Serve(address, std::move(admit), port, nullptr);
}

KLVMsgOutcome KLVMsgSession::Serve(const KLVMsgSocketAddress& address, KLVMsgAdmit admit, int* port,
                                   const KLVMsgProtection& protection) {
    return m_core->Serve(address, std::move(admit), port, protection.m_transports);
}

KLVMsgOutcome KLVMsgSession::StopServing(int port) { return m_core->StopServing(port); }

KLVMsgOutcome KLVMsgSession::Connect(const KLVMsgSocketAddress& address, const std::string& label,
                                     KLVMsgTimeLimit limit) {
    return m_core->Connect(address, label, limit.Deadline(), nullptr, nullptr);
}

KLVMsgOutcome KLVMsgSession::Connect(const KLVMsgSocketAddress& address, const std::string& label,
                                     KLVMsgTimeLimit limit, KLVMsgPeer& made) {
    return m_core->Connect(address, label, limit.Deadline(), &made, nullptr);
}

KLVMsgOutcome KLVMsgSession::Connect(const KLVMsgSocketAddress& address, const std::string& label,
                                     KLVMsgTimeLimit limit, const KLVMsgProtection& protection) {
    return m_core->Connect(address, label, limit.Deadline(), nullptr, protection.m_transports);
}

KLVMsgOutcome KLVMsgSession::ConnectAgain(const KLVMsgSocketAddress& address,
                                          const std::string& label, KLVMsgTimeLimit limit) {
    return m_core->ConnectAgain(address, label, limit.Deadline(), nullptr, nullptr);
}

KLVMsgOutcome KLVMsgSession::ConnectAgain(const KLVMsgSocketAddress& address,
                                          const std::string& label, KLVMsgTimeLimit limit,
                                          const KLVMsgProtection& protection) {
    return m_core->ConnectAgain(address, label, limit.Deadline(), nullptr, protection.m_transports);
}

KLVMsgOutcome KLVMsgSession::ConnectAgain(const KLVMsgSocketAddress& address,
                                          const std::string& label, KLVMsgTimeLimit limit,
                                          KLVMsgPeer& made) {
    return m_core->ConnectAgain(address, label, limit.Deadline(), &made, nullptr);
}

KLVMsgOutcome KLVMsgSession::Keep(const KLVMsgSocketAddress& address, const std::string& label) {
    return m_core->Keep(address, label, nullptr, nullptr, nullptr);
}

KLVMsgOutcome KLVMsgSession::Keep(const KLVMsgSocketAddress& address, const std::string& label,
                                  const KLVMsgProtection& protection) {
    return m_core->Keep(address, label, nullptr, nullptr, protection.m_transports);
}

KLVMsgOutcome KLVMsgSession::KeepPeer(const KLVMsgSocketAddress& address, const std::string& label,
                                      KLVMsgSocketMessage& hello,
                                      const KLVMsgFramedMessage* framed) {
    return m_core->Keep(address, label, &hello, framed, nullptr);
}

KLVMsgOutcome KLVMsgSession::KeepPeer(const KLVMsgSocketAddress& address, const std::string& label,
                                      KLVMsgSocketMessage& hello, const KLVMsgFramedMessage* framed,
                                      const KLVMsgProtection& protection) {
    return m_core->Keep(address, label, &hello, framed, protection.m_transports);
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

KLVMsgReceivedAny KLVMsgSession::ReceiveAny(KLVMsgTimeLimit limit) {
    return m_core->ReceiveAny(limit, nullptr);
}

KLVMsgReceivedAny KLVMsgSession::ReceiveAny(KLVMsgTimeLimit limit, const KLVMsgPeers& from) {
    return m_core->ReceiveAny(limit, &from);
}

KLVMsgOutcome KLVMsgSession::SetHandler(const std::type_info& type, Handler handler) {
    return m_core->SetHandler(type, std::move(handler));
}

KLVMsgOutcome KLVMsgSession::HandleEvents(std::function<void(const KLVMsgEvent& event)> function) {
    return m_core->SetEventHandler(std::move(function));
}

KLVMsgOutcome KLVMsgSession::Dispatch(KLVMsgTimeLimit limit) { return m_core->Dispatch(limit); }

KLVMsgReceived<KLVMsgSocketMessage> KLVMsgSession::AskMessage(const KLVMsgPeers& to,
                                                              const KLVMsgCallMessage* question,
                                                              const std::type_info& answer,
                                                              KLVMsgTimeLimit limit) {
    if (question != nullptr) {
        return m_core->Ask(to, *question, answer, limit);
    }
    KLVMsgReceived<KLVMsgSocketMessage> none;
    static_cast<KLVMsgOutcome&>(none) = NoMessage();
    return none;
}

KLVMsgOutcome KLVMsgSession::AnswerMessage(KLVMsgPeer to, std::uint64_t question,
                                           const KLVMsgCallMessage* answer) {
    return answer == nullptr ? NoMessage() : m_core->Answer(to, question, *answer);
}

KLVMsgQuestionCounts KLVMsgSession::Questions() { return m_core->Questions(); }

int KLVMsgSession::Descriptor() { return m_core->Descriptor(); }

KLVMsgOutcome KLVMsgSession::SetLabel(KLVMsgPeer peer, const std::string& label) {
    return m_core->SetLabel(peer, label);
}

KLVMsgPeerInfo KLVMsgSession::Info(KLVMsgPeer peer) { return m_core->Info(peer); }

std::vector<KLVMsgPeer> KLVMsgSession::Peers(const KLVMsgPeers& meant) {
    return m_core->Peers(meant);
}

KLVMsgOutcome KLVMsgSession::Disconnect(const KLVMsgPeers& meant) {
    return m_core->Disconnect(meant);
}

KLVMsgOutcome KLVMsgSession::WaitUntilGone(const KLVMsgPeers& meant, KLVMsgTimeLimit limit) {
    return m_core->WaitUntil(false, meant, limit);
}

KLVMsgOutcome KLVMsgSession::WaitUntilThere(const KLVMsgPeers& meant, KLVMsgTimeLimit limit) {
    return m_core->WaitUntil(true, meant, limit);
}

KLVMsgEvent KLVMsgSession::NextEvent(KLVMsgTimeLimit limit) { return m_core->NextEvent(limit); }

KLVMsgCounts KLVMsgSession::Counts(const KLVMsgPeers& meant) { return m_core->Counts(meant); }

KLVMsgCounts KLVMsgSession::Counts() { return m_core->Counts(); }

KLVMsgOutcome KLVMsgSession::Drain(KLVMsgTimeLimit limit) { return m_core->Drain(limit); }

KLVMsgOutcome KLVMsgSession::End(KLVMsgTimeLimit limit) { return m_core->End(limit); }
