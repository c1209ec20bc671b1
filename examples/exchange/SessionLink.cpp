#include <KLVMsgSession.h>

#include <chrono>
#include <functional>
#include <map>
#include <tuple>

#include "Link.h"
#include "Messages.h"
#include "Outcome.h"

namespace {

// A session keeps the messages that are under way, finds out by itself who has gone, and waits no
// longer than it is told.
class SessionLink : public Link {
public:
    SessionLink() {
        std::apply([this](const auto&... prototypes) { (Register(prototypes), ...); },
                   MessageTypes());
    }

    int Serve(const KLVMsgSocketAddress& address) override {
        int port = 0;
        Check(m_session.Serve(address, &port));
        return port;
    }

    void Connect(const KLVMsgSocketAddress& address, const std::string& label) override {
        Check(m_session.Connect(address, label, Limit()),
              "gave up: the " + label + " does not accept");
        for (const KLVMsgPeer peer : m_session.Peers(label)) {
            m_labels[peer] = label;
        }
    }

    void Start() override { Check(m_session.Start()); }

    void Post(const std::string& label, Message message) override {
        m_session.Post(label, std::move(message));
    }

    void Post(KLVMsgPeer peer, Message message) override {
        m_session.Post(peer, std::move(message));
    }

    KLVMsgOutcome Send(const std::string& label, Message message) override {
        return m_session.Send(label, std::move(message), Limit());
    }

    void SetLabel(KLVMsgPeer peer, const std::string& label) override {
        m_session.SetLabel(peer, label);
        m_labels[peer] = label;
    }

    std::string LabelOf(KLVMsgPeer peer) override {
        const auto found = m_labels.find(peer);
        return found == m_labels.end() ? "" : found->second;
    }

    std::set<std::string> Present() override {
        std::set<std::string> labels;
        for (const KLVMsgPeer peer : m_session.Peers(KLVMsgPeers::All())) {
            labels.insert(LabelOf(peer));
        }
        labels.erase("");
        return labels;
    }

    std::string CauseOf(const std::string&) override { return ""; }

    void End(Message farewell) override {
        m_session.Post(KLVMsgPeers::All(), std::move(farewell));
        m_session.End(std::chrono::seconds(5));
    }

protected:
    KLVMsgReceived<KLVMsgSocketMessage> Take(const char* type, KLVMsgTimeLimit limit) override {
        return m_take.at(type)(limit);
    }

private:
    // A session receives by the class of a message.
    template <class Type>
    void Register(const Type& prototype) {
        Check(m_session.Register(prototype));
        m_take[Type::type] = [this](KLVMsgTimeLimit limit) {
            return As<KLVMsgSocketMessage>(m_session.Receive<Type>(limit));
        };
    }

    using Taking = std::function<KLVMsgReceived<KLVMsgSocketMessage>(KLVMsgTimeLimit)>;

    std::map<std::string, Taking> m_take;  // by the type's name
    std::map<KLVMsgPeer, std::string> m_labels;
    KLVMsgSession m_session;
};

}  // namespace

std::unique_ptr<Link> NewSessionLink() { return std::make_unique<SessionLink>(); }
