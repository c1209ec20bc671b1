#include "Support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "Faults.h"

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

std::string LengthBytes(const std::string& text) {
    const unsigned int length = static_cast<unsigned int>(text.size());
    return std::string(reinterpret_cast<const char*>(&length), sizeof length);
}

// Reads until so many bytes have come or the stream has no more.
std::string Read(KLVMsgInputStream* stream, std::size_t length) {
    std::string bytes(length, '\0');
    std::size_t done = 0;
    for (int count = 1; done < length && count > 0; done += static_cast<std::size_t>(count)) {
        count = 0;
        stream->read(&bytes[done], static_cast<int>(length - done), count);
        count = std::max(count, 0);
    }
    return bytes.substr(0, done);
}

// Puts everything back after each test and looks whether that was all.
class Housekeeper : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { m_before = Held(); }

    void OnTestEnd(const testing::TestInfo& test) override {
        for (int number = -10; number < 1100; ++number) {
            Registry().ShutDownConnection(number);
        }
        KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
        KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
        if (test.result()->Passed()) {
            EXPECT_EQ(m_before, Held());
        }
    }

    std::array<int, 3> m_before;
};

const bool housekeeping = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new Housekeeper);
    return true;
}();

}  // namespace

// The buffers that a received header keeps are no leaks.
extern "C" const char* __lsan_default_options() { return SUPPRESSED_LEAKS; }

// Asking for more memory than there is gets none, as without a sanitizer.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

KLVMsgSocketCommunicator& Communicator() {
    return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
}

KLVMsgConnectionServicesUtils& Registry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

bool Eventually(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool Sleeps(int thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string number, name, state;
    stat >> number >> name >> state;
    return state == "S";
}

int OpenDescriptors() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<int>(std::distance(begin(open), end(open))) - 1;  // without the walk's own
}

std::array<int, 3> Held() {
    return {OpenDescriptors(), Blocks() - KeptBuffers(), TextMessage::alive};
}

KLVMsgServerSocket* StartLoopbackServer(int backlog) {
    return Registry().StartServer(KLVMsgSocketAddress("127.0.0.1", 0), backlog);
}

PlainPeer::PlainPeer(int port) : m_descriptor(socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in address = Loopback(port);
    EXPECT_EQ(0,
              connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

void PlainPeer::Send(const std::string& bytes) { EXPECT_TRUE(SendAny(bytes)); }

bool PlainPeer::SendAny(const std::string& bytes) {
    return ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

std::string PlainPeer::Receive(std::size_t length) {
    std::string bytes(length, '\0');
    const ssize_t count = ::recv(m_descriptor, bytes.data(), length, MSG_WAITALL);
    bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return bytes;
}

void PlainPeer::Close() {
    if (m_descriptor != -1) {
        close(m_descriptor);
        m_descriptor = -1;
    }
}

void PlainPeer::Reset() {
    const linger reset = {1, 0};
    setsockopt(m_descriptor, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    Close();
}

PlainServer::PlainServer() : m_descriptor(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    EXPECT_EQ(0, bind(m_descriptor, reinterpret_cast<const sockaddr*>(&address), length));
    EXPECT_EQ(0, listen(m_descriptor, 16));
    getsockname(m_descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
}

PlainServer::~PlainServer() { close(m_descriptor); }

PlainPeer::TakeOver PlainServer::Accept() { return {accept(m_descriptor, nullptr, nullptr)}; }

Connection::Connection(PlainServer& listener, const KLVString& label)
    : socket(Registry().ConnectToServer(KLVMsgSocketAddress(),
                                        KLVMsgSocketAddress("127.0.0.1", listener.Port()))),
      channel(socket, label),
      number(channel.connection),
      peer(listener.Accept()) {}

void Connection::EndByPeer() {
    peer.Close();
    char byte = 0;
    EXPECT_EQ(0, socket->read(&byte, 1));
}

std::string HeaderBytes(const std::string& typeName) { return LengthBytes(typeName) + typeName; }

std::string TextBytes(const std::string& typeName, const std::string& text) {
    return HeaderBytes(typeName) + LengthBytes(text) + text;
}

int TextMessage::WriteMessage(KLVMsgOutputStream* stream) {
    std::string bytes = LengthBytes(text) + text;
    int count = 0;
    stream->write(bytes.data(), static_cast<int>(bytes.size()), count);
    return 1;
}

int TextMessage::ReadMessage(KLVMsgInputStream* stream) {
    const std::string bytes = Read(stream, 4);
    unsigned int length = 0;
    std::memcpy(&length, bytes.data(), bytes.size());
    text = Read(stream, length);
    return text.size() == length ? 1 : 0;
}

const std::string& TextOf(const KLVMsgSocketMessage* message) {
    return dynamic_cast<const TextMessage&>(*message).text;
}

KLVMsgChannel ChannelOf(int number) {
    KLVMsgChannel channel;
    channel.connection = number;
    return channel;
}

std::vector<KLVMsgChannel> Known(const char* label) {
    KLVMsgChannelQueryByLabel query(label);
    KLVBasVector<KLVMsgChannel> channels;
    Communicator().RetrieveConnections(label == nullptr ? nullptr : &query, channels);
    return VectorOf(channels);
}

unsigned int Send(const KLVMsgChannel& channel, KLVMsgSocketMessage* message) {
    unsigned int id = 0;
    Communicator().ISendSocketMessage(channel, message, id);
    return id;
}

std::vector<std::string> Take(const char* type) {
    KLVMsgMessageQueryByType query(type);
    KLVBasVector<KLVMsgSocketMessage*> messages;
    Communicator().IRetrieveMessages(&query, messages);
    std::vector<std::string> texts;
    for (KLVMsgSocketMessage* message : VectorOf(messages)) {
        texts.push_back(TextOf(message));
        delete message;
    }
    return texts;
}

Messaging::Messaging() {
    Communicator().SetDefaultInputStream(&input);
    Communicator().SetDefaultOutputStream(&output);
    Communicator().RegisterMessagePrototype("Text", &prototype);
}
