#include "Support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <thread>

#include "Faults.h"

namespace {

std::string LengthBytes(const std::string& text) {
    const unsigned int length = static_cast<unsigned int>(text.size());
    return std::string(reinterpret_cast<const char*>(&length), sizeof length);
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
        TextMessage::hook = [] {};
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

bool Eventually(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(5);
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

std::array<int, 3> Held() {
    return {OpenDescriptors(), Blocks() - keptOnPurpose, TextMessage::alive};
}

// Whoever receives has a connection from here or that below.
KLVMsgServerSocket* StartLoopbackServer(int backlog) {
    Registry().ReleaseHeaderBuffers(true);
    return Registry().StartServer(KLVMsgSocketAddress("127.0.0.1", 0), backlog);
}

PlainPeer::PlainPeer(int port) : m_descriptor(socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in address = {AF_INET, htons(std::uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(0,
              connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

PlainPeer::PlainPeer(const Listener& listener)
    : m_descriptor(accept(listener.descriptor, nullptr, nullptr)) {}

void PlainPeer::Send(const std::string& bytes) {
    ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
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

ConnectedPair::ConnectedPair(std::shared_ptr<Listener> at, const KLVString& label)
    : listener(std::move(at)),
      socket(Registry().ConnectToServer(KLVMsgSocketAddress(), listener->address)),
      channel(socket, label),
      number(channel.connection),
      peer(*listener) {
    Registry().ReleaseHeaderBuffers(true);
}

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
    hook();
    return KLVMsgFramedMessage::WriteMessage(stream);
}

int TextMessage::ReadMessage(KLVMsgInputStream* stream) {
    const int result = KLVMsgFramedMessage::ReadMessage(stream);
    hook();
    return result;
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

Messaging::Messaging(int pieceSize) : output(pieceSize) {
    Communicator().SetDefaultInputStream(&input);
    Communicator().SetDefaultOutputStream(&output);
    Communicator().RegisterMessagePrototype("Text", &prototype);
}
