// What happens when a connection number comes back: the system gives a closed descriptor to whoever asks
// next.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <functional>

#include "Support.h"
#include "SystemCalls.h"

namespace {

KLVMsgSocketAddress Loopback(int port) { return KLVMsgSocketAddress("127.0.0.1", port); }

bool IsOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

// A file under the number of a descriptor that has been closed, to see whether it is touched.
class Stranger {
public:
    explicit Stranger(int number) : m_number(number) {
        EXPECT_FALSE(IsOpen(number));
        EXPECT_EQ(number, fcntl(STDERR_FILENO, F_DUPFD, number));
    }
    ~Stranger() { EXPECT_EQ(0, ::close(m_number)) << "it was closed by somebody else"; }
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;

private:
    int m_number;
};

// A connection made to a listener that stands already: it gets the lowest number that is free.
struct NextConnection {
    NextConnection(PlainServer& listener, const char* label)
        : socket(Registry().ConnectToServer(KLVMsgSocketAddress(), Loopback(listener.Port()))),
          channel(socket, label),
          peer(listener.Accept()) {}
    KLVMsgCommSocket* socket;
    KLVMsgChannel channel;
    PlainPeer peer;
};

// Runs code of the test where its body is written or read.
struct HookedMessage : TextMessage {
    explicit HookedMessage(const std::string& content = "") : TextMessage("Hooked", content) {}
    int WriteMessage(KLVMsgOutputStream* stream) override {
        hook();
        return TextMessage::WriteMessage(stream);
    }
    int ReadMessage(KLVMsgInputStream* stream) override {
        const int result = TextMessage::ReadMessage(stream);
        hook();
        char more = 0;
        late = 0;
        stream->read(&more, 1, late);
        return result;
    }
    KLVMsgSocketMessage* NewInstance() override { return new HookedMessage; }

    static inline std::function<void()> hook;
    static inline int late;  // the count of a read after the hook
};

class ConnectionNumbers : public testing::Test {
protected:
    ConnectionNumbers() {
        Communicator().SetDefaultInputStream(&input);
        Communicator().SetDefaultOutputStream(&output);
        Communicator().RegisterMessagePrototype("Text", &prototype);
        Communicator().RegisterMessagePrototype("Hooked", &hooked);
        HookedMessage::hook = [] {};
    }

    static void Cycle(int timeout = 1000) {
        Communicator().WaitConnectionsAndMessages(nullptr, timeout);
    }

    // A connection that the communicator knows and watches.
    struct Watched : ConnectedPair {
        explicit Watched(const char* label) : ConnectedPair(label) {
            Communicator().AddConnection(channel, true);
        }
    };

    static std::size_t Known(const char* label) {
        KLVMsgChannelQueryByLabel query(label);
        KLVBasVector<KLVMsgChannel> channels;
        Communicator().RetrieveConnections(&query, channels);
        return channels.Size();
    }

    // The received texts in the order of arrival.
    static std::string Take() {
        std::string texts;
        for (const char* type : {"Text", "Hooked"}) {
            KLVMsgMessageQueryByType query(type);
            KLVBasVector<KLVMsgSocketMessage*> messages;
            Communicator().IRetrieveMessages(&query, messages);
            for (KLVMsgSocketMessage* message : VectorOf(messages)) {
                texts = TextOf(message) + texts;
                delete message;
            }
        }
        return texts;
    }

    KLVMsgSimpleInputStream input;
    KLVMsgBufferedOutputStream output{65536};
    TextMessage prototype{"Text"};
    TextMessage hello{"Text", "hello"};
    HookedMessage hooked;
};

}  // namespace

