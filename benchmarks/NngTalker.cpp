#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>

#include "Talker.h"

namespace bench {
namespace {

// A pair there and back; one way a socket that pulls, and one for each connection that pushes.
class NngTalker : public Talker {
public:
    explicit NngTalker(const Manner& manner) : m_manner(manner) {}

    int Listen(const std::string& host) override {
        nng_listener listener;
        int port = 0;
        nng_socket& server = Open(true);
        Require(nng_listen(server, ("tcp://" + host + ":0").c_str(), &listener, 0) == 0,
                "nng listen");
        Require(nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port) == 0, "nng port");
        return port;
    }

    void Connect(const std::string& host, int port, int connections) override {
        const std::string address = "tcp://" + host + ":" + std::to_string(port);
        for (int i = 0; i < connections; ++i) {
            Require(nng_dial(Open(false), address.c_str(), nullptr, 0) == 0, "nng connect");
        }
    }

    void Send(std::size_t connection, const Stamp& stamp) override {
        nng_msg* message = nullptr;
        Require(nng_msg_alloc(&message, m_manner.size) == 0, "nng message");
        PutBody(static_cast<char*>(nng_msg_body(message)), stamp, m_manner.size);
        Require(nng_sendmsg(m_sockets[connection], message, 0) == 0, "nng send");
    }

    void Receive(std::vector<Stamp>& stamps) override {
        nng_msg* message = nullptr;
        Require(nng_recvmsg(m_sockets[0], &message, 0) == 0, "nng receive");
        Require(nng_msg_len(message) == m_manner.size, "nng size");
        stamps.push_back(StampOf(nng_msg_body(message)));
        nng_msg_free(message);
    }

    void Answer(const Stamp& stamp) override { Send(0, stamp); }

private:
    nng_socket& Open(bool server) {
        nng_socket& socket = m_sockets.emplace_back();
        Require((m_manner.use == Use::kThereAndBack ? nng_pair0_open
                 : server                           ? nng_pull0_open
                                                    : nng_push0_open)(&socket) == 0,
                "nng open");
        return socket;
    }

    const Manner m_manner;
    std::vector<nng_socket> m_sockets;  // a server's only one, or a client's
};

}  // namespace

std::unique_ptr<Talker> MakeNngTalker(const Manner& manner) {
    return std::make_unique<NngTalker>(manner);
}

}  // namespace bench
