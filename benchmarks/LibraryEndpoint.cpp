#include "Exchange.h"

namespace bench {
namespace {

// Where all received bodies of this process go, and how long they are.
char* const received = new char[largestBody];
int expectedSize = 0;

class LibraryEndpoint : public Endpoint {
public:
    explicit LibraryEndpoint(Tuning tuning) : m_tuning(tuning) {
        static Message prototype(received, expectedSize);
        Registry().RegisterMessagePrototype(typeName, &prototype);
    }

    int Listen() override {
        m_server = Registry().StartServer(KLVMsgSocketAddress("127.0.0.1", 0), 16);
        return m_server->address.port;
    }

    void Accept() override {
        KLVMsgCommSocket* const accepted = m_server->Accept();
        Require(Registry().AddConnection(accepted) == 1, "library accept");
        Use(accepted);
    }

    void Connect(int port) override {
        const KLVMsgSocketAddress address("127.0.0.1", port);
        Use(Registry().ConnectToServer(address, address));
    }

    void Send(const char* body, int size) override {
        Message message(const_cast<char*>(body), size);
        Require(Registry().SendMessageHeader(m_number, message.GetMessageType()) == 1,
                "library send");
        m_output.m_connectionNumber = m_number;
        Require(message.WriteMessage(&m_output) == size, "library send of the body");
    }

    void Flush() override { FlushSocket(m_number); }

    const char* Receive(int size) override {
        expectedSize = size;
        KLVString type;
        Require(Registry().RetrieveMessageTypeFromSocket(m_number, type) == 1, "library header");
        KLVMsgSocketMessage* const message = Registry().GetMsgInstance(type);
        Require(message != nullptr, "library message");
        m_input.m_connectionNumber = m_number;
        message->ReadMessage(&m_input);
        delete message;
        return received;
    }

private:
    void Use(const KLVMsgCommSocket* socket) {
        Require(socket != nullptr, "library connection");
        m_number = socket->descriptor;
        Tune(m_number, m_tuning);
    }

    Tuning m_tuning;
    KLVMsgServerSocket* m_server = nullptr;
    int m_number = -1;
    KLVMsgBufferedOutputStream m_output{largestBody};
    KLVMsgSimpleInputStream m_input;
};

class BareEndpoint : public Endpoint {
public:
    explicit BareEndpoint(Tuning tuning) : m_tuning(tuning) {}

    int Listen() override {
        int port = 0;
        m_server = ListenOnLoopback(port);
        return port;
    }

    void Accept() override { Use(accept(m_server, nullptr, nullptr)); }
    void Connect(int port) override { Use(ConnectToLoopback(port)); }
    void Send(const char* body, int size) override { SendBare(m_descriptor, body, size); }

    void Flush() override { FlushSocket(m_descriptor); }

    const char* Receive(int size) override {
        ReceiveBare(m_descriptor, received, size);
        return received;
    }

private:
    void Use(int descriptor) {
        Require(descriptor != -1, "bare connection");
        m_descriptor = descriptor;
        Tune(m_descriptor, m_tuning);
    }

    Tuning m_tuning;
    int m_server = -1;
    int m_descriptor = -1;
};

}  // namespace

std::unique_ptr<Endpoint> MakeLibraryEndpoint(Tuning tuning) {
    return std::make_unique<LibraryEndpoint>(tuning);
}

std::unique_ptr<Endpoint> MakeBareEndpoint(Tuning tuning) {
    return std::make_unique<BareEndpoint>(tuning);
}

}  // namespace bench