TEST_F(ConnectionNumbers, ChannelListedTwiceIsReadOncePerCycle) {
    Watched twice("twice");
    Communicator().AddConnection(twice.channel, true);
    twice.peer.Send(TextBytes("Text", "a") + TextBytes("Text", "b"));
    Cycle();
    EXPECT_EQ("a", Take());
    KLVMsgChannelWaitable waitable(ListOf<KLVMsgChannel>({twice.channel, twice.channel}));
    waitable.WaitForConnectionAndMessages(1000);  // what that has found is read as well, once
    Communicator().WaitConnectionsAndMessages(&waitable, 1000);
    EXPECT_EQ("b", Take());
    twice.peer.Reset();
    Communicator().WaitConnectionsAndMessages(&waitable, 1000);
    EXPECT_EQ(0u, waitable.channels.Size());
}

TEST_F(ConnectionNumbers, NewConnectionUnderAnOldNumberStartsUnknown) {
    Watched gone("gone");
    unsigned int id = 0, next = 0;
    Communicator().ISendSocketMessage(gone.channel, &hello, id);
    gone.peer.Close();
    Cycle();
    NextConnection now(gone.listener, "now");
    ASSERT_EQ(gone.number, now.channel.connection);
    EXPECT_EQ(0u, Known("now"));
    EXPECT_TRUE(Communicator().QueryPendingStatus(id)) << "it leaves with the next transmission";
    Communicator().ISendSocketMessage(now.channel, &hello, next);
    EXPECT_EQ(id + 1, next);
    Communicator().AddConnection(now.channel, true);
    EXPECT_EQ(1u, Known("now"));
    Communicator().TransmitPendingMessage();
    EXPECT_FALSE(Communicator().QueryPendingStatus(id));
    now.socket->ShutDownOutput();
    EXPECT_EQ(TextBytes("Text", "hello"), now.peer.Receive(100)) << "its own, and once";
    now.peer.Send(TextBytes("Text", "a") + TextBytes("Text", "b"));
    Cycle();
    EXPECT_EQ("a", Take());
}

TEST_F(ConnectionNumbers, NumberGivenAwayDuringAnOperationIsNotServedByIt) {
    Watched gone("gone"), other("other");
    gone.EndByPeer();
    std::unique_ptr<NextConnection> now;
    unsigned int id = 0;
    const auto giveAway = [&] {
        if (now == nullptr) {
            now = std::make_unique<NextConnection>(gone.listener, "now");
            EXPECT_EQ(gone.number, now->channel.connection);
        }
    };
    HookedMessage first;
    HookedMessage::hook = giveAway;
    Communicator().ISendSocketMessage(other.channel, &first, id);
    Communicator().ISendSocketMessage(gone.channel, &hello, id);
    Communicator().TransmitPendingMessage();
    now->socket->ShutDownOutput();
    EXPECT_EQ("", now->peer.Receive(1));
    Registry().ShutDownConnection(gone.number);
    now.reset();

    KLVMsgChannel entry = gone.channel;
    Communicator().AddConnection(entry, false);
    struct GivingAway : KLVMsgChannelQuery {
        void Search(const KLVBasVector<KLVMsgChannel>& in,
                    KLVBasVector<KLVMsgChannel>& out) const override {
            out = in;
            giveAway();
        }
        std::function<void()> giveAway;
    } query;
    query.giveAway = giveAway;
    Communicator().RemoveConnection(&query, true);
    EXPECT_TRUE(now->channel.IsActiveInCurrentThreads());
    EXPECT_FALSE(other.channel.IsActiveInCurrentThreads());
}

