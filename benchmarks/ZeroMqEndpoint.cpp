#include <zmq.h>

#include "Exchange.h"

namespace bench {
namespace {

// A message of two frames, type name and body. It sets TCP_NODELAY by itself and reads ahead, so
// there is nothing to tune.
class ZeroMqEndpoint : public Endpoint {
public:
    ZeroMqEndpoint() { zmq_msg_init(&m_body); }

    ~ZeroMqEndpoint() override {
        zmq_msg_close(&m_body);
        zmq_close(m_socket);
        zmq_ctx_term(m_context);
    }

    int Listen() override {
        char text[128];
        std::size_t length = sizeof text;
        Require(zmq_bind(m_socket, "tcp://127.0.0.1:*") == 0, "zeromq bind");
        Require(zmq_getsockopt(m_socket, ZMQ_LAST_ENDPOINT, text, &length) == 0, "zeromq port");
        return std::atoi(std::strrchr(text, ':') + 1);
    }

    void Accept() override {}  // its own thread does

    void Connect(int port) override {
        const std::string address = "tcp://127.0.0.1:" + std::to_string(port);
        Require(zmq_connect(m_socket, address.c_str()) == 0, "zeromq connect");
    }

    // The constant form lends the memory instead of copying it.
    void Send(const char* body, int size) override {
        const auto bytes = static_cast<std::size_t>(size);
        Require(zmq_send_const(m_socket, typeName, typeNameLength, ZMQ_SNDMORE) == typeNameLength &&
                    zmq_send_const(m_socket, body, bytes, 0) == size,
                "zeromq send");
    }

    const char* Receive(int size) override {
        char name[typeNameLength + 1];
        Require(zmq_recv(m_socket, name, sizeof name, 0) == typeNameLength &&
                    std::memcmp(name, typeName, typeNameLength) == 0,
                "zeromq type");
        Require(zmq_msg_recv(&m_body, m_socket, 0) == size, "zeromq body");
        return static_cast<const char*>(zmq_msg_data(&m_body));
    }

private:
    void* m_context = zmq_ctx_new();
    void* m_socket = zmq_socket(m_context, ZMQ_PAIR);
    zmq_msg_t m_body;
};

}  // namespace

std::unique_ptr<Endpoint> MakeZeroMqEndpoint(Tuning) { return std::make_unique<ZeroMqEndpoint>(); }

}  // namespace bench
