#include <KLVMsgSession.h>

#include <vector>

#include "Talker.h"

namespace bench {
namespace {

struct Message : KLVMsgFramedMessage {
    explicit Message(const Item& content = {}) : item(content) {}
    bool Encode(std::string& bytes) const override {
        bytes.assign(reinterpret_cast<const char*>(&item), sizeof item);
        return true;
    }
    bool Decode(std::string_view bytes) override {
        std::memcpy(&item, bytes.data(), std::min(bytes.size(), sizeof item));
        return bytes.size() == sizeof item;
    }
    KLVMsgSocketMessage* NewInstance() override { return new Message; }
    KLVString GetMessageType() const override { return "BenchMessage"; }
    Item item;
};

// Where the queue of what is posted is full it waits for room, as the others do by themselves.
class SessionTalker : public Talker {
public:
    SessionTalker() { Require(bool(m_session.Register(Message())), "session register"); }

    int Listen() override {
        int port = 0;
        Require(m_session.Serve({"127.0.0.1", 0}, &port) && m_session.Start(), "session listen");
        return port;
    }

    void Connect(int port, int connections) override {
        for (int i = 0; i < connections; ++i) {
            Require(bool(m_session.Connect({"127.0.0.1", port}, "server")), "session connect");
        }
        m_servers = m_session.Peers("server");
        Require(bool(m_session.Start()), "session start");
    }

    void Send(const Item& item) override {
        const KLVMsgPeer server = m_servers[item.connection];
        const Message message(item);
        const KLVMsgOutcome posted = m_session.Post(server, message);
        Require(posted || (posted.status == KLVMsgOutcome::kFull &&
                           m_session.Send(server, message, kLimit)),
                "session send");
    }

    Item Receive() override {
        const auto received = m_session.Receive<Message>(kLimit);
        if (!received) std::fprintf(stderr, "OUT %d %s\n", int(received.status), received.text.c_str());
        Require(bool(received), "session receive");
        m_sender = received.peer;
        return received->item;
    }

    void Answer(const Item& item) override {
        Require(bool(m_session.Post(m_sender, Message(item))), "session answer");
    }

    bool ReceiveIfThere(Item& item) override {
        const auto received = m_session.Receive<Message>(std::chrono::seconds(0));
        if (received) {
            item = received->item;
        }
        return bool(received);
    }

private:
    static constexpr std::chrono::seconds kLimit{60};

    KLVMsgSession m_session;
    std::vector<KLVMsgPeer> m_servers;
    KLVMsgPeer m_sender;
};

}  // namespace

std::unique_ptr<Talker> MakeSessionTalker(Use) { return std::make_unique<SessionTalker>(); }

}  // namespace bench
