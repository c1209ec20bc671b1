// The vocabulary of the tests: plain TCP peers, a message class, waiting for a condition, counting
// descriptors.
//
// Every test starts and ends with nothing: after it both singletons are finalized, what they had
// open is closed, and a descriptor, a message or a block of the library that is left is a failure.
// Only the send ids go on: they count through the whole process.
#pragma once

#include <KLVMsgCommModules.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

KLVMsgSocketCommunicator& Communicator();
KLVMsgConnectionServicesUtils& Registry();

// Asks again and again until it holds, for half a minute at the most; false when it never did.
bool Eventually(const std::function<bool()>& condition);

// How many descriptors the process has open.
int OpenDescriptors();

// A listening socket of the registry on 127.0.0.1 and a port of the system's choice.
KLVMsgServerSocket* StartLoopbackServer(int backlog = 16);

// Another TCP endpoint made without the library: what a foreign, broken or hostile peer sends.
class PlainPeer {
public:
    // Connects to a port of 127.0.0.1, or takes over a connected descriptor.
    explicit PlainPeer(int port);
    struct TakeOver {
        int descriptor;
    };
    explicit PlainPeer(TakeOver connected) : m_descriptor(connected.descriptor) {}
    ~PlainPeer() { Close(); }
    PlainPeer(const PlainPeer&) = delete;
    PlainPeer& operator=(const PlainPeer&) = delete;

    void Send(const std::string& bytes);
    bool SendAny(const std::string& bytes);  // the same to a connection that may have gone

    // Exactly `length` bytes, or as many as came before the connection ended.
    std::string Receive(std::size_t length);

    void Close();  // in order: the other side reads the end of the stream
    void Reset();  // at once: the other side gets ECONNRESET

private:
    int m_descriptor;
};

// A listening endpoint made without the library, on 127.0.0.1 and a port of the system's choice.
class PlainServer {
public:
    PlainServer();
    ~PlainServer();
    PlainServer(const PlainServer&) = delete;
    PlainServer& operator=(const PlainServer&) = delete;

    int Port() const { return m_port; }
    PlainPeer::TakeOver Accept();

private:
    int m_descriptor;
    int m_port;
};

// A registered connection made with ConnectToServer, its channel, and the peer at the other end.
struct ConnectedPair {
    explicit ConnectedPair(const KLVString& label = "") : channel(socket, label) {}

    // The peer closes, and the socket learns of it by reading.
    void EndByPeer();

    PlainServer listener;
    KLVMsgCommSocket* socket = Registry().ConnectToServer(
        KLVMsgSocketAddress(), KLVMsgSocketAddress("127.0.0.1", listener.Port()));
    KLVMsgChannel channel;
    int number = socket->descriptor;
    PlainPeer peer{listener.Accept()};
};

// The bytes of a header, and of a whole TextMessage.
std::string HeaderBytes(const std::string& typeName);
std::string TextBytes(const std::string& typeName, const std::string& text);

// A message of any type name whose body is a text: a 4-byte length, then the bytes. Counts the
// objects alive.
class TextMessage : public KLVMsgSocketMessage {
public:
    explicit TextMessage(const std::string& typeName, const std::string& content = "")
        : type(typeName), text(content) {
        ++alive;
    }
    ~TextMessage() override { --alive; }
    TextMessage(const TextMessage&) = delete;
    TextMessage& operator=(const TextMessage&) = delete;

    int WriteMessage(KLVMsgOutputStream* stream) override;
    int ReadMessage(KLVMsgInputStream* stream) override;
    KLVMsgSocketMessage* NewInstance() override { return new TextMessage(type); }
    KLVString GetMessageType() const override { return KLVString(type.c_str()); }

    static inline std::atomic<int> alive{0};

    std::string type;
    std::string text;
};

// The text of a message that is known to be a TextMessage.
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
    std::vector<T> elements;
    for (std::size_t i = 0; i < list.Size(); ++i) {
        elements.push_back(list[i]);
    }
    return elements;
}
KLVMsgChannel ChannelOf(int number);
