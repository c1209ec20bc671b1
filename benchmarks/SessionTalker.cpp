#include <KLVMsgSession.h>
#ifdef BENCH_TLS
#include <KLVMsgTls.h>
#endif

#include <thread>

#include "Talker.h"

namespace bench {
namespace {

constexpr std::chrono::seconds kLimit{60};

class Message : public KLVMsgFramedMessage {
public:
    explicit Message(std::size_t size = sizeof(Stamp), const Stamp& content = {})
        : stamp(content), m_size(size) {}

    bool Encode(std::string& bytes) const override {
        bytes.reserve(m_size);
        bytes.append(reinterpret_cast<const char*>(&stamp), sizeof stamp);
        bytes.append(Filling(), m_size - sizeof stamp);
        return true;
    }
    bool Decode(std::string_view bytes) override {
        const bool isRight = bytes.size() == m_size;
        stamp = isRight ? StampOf(bytes.data()) : Stamp();
        return isRight;
    }
    KLVMsgSocketMessage* NewInstance() override { return new Message(m_size); }
    KLVString GetMessageType() const override { return "BenchMessage"; }

    Stamp stamp;

private:
    std::size_t m_size;
};

// A question, and its answer.
class Call : public KLVMsgCallMessage {
public:
    explicit Call(const Stamp& content = {}) : stamp(content) {}

    bool EncodeFields(std::string& bytes) const override {
        bytes.assign(reinterpret_cast<const char*>(&stamp), sizeof stamp);
        return true;
    }
    bool DecodeFields(std::string_view bytes) override {
        const bool isRight = bytes.size() == sizeof stamp;
        stamp = isRight ? StampOf(bytes.data()) : Stamp();
        return isRight;
    }
    KLVMsgSocketMessage* NewInstance() override { return new Call; }
    KLVString GetMessageType() const override { return "BenchCall"; }

    Stamp stamp;
};

// What is waited for and never comes.
class OtherMessage : public Message {
public:
    KLVMsgSocketMessage* NewInstance() override { return new OtherMessage; }
    KLVString GetMessageType() const override { return "OtherMessage"; }
};

KLVMsgSessionOptions Options(const Manner& manner) {
    KLVMsgSessionOptions options;
    options.wholeHeaders = manner.wholeHeaders;
    return options;
}

class SessionTalker : public Talker {
public:
    explicit SessionTalker(const Manner& manner) : m_manner(manner), m_session(Options(manner)) {
        Require(m_session.Register(Message(manner.size)) && m_session.Register(OtherMessage()) &&
                    m_session.Register(Call()),
                "session register");
    }

    ~SessionTalker() override {
        if (!m_waiting.empty()) {
            m_session.End(kLimit);  // wakes them: none may be in a session that is destroyed
        }
        for (std::thread& one : m_waiting) {
            one.join();
        }
    }
    SessionTalker(const SessionTalker&) = delete;
    SessionTalker& operator=(const SessionTalker&) = delete;

    int Listen(const std::string& host) override {
        int port = 0;
        Require(InItsWay([&](const auto&... how) {
                    return m_session.Serve({host.c_str(), 0}, &port, how...);
                }) &&
                    m_session.Start(),
                "session listen");
        for (int i = 0; i < m_manner.waiting; ++i) {
            m_waiting.emplace_back(
                [this] { m_session.Receive<OtherMessage>(std::chrono::hours(1)); });
        }
        return port;
    }

    void Connect(const std::string& host, int port, int connections) override {
        for (int i = 0; i < connections; ++i) {
            Require(InItsWay([&](const auto&... how) {
                        return m_session.Connect({host.c_str(), port}, "server", how...);
                    }),
                    "session connect");
        }
        m_servers = m_session.Peers("server");
        Require(bool(m_session.Start()), "session start");
    }

    // Where the queue is full it waits for room, as the others do by themselves.
    void Send(std::size_t connection, const Stamp& stamp) override {
        if (m_manner.use == Use::kAsking) {
            const auto answer = m_session.Ask<Call>(m_servers[0], Call(stamp), kLimit);
            Require(answer && answer->stamp.number == stamp.number, "session ask");
            return;
        }
        const Message message(m_manner.size, stamp);
        const KLVMsgPeer server = m_servers[connection];
        const KLVMsgOutcome posted = m_session.Post(server, message);
        Require(posted || (posted.status == KLVMsgOutcome::kFull &&
                           m_session.Send(server, message, kLimit)),
                "session send");
    }

    void Receive(std::vector<Stamp>& stamps) override {
        if (m_manner.use == Use::kAsking) {
            const auto received = m_session.Receive<Call>(kLimit);
            Require(received && m_session.Answer(received, *received), "session answer");
            stamps.push_back(received->stamp);
        } else if (m_manner.together) {
            const auto received = m_session.ReceiveAll<Message>(kLimit);
            Require(bool(received), "session receive all");
            for (const auto& item : received.messages) {
                stamps.push_back(item->stamp);
            }
        } else {
            const auto received = m_session.Receive<Message>(kLimit);
            Require(bool(received), "session receive");
            m_sender = received.peer;
            stamps.push_back(received->stamp);
        }
    }

    void Answer(const Stamp& stamp) override {
        Require(bool(m_session.Post(m_sender, Message(m_manner.size, stamp))), "session answer");
    }

private:
    template <class Operation>
    bool InItsWay(const Operation& operation) {
#ifdef BENCH_TLS
        if (m_manner.tls != nullptr) {
            return bool(operation(KLVMsgTls(*m_manner.tls)));
        }
#endif
        return bool(operation());
    }

    const Manner m_manner;
    KLVMsgSession m_session;
    std::vector<KLVMsgPeer> m_servers;
    KLVMsgPeer m_sender;
    std::vector<std::thread> m_waiting;
};

}  // namespace

std::unique_ptr<Talker> MakeSessionTalker(const Manner& manner) {
    return std::make_unique<SessionTalker>(manner);
}

}  // namespace bench
