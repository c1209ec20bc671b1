#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include "Talker.h"

namespace bench {
namespace {

// A pair there and back; one way a socket that pulls, and one for each connection that pushes.
// Where one asks, a socket that replies, and one for each asker that requests.
class NngTalker : public SocketsTalker<NngTalker, nng_socket> {
public:
    using SocketsTalker::SocketsTalker;

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

    void PutIn(nng_socket socket, const Stamp& stamp) const {
        nng_msg* message = nullptr;
        Require(nng_msg_alloc(&message, m_manner.size) == 0, "nng message");
        PutBody(static_cast<char*>(nng_msg_body(message)), stamp, m_manner.size);
        Require(nng_sendmsg(socket, message, 0) == 0, "nng send");
    }

    Stamp TakeOut(nng_socket socket) const {
        nng_msg* message = nullptr;
        Require(nng_recvmsg(socket, &message, 0) == 0, "nng receive");
        Require(nng_msg_len(message) == m_manner.size, "nng size");
        const Stamp stamp = StampOf(nng_msg_body(message));
        nng_msg_free(message);
        return stamp;
    }

private:
    nng_socket& Open(bool server) {
        nng_socket& socket = m_sockets.emplace_back();
        const bool asks = m_manner.use == Use::kAsking;
        Require((m_manner.use == Use::kThereAndBack ? nng_pair0_open
                 : server                           ? (asks ? nng_rep0_open : nng_pull0_open)
                 : asks                             ? nng_req0_open
                                                    : nng_push0_open)(&socket) == 0,
                "nng open");
        return socket;
    }
};

}  // namespace

std::unique_ptr<Talker> MakeNngTalker(const Manner& manner) {
    return std::make_unique<NngTalker>(manner);
}

}  // namespace bench