TEST_F(ConnectionNumbers, NumberStaysTakenUntilTheEndOfItsLastTurn) {
    Watched cut("cut"), next("next");
    // In a wait: until its own turn is over.
    cut.peer.Send(TextBytes("Hooked", "whole").substr(0, 16));
    cut.peer.Close();
    std::unique_ptr<NextConnection> now;
    HookedMessage::hook = [&] {
        EXPECT_TRUE(IsOpen(cut.number) && cut.socket->closed);
        now = std::make_unique<NextConnection>(cut.listener, "now");
        EXPECT_NE(cut.number, now->channel.connection);
        now->peer.Send("x");
    };
    Cycle();
    EXPECT_EQ(-1, HookedMessage::late) << "a byte from another connection";
    EXPECT_FALSE(IsOpen(cut.number));
    Take();

    // In a transmission: until its last record is written or dropped.
    HookedMessage first("1"), second("2");
    int writes = 0;
    HookedMessage::hook = [&] {
        if (++writes == 1) {
            Registry().ShutDownConnection(next.number);
        }
        EXPECT_EQ(nullptr, Registry().GetSocket(next.number));
        EXPECT_TRUE(IsOpen(next.number));
    };
    unsigned int id = 0;
    Communicator().ISendSocketMessage(next.channel, &first, id);
    Communicator().ISendSocketMessage(next.channel, &second, id);
    Communicator().ISendSocketMessage(now->channel, &hello, id);
    const Interposed sends([&](SystemCall& call) -> std::optional<long> {
        EXPECT_TRUE(call.descriptor != now->channel.connection || !IsOpen(next.number));
        return std::nullopt;
    });
    Communicator().TransmitPendingMessage();
    EXPECT_EQ(1, writes);
}

TEST_F(ConnectionNumbers, RemovedDuringAWaitIsClosedAndDestroyedAfterIt) {
    Watched removed("removed");
    KLVMsgServerSocket* const server = StartLoopbackServer();
    const int port = server->address.port, number = server->descriptor;
    Communicator().AddConnection(KLVMsgChannel(server, "server"), true);
    bool waited = false;
    {
        const Interposed during([&](SystemCall& call) -> std::optional<long> {
            if (call.name == "select" && !waited) {
                waited = true;
                removed.channel.Shutdown();
                Registry().ShutDownConnection(number);
                EXPECT_EQ(nullptr, Registry().GetSocket(removed.number));
                EXPECT_EQ(nullptr, Registry().GetSocket(number));
                EXPECT_TRUE(IsOpen(removed.number) && IsOpen(number));
                EXPECT_EQ("", removed.peer.Receive(1)) << "both directions have ended";
            }
            return std::nullopt;
        });
        Cycle();
    }
    EXPECT_TRUE(waited);
    EXPECT_FALSE(IsOpen(removed.number) || IsOpen(number));
    EXPECT_FALSE(Registry().HasError(Registry().StartServer(Loopback(port), 1)->descriptor));
}

TEST_F(ConnectionNumbers, ServerIsStartedAgainOnItsPortWhileTheTaskRuns) {
    int port = 0;
    Communicator().PrepareStartupMessageTask();
    KLVMsgMessageTask task;
    KLVBasAtiThread thread(task);
    for (int round = 0; round < 200; ++round) {
        KLVMsgServerSocket* const server = Registry().StartServer(Loopback(port), 5);
        ASSERT_NE(nullptr, server);
        ASSERT_FALSE(Registry().HasError(server->descriptor)) << "in round " << round;
        port = server->address.port;
        KLVMsgChannel channel(server, "server");
        Communicator().AddConnection(channel, true);
        if (round % 20 == 0) {
            KLVBasUtlsleep(5);  // until it is waited for, mostly
        }
        channel.Shutdown();
    }
    Communicator().ShutdownMessageTask();
    thread.Join();
}

