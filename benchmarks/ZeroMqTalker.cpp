#include <zmq.h>

#include <vector>

#include "Talker.h"

namespace bench {
namespace {

// A pair there and back; one way a socket that pulls, and one for each connection that pushes.
class ZeroMqTalker : public Talker {
public:
    explicit ZeroMqTalker(Use use) : m_use(use) {}

    int Listen() override {
        char text[128];
        std::size_t length = sizeof text;
        void* const server = Open(ZMQ_PULL);
        Require(zmq_bind(server, "tcp://127.0.0.1:*") == 0, "zeromq bind");
        Require(zmq_getsockopt(server, ZMQ_LAST_ENDPOINT, text, &length) == 0, "zeromq port");
        return std::atoi(std::strrchr(text, ':') + 1);
    }

    void Connect(int port, int connections) override {
        const std::string address = "tcp://127.0.0.1:" + std::to_string(port);
        for (int i = 0; i < connections; ++i) {
            Require(zmq_connect(Open(ZMQ_PUSH), address.c_str()) == 0, "zeromq connect");
        }
    }

    void Send(const Item& item) override { SendOn(m_sockets[item.connection], item); }
    void Answer(const Item& item) override { SendOn(m_sockets[0], item); }

    Item Receive() override {
        Item item = {};
        Require(zmq_recv(m_sockets[0], &item, sizeof item, 0) == sizeof item, "zeromq receive");
        return item;
    }

private:
    void* Open(int oneWay) {
        const int kind = m_use == Use::ThereAndBack ? ZMQ_PAIR : oneWay;
        return m_sockets.emplace_back(zmq_socket(m_context, kind));
    }

    static void SendOn(void* socket, const Item& item) {
        Require(zmq_send(socket, &item, sizeof item, 0) == sizeof item, "zeromq send");
    }

    const Use m_use;
    void* m_context = zmq_ctx_new();
    std::vector<void*> m_sockets;  // a server's only one, or a client's
};

}  // namespace

std::unique_ptr<Talker> MakeZeroMqTalker(Use use) { return std::make_unique<ZeroMqTalker>(use); }

}  // namespace bench
