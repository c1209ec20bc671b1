// What a program would write by hand for one connection and one way: the same bytes as a session's,
// over a blocking socket.
#include <sys/uio.h>

#include "Sockets.h"
#include "Talker.h"

namespace bench {
namespace {

// What stands before a body.
struct Header {
    std::uint32_t nameLength = typeNameLength;
    char name[typeNameLength] = {};
    std::uint32_t bodyLength = 0;
};
static_assert(sizeof(Header) == 20, "as on the wire");

class HandTalker : public Talker {
public:
    explicit HandTalker(const Manner& manner) : m_size(manner.size), m_body(manner.size, 'x') {
        std::memcpy(m_header.name, typeName, typeNameLength);
        m_header.bodyLength = static_cast<std::uint32_t>(m_size);
    }

    int Listen(const std::string&) override {
        int port = 0;
        m_socket = ListenOnLoopback(port);
        return port;
    }

    void Connect(const std::string&, int port, int) override {
        m_socket = ConnectToLoopback(port);
        SetOption(m_socket, IPPROTO_TCP, TCP_NODELAY, 1);
    }

    // Header and body are gathered by one call, and copied nowhere else.
    void Send(std::size_t, const Stamp& stamp) override {
        std::memcpy(m_body.data(), &stamp, sizeof stamp);
        const iovec pieces[] = {{&m_header, sizeof m_header}, {m_body.data(), m_size}};
        Require(writev(m_socket, pieces, 2) == static_cast<ssize_t>(sizeof m_header + m_size),
                "send by hand");
    }

    void Receive(std::vector<Stamp>& stamps) override {
        if (m_room.empty()) {
            m_socket = accept(m_socket, nullptr, nullptr);
            // Several short messages, or a long one and not much of the next, which is moved.
            m_room.resize(std::max(sizeof m_header + m_size + 65536, std::size_t{512} << 10));
        }
        for (const std::size_t before = stamps.size(); stamps.size() == before;) {
            std::memmove(m_room.data(), m_room.data() + m_parsed, m_filled - m_parsed);
            m_filled -= m_parsed;
            m_parsed = 0;
            const ssize_t more =
                recv(m_socket, m_room.data() + m_filled, m_room.size() - m_filled, 0);
            Require(more > 0, "receive by hand");
            m_filled += static_cast<std::size_t>(more);
            Parse(stamps);
        }
    }

    void Answer(const Stamp&) override { Require(false, "one way only"); }

private:
    void Parse(std::vector<Stamp>& stamps) {
        Header header;
        while (m_filled - m_parsed >= sizeof header) {
            std::memcpy(&header, m_room.data() + m_parsed, sizeof header);
            Require(header.nameLength == typeNameLength && header.bodyLength == m_size &&
                        std::memcmp(header.name, typeName, typeNameLength) == 0,
                    "header by hand");
            if (m_filled - m_parsed < sizeof header + header.bodyLength) {
                break;
            }
            stamps.push_back(StampOf(m_room.data() + m_parsed + sizeof header));
            m_parsed += sizeof header + header.bodyLength;
        }
    }

    const std::size_t m_size;
    Header m_header;
    std::vector<char> m_body;  // of what is sent
    int m_socket = -1;
    std::vector<char> m_room;  // what has come
    std::size_t m_filled = 0;
    std::size_t m_parsed = 0;
};

}  // namespace

std::unique_ptr<Talker> MakeHandTalker(const Manner& manner) {
    return std::make_unique<HandTalker>(manner);
}

}  // namespace bench