TEST_F(ConnectionNumbers, SocketClosesItsDescriptorOnce) {
    Watched left("left"), reset("reset");
    ConnectedPair shut;
    KLVMsgServerSocket* const server = StartLoopbackServer();
    left.EndByPeer();
    server->Shutdown();
    shut.socket->Close();  // its direction flags stay set
    reset.peer.Reset();
    {
        const CallLog log;
        Cycle();
        EXPECT_EQ("recv shutdown shutdown close", log.Names(reset.number));
    }
    {
        const Stranger a(left.number), b(server->descriptor), c(shut.number);
        const CallLog log;
        char byte = 0;
        shut.socket->ShutDownInput();
        shut.socket->ShutDownOutput();
        EXPECT_EQ(EBADF, std::exchange(shut.socket->lastError, 0));
        EXPECT_EQ(-1, shut.socket->read(&byte, 1));
        EXPECT_EQ(-1, shut.socket->write(&byte, 1));
        EXPECT_EQ(EBADF, shut.socket->lastError);
        EXPECT_EQ(-1, left.socket->read(&byte, 1));
        EXPECT_EQ(0, left.socket->lastError) << "its flag has ended that";
        server->Shutdown();
        EXPECT_EQ(nullptr, server->Accept());
        EXPECT_EQ(EBADF, server->lastError);
        for (const int number : {left.number, server->descriptor, shut.number}) {
            Registry().ShutDownConnection(number);
        }
        EXPECT_EQ("", log.Names());
    }
    // What is put in after that is owned again.
    ConnectedPair again;
    again.socket->Shutdown();
    again.socket->descriptor = fcntl(STDERR_FILENO, F_DUPFD, 0);
    again.socket->closed = false;
    again.socket->Shutdown();
    EXPECT_FALSE(IsOpen(again.socket->descriptor));
    Registry().ShutDownConnection(again.number);
}

TEST_F(ConnectionNumbers, WriteInPiecesToAnEndedSocketDoesNotGoRoundForEver) {
    ConnectedPair pair;
    KLVMsgBufferedOutputStream stream(4);
    stream.m_connectionNumber = pair.number;
    char data[10] = {};
    pair.socket->ShutDownOutput();
    for (int i = 0; i < 200; ++i) {  // each went round 2^31 times
        int count = 0;
        stream.write(data, sizeof data, count);
        ASSERT_EQ(std::numeric_limits<int>::min() + 10, count);
    }
}

TEST_F(ConnectionNumbers, DescriptorsBeyondTheSetAreAcceptedAndOnlySendable) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 1100;
    if (limit.rlim_max < limit.rlim_cur || setrlimit(RLIMIT_NOFILE, &limit) == -1) {
        GTEST_SKIP() << "the system allows too few descriptors";
    }
    KLVMsgServerSocket* const server = StartLoopbackServer();
    Communicator().AddConnection(KLVMsgChannel(server, "server"), true);
    PlainPeer peer(server->address.port);
    std::vector<int> fillers;
    while (fillers.empty() || fillers.back() < 1023) {
        fillers.push_back(fcntl(STDERR_FILENO, F_DUPFD, 0));
    }
    Cycle();
    for (const int filler : fillers) {
        ::close(filler);
    }
    KLVBasVector<KLVMsgChannel> channels;
    Communicator().RetrieveConnections(nullptr, channels);
    KLVMsgChannel high = VectorOf(channels).back();
    ASSERT_EQ(1024, high.connection);
    unsigned int id = 0;
    Communicator().ISendSocketMessage(high, &hello, id);
    Communicator().TransmitPendingMessage();
    EXPECT_EQ(TextBytes("Text", "hello"), peer.Receive(TextBytes("Text", "hello").size()));
    peer.Send(TextBytes("Text", "unread"));
    peer.Close();
    Cycle(0);
    EXPECT_EQ("", Take());
    EXPECT_TRUE(high.IsActiveInCurrentThreads());
}

TEST_F(ConnectionNumbers, DescriptorZeroIsWaitedFor) {
    PlainServer listener;
    const int kept = fcntl(0, F_DUPFD, 0);
    ::close(0);
    {
        NextConnection zero(listener, "zero");
        EXPECT_EQ(0, zero.channel.connection);
        Communicator().AddConnection(zero.channel, true);
        zero.peer.Send(TextBytes("Text", "a"));
        Cycle();
        EXPECT_EQ("a", Take());
        Registry().ShutDownConnection(0);
    }
    dup2(kept, 0);
    ::close(kept);
}
