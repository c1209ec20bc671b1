#include <array>
#include <boost/asio.hpp>

#include "Exchange.h"

namespace bench {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

// Header and body leave with one gathering write, as one would use the library by itself.
class AsioEndpoint : public Endpoint {
public:
    explicit AsioEndpoint(Tuning tuning) : m_tuning(tuning) {}

    int Listen() override {
        m_acceptor.open(tcp::v4());
        m_acceptor.bind({asio::ip::address_v4::loopback(), 0});
        m_acceptor.listen();
        return m_acceptor.local_endpoint().port();
    }

    void Accept() override {
        m_acceptor.accept(m_socket);
        Tune(m_socket.native_handle(), m_tuning);
    }

    void Connect(int port) override {
        m_socket.connect({asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(port)});
        m_socket.set_option(asio::socket_base::linger(true, 0));
        m_socket.set_option(asio::socket_base::keep_alive(true));
        Tune(m_socket.native_handle(), m_tuning);
    }

    void Send(const char* body, int size) override {
        const int length = typeNameLength;
        const std::array<asio::const_buffer, 3> parts = {
            asio::buffer(&length, sizeof length), asio::buffer(typeName, typeNameLength),
            asio::buffer(body, static_cast<std::size_t>(size))};
        asio::write(m_socket, parts);
    }

    void Flush() override { FlushSocket(m_socket.native_handle()); }

    const char* Receive(int size) override {
        int length = 0;
        char name[typeNameLength];
        const std::array<asio::mutable_buffer, 2> header = {asio::buffer(&length, sizeof length),
                                                            asio::buffer(name, sizeof name)};
        asio::read(m_socket, header);
        Require(length == typeNameLength && std::memcmp(name, typeName, sizeof name) == 0,
                "asio header");
        asio::read(m_socket, asio::buffer(m_body.get(), static_cast<std::size_t>(size)));
        return m_body.get();
    }

private:
    Tuning m_tuning;
    asio::io_context m_context;
    tcp::acceptor m_acceptor{m_context};
    tcp::socket m_socket{m_context};
    std::unique_ptr<char[]> m_body = std::make_unique<char[]>(largestBody);
};

}  // namespace

std::unique_ptr<Endpoint> MakeAsioEndpoint(Tuning tuning) {
    return std::make_unique<AsioEndpoint>(tuning);
}

}  // namespace bench
