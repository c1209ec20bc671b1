// The vocabulary of the tests: plain TCP peers, a message class, what the communicator knows and
// has received, waiting for a condition, counting descriptors.
//
// Every test starts and ends with nothing: after it both singletons are finalized, what they had
// open is closed, and a descriptor, a message or a block of the library that is left is a failure.
// Only the send ids go on: they count through the whole process.
#pragma once

#include <KLVMsgCommModules.h>
#include <KLVMsgFramedMessage.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

inline KLVMsgSocketCommunicator& Communicator() {
    return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
}
inline KLVMsgConnectionServicesUtils& Registry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

// Asks again and again until it holds; false after much longer than a test may take.
bool Eventually(const std::function<bool()>& condition);

int OpenDescriptors();  // how many the process has open

// That, the blocks of the library that are in use without those that were kept on purpose, and the
// TextMessages that are alive: what may not grow.
std::array<int, 3> Held();
inline int keptOnPurpose = 0;

// A listening socket of the registry on 127.0.0.1 and a port of the system's choice.
KLVMsgServerSocket* StartLoopbackServer(int backlog = 16);

// A listening socket on 127.0.0.1 that nobody knows and that closes at its end.
struct Listener final : KLVMsgServerSocket {
    explicit Listener(const KLVMsgSocketAddress& local = KLVMsgSocketAddress("127.0.0.1", 0))
        : KLVMsgServerSocket(local, 16) {}
    ~Listener() { closed ? void() : Shutdown(); }
};

// Another TCP endpoint made without the library: what a foreign, broken or hostile peer sends.
class PlainPeer {
public:
    explicit PlainPeer(int port);                  // connects to one of 127.0.0.1
    explicit PlainPeer(const Listener& listener);  // accepts there
    ~PlainPeer() { Close(); }
    PlainPeer(const PlainPeer&) = delete;
    void Send(const std::string& bytes);      // to a connection that may have gone
    std::string Receive(std::size_t length);  // or what came before the connection ended
    void Close();  // in order: the other side reads the end of the stream
    void Reset();  // at once: the other side gets ECONNRESET

private:
    int m_descriptor;
};

// A registered connection, its channel, and the peer at the other end: made to a listener of its
// own, or to that of another one.
struct ConnectedPair {
    explicit ConnectedPair(const KLVString& label = "")
        : ConnectedPair(std::make_shared<Listener>(), label) {}
    ConnectedPair(std::shared_ptr<Listener> at, const KLVString& label);
    void EndByPeer();  // and the socket learns of it by reading

    std::shared_ptr<Listener> listener;
    KLVMsgCommSocket* socket;
    KLVMsgChannel channel;
    int number;
    PlainPeer peer;
};

// The bytes of a header, and of a whole TextMessage.
std::string HeaderBytes(const std::string& typeName);
std::string TextBytes(const std::string& typeName, const std::string& text);

// A message of any type name whose body is a text. Counts the objects alive, and runs what a test
// wants to happen where a body is written or has been read.
struct TextMessage : KLVMsgFramedMessage {
    explicit TextMessage(const std::string& typeName, const std::string& content = "")
        : type(typeName), text(content) {
        ++alive;
    }
    TextMessage(const TextMessage& other) : TextMessage(other.type, other.text) {}
    ~TextMessage() override { --alive; }

    bool Encode(std::string& bytes) const override { return bytes = text, true; }
    bool Decode(std::string_view bytes) override { return text = bytes, true; }
    int WriteMessage(KLVMsgOutputStream* stream) override;
    int ReadMessage(KLVMsgInputStream* stream) override;
    KLVMsgSocketMessage* NewInstance() override { return new TextMessage(type); }
    KLVString GetMessageType() const override { return KLVString(type.c_str()); }

    static inline std::atomic<int> alive{0};
    static inline std::function<void()> hook = [] {};  // until the end of the test
    std::string type, text;
};

const std::string& TextOf(const KLVMsgSocketMessage* message);

// The library's arrays and the standard's, and a channel made of its number.
template <class T>
KLVBasVector<T> ListOf(const std::vector<T>& elements) {
    KLVBasVector<T> list;
    for (const T& element : elements) {
        list.PushBack(element);
    }
    return list;
}
template <class T>
std::vector<T> VectorOf(const KLVBasVector<T>& list) {
    return list.Size() == 0 ? std::vector<T>() : std::vector<T>(&list[0], &list[0] + list.Size());
}
KLVMsgChannel ChannelOf(int number);

// The channels that the communicator knows: all, or those with a label.
std::vector<KLVMsgChannel> Known(const char* label = nullptr);

// Queues a message and returns its id.
unsigned int Send(const KLVMsgChannel& channel, KLVMsgSocketMessage* message);

// Takes the received texts out of the inbox, the newest first.
std::vector<std::string> Take(const char* type = "Text");

// The communicator with streams and a prototype for "Text" messages.
struct Messaging {
    explicit Messaging(int pieceSize = 65536);
    KLVMsgSimpleInputStream input;
    KLVMsgBufferedOutputStream output;
    TextMessage prototype{"Text"}, hello{"Text", "hello"};
};
struct MessagingTest : testing::Test, Messaging {
    // One cycle; with data on the way it waits until there is some.
    static void Cycle(KLVMsgChannelWaitable* waitable = nullptr, int limit = 1000) {
        Communicator().WaitConnectionsAndMessages(waitable, limit);
    }
    using Texts = std::vector<std::string>;
};
