// Bytes from a peer, for libFuzzer: into the header reader and the whole cycle. The first byte says how
// the peer ends the connection; what follows it is sent. However it goes, a good peer is served after it.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "Support.h"

namespace {

// Reads its body in pieces of a fixed size until there is no more: a body without an end of its own.
struct GreedyMessage : TextMessage {
    using TextMessage::TextMessage;
    int ReadMessage(KLVMsgInputStream* stream) override {
        char piece[7];
        int count = 0;
        do {
            stream->read(piece, sizeof piece, count = 0);
        } while (count > 0);
        return 1;
    }
    KLVMsgSocketMessage* NewInstance() override { return new GreedyMessage(type); }
};

// Asks for a body whose length is believed, but for the largest ones.
struct BoundedMessage : TextMessage {
    using TextMessage::TextMessage;
    int ReadMessage(KLVMsgInputStream* stream) override {
        unsigned int length = 0;
        int count = 0;
        stream->read(&length, sizeof length, count);
        if (count != sizeof length || length > 4096) {
            return 0;
        }
        text.resize(length);
        stream->read(text.data(), static_cast<int>(length), count);
        return 1;
    }
    KLVMsgSocketMessage* NewInstance() override { return new BoundedMessage(type); }
};

BoundedMessage empty("\x01"), text("Text");
GreedyMessage greedy("Greedy");
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
    for (const char* type : {"\x01", "Text", "Greedy"}) {
        KLVMsgMessageQueryByType ofType(type);
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
    for (TextMessage* prototype : {static_cast<TextMessage*>(&empty),
                                   static_cast<TextMessage*>(&text),
                                   static_cast<TextMessage*>(&greedy)}) {
        Communicator().RegisterMessagePrototype(prototype->type.c_str(), prototype);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    if (size != 0 && size < 60000) {
        Feed(reinterpret_cast<const char*>(data) + 1, size - 1, data[0] % 2 == 1);
        const std::string good = TextBytes("Text", "good");
        Require(Feed(good.data(), good.size(), false) == 1, "a good peer was not served");
        Require(OpenDescriptors() < 20, "descriptors are left");
    }
    return 0;
}
