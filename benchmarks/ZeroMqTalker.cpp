#include <zmq.h>

#include "Talker.h"

namespace bench {
namespace {

// A pair there and back; one way a socket that pulls, and one for each connection that pushes.
// Where one asks, a socket that replies, and one for each asker that requests.
class ZeroMqTalker : public SocketsTalker<ZeroMqTalker, void*> {
public:
    using SocketsTalker::SocketsTalker;

    int Listen(const std::string& host) override {
        char text[128];
        std::size_t length = sizeof text;
        void* const server = Open(ZMQ_PULL, ZMQ_REP);
        Require(zmq_bind(server, ("tcp://" + host + ":*").c_str()) == 0, "zeromq bind");
        Require(zmq_getsockopt(server, ZMQ_LAST_ENDPOINT, text, &length) == 0, "zeromq port");
        return std::atoi(std::strrchr(text, ':') + 1);
    }

    void Connect(const std::string& host, int port, int connections) override {
        const std::string address = "tcp://" + host + ":" + std::to_string(port);
        for (int i = 0; i < connections; ++i) {
            Require(zmq_connect(Open(ZMQ_PUSH, ZMQ_REQ), address.c_str()) == 0, "zeromq connect");
        }
    }

    void PutIn(void* socket, const Stamp& stamp) const {
        zmq_msg_t message;
        Require(zmq_msg_init_size(&message, m_manner.size) == 0, "zeromq message");
        PutBody(static_cast<char*>(zmq_msg_data(&message)), stamp, m_manner.size);
        Require(zmq_msg_send(&message, socket, 0) != -1, "zeromq send");
    }

    Stamp TakeOut(void* socket) const {
        zmq_msg_t message;
        zmq_msg_init(&message);
        Require(zmq_msg_recv(&message, socket, 0) == static_cast<int>(m_manner.size),
                "zeromq receive");
        const Stamp stamp = StampOf(zmq_msg_data(&message));
        zmq_msg_close(&message);
        return stamp;
    }

private:
    void* Open(int oneWay, int asking) {
        const int kind = m_manner.use == Use::kThereAndBack ? ZMQ_PAIR
                         : m_manner.use == Use::kAsking     ? asking
                                                            : oneWay;
        return m_sockets.emplace_back(zmq_socket(m_context, kind));
    }

    void* m_context = zmq_ctx_new();
};

}  // namespace

std::unique_ptr<Talker> MakeZeroMqTalker(const Manner& manner) {
    return std::make_unique<ZeroMqTalker>(manner);
}

}  // namespace bench
