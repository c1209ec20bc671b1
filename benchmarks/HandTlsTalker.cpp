// The same under TLS: a loop of SSL_write with full records, and one of SSL_read.
#include <KLVMsgTlsOptions.h>
#include <openssl/ssl.h>

#include "HandReader.h"
#include "Meeting.h"

namespace bench {
namespace {

class HandTlsTalker : public Talker {
public:
    explicit HandTlsTalker(const Manner& manner)
        : m_header(manner.size), m_body(manner.size, 'x'), m_reader(manner.size) {
        const char* const own = manner.tls->certificate.c_str();
        SSL_CTX_set_min_proto_version(m_context, TLS1_3_VERSION);
        SSL_CTX_set_num_tickets(m_context, 0);
        SSL_CTX_set_read_ahead(m_context, 1);
        SSL_CTX_set_verify(m_context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        Require(SSL_CTX_set_ciphersuites(m_context, "TLS_AES_128_GCM_SHA256") == 1 &&
                    SSL_CTX_use_certificate_chain_file(m_context, own) == 1 &&
                    SSL_CTX_use_PrivateKey_file(m_context, manner.tls->key.c_str(),
                                                SSL_FILETYPE_PEM) == 1 &&
                    SSL_CTX_load_verify_file(m_context, manner.tls->authority.c_str()) == 1,
                "TLS by hand");
    }

    int Listen(const std::string&) override {
        int port = 0;
        m_listener = ListenOnLoopback(port);
        return port;
    }

    void Connect(const std::string&, int port, int) override {
        Take(ConnectToLoopback(port));
        Require(SSL_connect(m_connection) == 1, "connect by hand");
    }

    // Records are filled; what is of no whole one goes at the end.
    void Send(std::size_t, const Stamp& stamp) override {
        std::memcpy(m_body.data(), &stamp, sizeof stamp);
        Put(reinterpret_cast<const char*>(&m_header), sizeof m_header);
        Put(m_body.data(), m_body.size());
        if (stamp.number == 0 || (stamp.number & Meeting::kLast) != 0) {
            Write(m_record, m_gathered);
            m_gathered = 0;
        }
    }

    void Receive(std::vector<Stamp>& stamps) override {
        if (m_connection == nullptr) {
            Take(accept(m_listener, nullptr, nullptr));
            Require(SSL_accept(m_connection) == 1, "accept by hand");
        }
        m_reader.Receive(stamps, [this](char* to, std::size_t most) {
            std::size_t count = 0;
            Require(SSL_read_ex(m_connection, to, most, &count) == 1, "receive by hand");
            return count;
        });
    }

    void Answer(const Stamp&) override { Require(false, "one way only"); }

private:
    void Take(int socket) {
        SetOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
        m_connection = SSL_new(m_context);
        SSL_set_fd(m_connection, socket);
    }

    // Copied only where a record has more than that.
    void Put(const char* data, std::size_t size) {
        while (size != 0) {
            const std::size_t part = std::min(size, sizeof m_record - m_gathered);
            if (part == sizeof m_record) {
                Write(data, part);
            } else {
                std::memcpy(m_record + m_gathered, data, part);
                m_gathered += part;
            }
            if (m_gathered == sizeof m_record) {
                Write(m_record, m_gathered);
                m_gathered = 0;
            }
            data += part;
            size -= part;
        }
    }
    void Write(const char* data, std::size_t size) {
        Require(size == 0 ||
                    SSL_write(m_connection, data, static_cast<int>(size)) == static_cast<int>(size),
                "send by hand");
    }

    SSL_CTX* const m_context = SSL_CTX_new(TLS_method());
    SSL* m_connection = nullptr;
    HandHeader m_header;
    std::vector<char> m_body;  // of what is sent
    char m_record[16384];
    std::size_t m_gathered = 0;
    int m_listener = -1;
    HandReader m_reader;
};

}  // namespace

std::unique_ptr<Talker> MakeHandTlsTalker(const Manner& manner) {
    return std::make_unique<HandTlsTalker>(manner);
}

}  // namespace bench
