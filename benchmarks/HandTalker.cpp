// What a program would write by hand for one connection and one way, over a blocking socket.
#include <sys/uio.h>

#include "HandReader.h"

namespace bench {
namespace {

class HandTalker : public Talker {
public:
    explicit HandTalker(const Manner& manner)
        : m_header(manner.size), m_body(manner.size, 'x'), m_reader(manner.size) {}

    int Listen(const std::string&) override {
        int port = 0;
        m_listener = ListenOnLoopback(port);
        return port;
    }

    void Connect(const std::string&, int port, int) override {
        m_socket = ConnectToLoopback(port);
        SetOption(m_socket, IPPROTO_TCP, TCP_NODELAY, 1);
    }

    // Header and body are gathered by one call, and copied nowhere else.
    void Send(std::size_t, const Stamp& stamp) override {
        std::memcpy(m_body.data(), &stamp, sizeof stamp);
        const iovec pieces[] = {{&m_header, sizeof m_header}, {m_body.data(), m_body.size()}};
        Require(
            writev(m_socket, pieces, 2) == static_cast<ssize_t>(sizeof m_header + m_body.size()),
            "send by hand");
    }

    void Receive(std::vector<Stamp>& stamps) override {
        if (m_socket == -1) {
            m_socket = accept(m_listener, nullptr, nullptr);
        }
        m_reader.Receive(stamps, [this](char* to, std::size_t most) {
            const ssize_t count = recv(m_socket, to, most, 0);
            Require(count > 0, "receive by hand");
            return static_cast<std::size_t>(count);
        });
    }

    void Answer(const Stamp&) override { Require(false, "one way only"); }

private:
    HandHeader m_header;
    std::vector<char> m_body;  // of what is sent
    int m_listener = -1;
    int m_socket = -1;
    HandReader m_reader;
};

}  // namespace

std::unique_ptr<Talker> MakeHandTalker(const Manner& manner) {
    return std::make_unique<HandTalker>(manner);
}

}  // namespace bench
