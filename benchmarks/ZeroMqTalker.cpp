#include <zmq.h>

#include "Talker.h"

namespace bench {
namespace {

// A pair there and back; one way a socket that pulls, and one for each connection that pushes.
class ZeroMqTalker : public Talker {
public:
    explicit ZeroMqTalker(const Manner& manner) : m_manner(manner) {}

    int Listen(const std::string& host) override {
        char text[128];
        std::size_t length = sizeof text;
        void* const server = Open(ZMQ_PULL);
        Require(zmq_bind(server, ("tcp://" + host + ":*").c_str()) == 0, "zeromq bind");
        Require(zmq_getsockopt(server, ZMQ_LAST_ENDPOINT, text, &length) == 0, "zeromq port");
        return std::atoi(std::strrchr(text, ':') + 1);
    }

    void Connect(const std::string& host, int port, int connections) override {
        const std::string address = "tcp://" + host + ":" + std::to_string(port);
        for (int i = 0; i < connections; ++i) {
            Require(zmq_connect(Open(ZMQ_PUSH), address.c_str()) == 0, "zeromq connect");
        }
    }

    void Send(std::size_t connection, const Stamp& stamp) override {
        zmq_msg_t message;
        Require(zmq_msg_init_size(&message, m_manner.size) == 0, "zeromq message");
        PutBody(static_cast<char*>(zmq_msg_data(&message)), stamp, m_manner.size);
        Require(zmq_msg_send(&message, m_sockets[connection], 0) != -1, "zeromq send");
    }

    void Receive(std::vector<Stamp>& stamps) override {
        zmq_msg_t message;
        zmq_msg_init(&message);
        Require(zmq_msg_recv(&message, m_sockets[0], 0) == static_cast<int>(m_manner.size),
                "zeromq receive");
        stamps.push_back(StampOf(zmq_msg_data(&message)));
        zmq_msg_close(&message);
    }

    void Answer(const Stamp& stamp) override { Send(0, stamp); }

private:
    void* Open(int oneWay) {
        const int kind = m_manner.use == Use::kThereAndBack ? ZMQ_PAIR : oneWay;
        return m_sockets.emplace_back(zmq_socket(m_context, kind));
    }

    const Manner m_manner;
    void* m_context = zmq_ctx_new();
    std::vector<void*> m_sockets;  // a server's only one, or a client's
};

}  // namespace

std::unique_ptr<Talker> MakeZeroMqTalker(const Manner& manner) {
    return std::make_unique<ZeroMqTalker>(manner);
}

}  // namespace bench
