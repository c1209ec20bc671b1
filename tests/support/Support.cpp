#include "Support.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
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

// Reads until `length` bytes have come or the stream has no more; true for all of them.
bool ReadWhole(KLVMsgInputStream* stream, char* buffer, int length) {
    int done = 0, count = 1;
    for (; done < length && count > 0; done += count) {
        count = 0;
        stream->read(buffer + done, length - done, count);
    }
    return count > 0;
}

// Puts everything back after each test and looks whether that was all.
class Housekeeper : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        m_descriptors = OpenDescriptors();
        m_blocks = Blocks() - KeptBuffers();
        m_messages = TextMessage::alive;
    }

    void OnTestEnd(const testing::TestInfo& test) override {
        for (int number = -10; number < 1100; ++number) {
            Registry().ShutDownConnection(number);
        }
        KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
        KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
        if (test.result()->Passed()) {
            EXPECT_EQ(m_descriptors, OpenDescriptors()) << "descriptors are left";
            EXPECT_EQ(m_blocks, Blocks() - KeptBuffers()) << "blocks are left";
            EXPECT_EQ(m_messages, TextMessage::alive) << "messages are left";
        }
    }

    int m_descriptors = 0;
    int m_blocks = 0;
    int m_messages = 0;
};

const bool housekeeping = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new Housekeeper);
    return true;
}();

}  // namespace

// The buffers that a received header keeps are no leaks.
extern "C" const char* __lsan_default_options() { return SUPPRESSED_LEAKS; }

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

int OpenDescriptors() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<int>(std::distance(begin(open), end(open))) - 1;  // without the walk's own
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

void ConnectedPair::EndByPeer() {
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
    unsigned int length = 0;
    if (!ReadWhole(stream, reinterpret_cast<char*>(&length), sizeof length)) {
        return 0;
    }
    text.resize(length);
    return ReadWhole(stream, text.data(), static_cast<int>(length)) ? 1 : 0;
}

const std::string& TextOf(const KLVMsgSocketMessage* message) {
    return dynamic_cast<const TextMessage&>(*message).text;
}

KLVMsgChannel ChannelOf(int number) {
    KLVMsgChannel channel;
    channel.connection = number;
    return channel;
}
