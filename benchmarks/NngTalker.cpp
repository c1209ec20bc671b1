#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>

#include <vector>

#include "Talker.h"

namespace bench {
namespace {

// A pair there and back; one way a socket that pulls, and one for each connection that pushes.
class NngTalker : public Talker {
public:
    explicit NngTalker(Use use) : m_use(use) {}

    int Listen() override {
        nng_listener listener;
        int port = 0;
        nng_socket& server = Open(true);
        Require(nng_listen(server, "tcp://127.0.0.1:0", &listener, 0) == 0, "nng listen");
        Require(nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port) == 0, "nng port");
        return port;
    }

    void Connect(int port, int connections) override {
        const std::string address = "tcp://127.0.0.1:" + std::to_string(port);
        for (int i = 0; i < connections; ++i) {
            Require(nng_dial(Open(false), address.c_str(), nullptr, 0) == 0, "nng connect");
        }
    }

    void Send(const Item& item) override { SendOn(m_sockets[item.connection], item); }
    void Answer(const Item& item) override { SendOn(m_sockets[0], item); }

    Item Receive() override {
        Item item = {};
        std::size_t size = sizeof item;
        Require(nng_recv(m_sockets[0], &item, &size, 0) == 0 && size == sizeof item, "nng receive");
        return item;
    }

private:
    nng_socket& Open(bool server) {
        nng_socket& socket = m_sockets.emplace_back();
        Require((m_use == Use::ThereAndBack ? nng_pair0_open
                 : server                   ? nng_pull0_open
                                            : nng_push0_open)(&socket) == 0,
                "nng open");
        return socket;
    }

    static void SendOn(nng_socket socket, Item item) {
        Require(nng_send(socket, &item, sizeof item, 0) == 0, "nng send");
    }

    const Use m_use;
    std::vector<nng_socket> m_sockets;  // a server's only one, or a client's
};

}  // namespace

std::unique_ptr<Talker> MakeNngTalker(Use use) { return std::make_unique<NngTalker>(use); }

}  // namespace bench
