// Bytes from a peer, for libFuzzer: into the header reader and the whole cycle. The first byte says
// how the peer ends the connection; what follows it is sent. However it goes, a good peer is served
// next.
#include <KLVMsgFramedMessage.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Library.h"

namespace {

// Its body is a length and so many bytes or, endless, whatever comes in small pieces.
class FuzzedMessage : public KLVMsgFramedMessage {
public:
    FuzzedMessage(const char* type, bool endless) : m_type(type), m_endless(endless) {}
    bool Encode(std::string&) const override { return false; }
    bool Decode(std::string_view) override { return true; }
    std::size_t Limit() const override { return 4096; }
    int ReadMessage(KLVMsgInputStream* stream) override {
        char bytes[7];
        int count = m_endless ? 1 : 0;
        while (count > 0) {
            count = 0;
            stream->read(bytes, sizeof bytes, count);
        }
        return m_endless ? 1 : KLVMsgFramedMessage::ReadMessage(stream);
    }
    KLVMsgSocketMessage* NewInstance() override { return new FuzzedMessage(*this); }
    KLVString GetMessageType() const override { return m_type; }

private:
    const char* m_type;
    bool m_endless;
};

FuzzedMessage prototypes[] = {{"T", false}, {"Framed", false}, {"Endless", true}};
KLVMsgSimpleInputStream input;

void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

// Sends the bytes over a connection of their own, ends it, and has all of it read. Returns how many
// messages came.
std::size_t Feed(const char* bytes, std::size_t size, bool reset) {
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "no connection");
    auto* const socket = new KLVMsgCommSocket(KLVMsgSocketAddress());
    socket->descriptor = ends[0];
    socket->closed = false;
    socket->inputOpen = socket->outputOpen = true;
    Registry().AddConnection(socket);
    KLVMsgChannel channel(socket, "fuzzed");
    Communicator().AddConnection(channel, true);
    if (reset) {
        Require(send(ends[0], "x", 1, 0) == 1, "send");  // unread at the end: a reset
    }
    Require(send(ends[1], bytes, size, 0) == static_cast<ssize_t>(size), "send");
    close(ends[1]);
    while (channel.IsActiveInCurrentThreads()) {
        Communicator().WaitConnectionsAndMessages(nullptr, 1000);
    }
    KLVMsgChannelQueryByLabel query("fuzzed");
    Communicator().RemoveConnection(&query, true);

    std::size_t count = 0;
    for (const FuzzedMessage& prototype : prototypes) {
        KLVMsgMessageQueryByType ofType(prototype.GetMessageType());
        KLVBasVector<KLVMsgSocketMessage*> messages;
        Communicator().IRetrieveMessages(&ofType, messages);
        for (std::size_t i = 0; i < messages.Size(); ++i, ++count) {
            delete messages[i];
        }
    }
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Communicator().SetDefaultInputStream(&input);
    for (FuzzedMessage& prototype : prototypes) {
        Communicator().RegisterMessagePrototype(prototype.GetMessageType().Text(), &prototype);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    if (size != 0 && size < 60000) {
        Feed(reinterpret_cast<const char*>(data) + 1, size - 1, data[0] % 2 == 1);
        Require(Feed("\1\0\0\0T\2\0\0\0ok", 11, false) == 1, "a good peer was not served");
        const int next = dup(0);
        Require(next < 20, "descriptors are left");
        close(next);
    }
    return 0;
}
