#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>

#include "Exchange.h"

namespace bench {
namespace {

// A message of one piece, the type name and behind it the body. It sets TCP_NODELAY by itself.
class NngEndpoint : public Endpoint {
public:
    NngEndpoint() {
        Require(nng_pair0_open(&m_socket) == 0, "nng open");
        nng_socket_set_size(m_socket, NNG_OPT_RECVMAXSZ, 0);
    }

    ~NngEndpoint() override {
        nng_msg_free(m_message);
        nng_close(m_socket);
    }

    int Listen() override {
        nng_listener listener;
        int port = 0;
        Require(nng_listen(m_socket, "tcp://127.0.0.1:0", &listener, 0) == 0, "nng listen");
        Require(nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port) == 0, "nng port");
        return port;
    }

    void Accept() override {}  // its own threads do

    void Connect(int port) override {
        const std::string address = "tcp://127.0.0.1:" + std::to_string(port);
        Require(nng_dial(m_socket, address.c_str(), nullptr, 0) == 0, "nng connect");
    }

    void Send(const char* body, int size) override {
        const auto bytes = static_cast<std::size_t>(size);
        nng_msg* message = nullptr;
        Require(nng_msg_alloc(&message, typeNameLength + bytes) == 0, "nng message");
        char* const data = static_cast<char*>(nng_msg_body(message));
        std::memcpy(data, typeName, typeNameLength);
        std::memcpy(data + typeNameLength, body, bytes);
        Require(nng_sendmsg(m_socket, message, 0) == 0, "nng send");
    }

    const char* Receive(int size) override {
        nng_msg_free(m_message);
        Require(nng_recvmsg(m_socket, &m_message, 0) == 0, "nng receive");
        const char* const data = static_cast<const char*>(nng_msg_body(m_message));
        Require(nng_msg_len(m_message) ==
                        std::size_t{typeNameLength} + static_cast<std::size_t>(size) &&
                    std::memcmp(data, typeName, typeNameLength) == 0,
                "nng type and size");
        return data + typeNameLength;
    }

private:
    nng_socket m_socket;
    nng_msg* m_message = nullptr;
};

}  // namespace

std::unique_ptr<Endpoint> MakeNngEndpoint(Tuning) { return std::make_unique<NngEndpoint>(); }

}  // namespace bench
