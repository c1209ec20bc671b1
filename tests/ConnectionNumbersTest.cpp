// Connection numbers that come back: the system gives a closed descriptor to whoever asks next.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "Faults.h"
#include "Support.h"

namespace {

bool IsOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

struct ConnectionNumbers : MessagingTest {
    // A connection that the communicator knows and watches.
    struct Watched : ConnectedPair {
        explicit Watched(const char* label) : ConnectedPair(label) {
            Communicator().AddConnection(channel, true);
        }
    };

    // The count of a read of one byte from a connection.
    int ReadOne(int number) {
        char byte = 0;
        int count = 0;
        input.m_connectionNumber = number;
        input.read(&byte, 1, count);
        return count;
    }
};

}  // namespace

TEST_F(ConnectionNumbers, ChannelListedTwiceIsReadOncePerCycle) {
    Watched twice("twice");
    Communicator().AddConnection(twice.channel, true);
    twice.peer.Send(TextBytes("Text", "a") + TextBytes("Text", "b") + TextBytes("Text", "c"));
    Cycle();
    EXPECT_EQ(Texts{"a"}, Take());
    ConnectedPair closing;
    closing.peer.Send(TextBytes("Text", "d"));
    KLVMsgChannelWaitable waitable(
        ListOf<KLVMsgChannel>({twice.channel, closing.channel, twice.channel}));
    waitable.WaitForConnectionAndMessages(1000);  // what that has found is read as well, once
    Cycle(&waitable);
    EXPECT_EQ((Texts{"d", "b"}), Take());
    EXPECT_EQ(0u, waitable.readyChannels.Size());
    closing.peer.Close();
    Cycle(&waitable);
    EXPECT_EQ(Texts{"c"}, Take());
    EXPECT_FALSE(closing.channel.IsActiveInCurrentThreads());
    EXPECT_EQ(3u, waitable.channels.Size());
}

TEST_F(ConnectionNumbers, NewConnectionUnderAnOldNumberStartsUnknown) {
    Watched gone("gone"), too("too");
    unsigned int id = Send(gone.channel, &hello);
    gone.EndByPeer();
    too.EndByPeer();
    ConnectedPair now(gone.listener, "now"), another(gone.listener, "now");
    ASSERT_EQ(gone.number + too.number, now.number + another.number);
    EXPECT_EQ(0u, Known().size());
    EXPECT_TRUE(Communicator().QueryPendingStatus(id)) << "it leaves with the next transmission";
    EXPECT_EQ(id + 1, Send(now.channel, &hello));
    Communicator().AddConnection(now.channel, true);
    EXPECT_EQ(1u, Known("now").size());
    Communicator().TransmitPendingMessage();
    EXPECT_FALSE(Communicator().QueryPendingStatus(id));
    now.socket->ShutDownOutput();
    EXPECT_EQ(TextBytes("Text", "hello"), now.peer.Receive(100)) << "its own, and once";
    now.peer.Send(TextBytes("Text", "a") + TextBytes("Text", "b"));
    another.peer.Send(TextBytes("Text", "nobody watches that"));
    Cycle();
    EXPECT_EQ(Texts{"a"}, Take());
}

TEST_F(ConnectionNumbers, NumberGivenAwayDuringAnOperationIsNotServedByIt) {
    struct : KLVMsgChannelQuery {
        void Search(const KLVBasVector<KLVMsgChannel>& in,
                    KLVBasVector<KLVMsgChannel>& out) const override {
            out = in;
            TextMessage::hook();
        }
    } all;
    Watched other("other");
    for (const char* during : {"transmission", "wait", "removal"}) {
        Watched gone("gone");
        std::unique_ptr<ConnectedPair> now;
        TextMessage::hook = [&] {
            if (now == nullptr) {
                ::close(gone.number);  // behind its socket's back
                now = std::make_unique<ConnectedPair>(gone.listener, "now");
                EXPECT_EQ(gone.number, now->number);
                now->peer.Send(TextBytes("Text", "later"));
            }
        };
        other.peer.Send(TextBytes("Text", "a"));
        gone.peer.Send(TextBytes("Text", "b"));
        Send(other.channel, &hello);
        Send(gone.channel, &hello);
        *during == 't'   ? Communicator().TransmitPendingMessage()
        : *during == 'w' ? Cycle()
                         : Communicator().RemoveConnection(&all, true);
        now->socket->ShutDownOutput();
        EXPECT_EQ("", now->peer.Receive(1)) << during;
        EXPECT_EQ(*during == 'w' ? Texts{"a"} : Texts{}, Take());
        EXPECT_TRUE(now->channel.IsActiveInCurrentThreads());
        EXPECT_EQ(*during == 'r' ? 0u : 1u, Known().size());
        Registry().ShutDownConnection(gone.number);
    }
    EXPECT_FALSE(other.channel.IsActiveInCurrentThreads());
}

TEST_F(ConnectionNumbers, NumberStaysTakenUntilTheEndOfItsLastTurn) {
    Watched cut("cut"), next("next");
    // In a wait: until its own turn is over.
    cut.peer.Send(TextBytes("Text", "whole").substr(0, 14));
    cut.peer.Close();
    std::unique_ptr<ConnectedPair> now;
    TextMessage::hook = [&] {
        EXPECT_TRUE(IsOpen(cut.number) && cut.socket->closed);
        now = std::make_unique<ConnectedPair>(cut.listener, "now");
        EXPECT_NE(cut.number, now->channel.connection);
        now->peer.Send("x");
        EXPECT_EQ(-1, ReadOne(cut.number)) << "a byte from another connection";
    };
    Cycle();
    EXPECT_FALSE(IsOpen(cut.number));
    EXPECT_EQ(1u, Take().size());

    // In a transmission: until its last record is written or dropped.
    int writes = 0;
    TextMessage::hook = [&] {
        if (++writes == 1) {
            Registry().ShutDownConnection(next.number);
        }
        EXPECT_EQ(nullptr, Registry().GetSocket(next.number));
        EXPECT_EQ(writes == 1, IsOpen(next.number));
    };
    Send(next.channel, &hello);
    Send(next.channel, &hello);
    Send(now->channel, &hello);
    Communicator().TransmitPendingMessage();
    EXPECT_EQ(2, writes);
}

TEST_F(ConnectionNumbers, RemovedDuringAWaitIsGoneAfterIt) {
    Watched removed("removed"), other("other");
    KLVMsgServerSocket* const server = StartLoopbackServer();
    const int port = server->address.port, number = server->descriptor;
    KLVMsgChannelWaitable waitable(
        ListOf<KLVMsgChannel>({removed.channel, KLVMsgChannel(server, "server")}));
    bool waited = false;
    other.peer.Send("xxx");
    {
        const CallLog log;
        const Interposed during([&](SystemCall& call) -> std::optional<long> {
            if (call.name == "close" && !IsOpen(number)) {  // the last one, which is closed once
                ReadOne(other.number);
            }
            if (call.name == theWait && !waited) {
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
        waitable.WaitForConnectionAndMessages(1000);
        EXPECT_EQ(0u, waitable.readyChannels.Size());
        EXPECT_EQ("shutdown shutdown close", log.Names(removed.number));
    }
    EXPECT_TRUE(waited);
    EXPECT_FALSE(IsOpen(removed.number) || IsOpen(number));
    EXPECT_FALSE(Registry().HasError(Registry().StartServer({"127.0.0.1", port}, 1)->descriptor));
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
        server->Close();
        EXPECT_EQ(EBADF, std::exchange(server->lastError, 0));
        KLVMsgCommSocket(*left.socket).Close();
        server->Shutdown();
        EXPECT_EQ(nullptr, server->Accept());
        EXPECT_EQ(EBADF, server->lastError);
        for (const int number : {left.number, server->descriptor, shut.number}) {
            Registry().ShutDownConnection(number);
        }
        EXPECT_EQ("", log.Names());
    }
    // What is put in after that is owned again, by whichever field that is told.
    ConnectedPair again;
    KLVMsgCommSocket& socket = *again.socket;
    for (const int way : {0, 1, 2, 3, 4}) {
        socket.Shutdown();
        const int copy = fcntl(STDERR_FILENO, F_DUPFD, socket.descriptor + way % 2);
        socket.descriptor = copy;
        (way == 0 ? socket.closed : way == 4 ? socket.outputOpen : socket.inputOpen) = way >= 2;
        socket.Shutdown();
        EXPECT_FALSE(IsOpen(copy)) << "way " << way;
    }
}

TEST_F(ConnectionNumbers, DescriptorPutInWhileTheFirstIsStillHeldIsClosedAsWell) {
    Watched held("held");
    TextMessage::hook = [&] {
        held.socket->Shutdown();
        const int second = dup(STDERR_FILENO);
        held.socket->descriptor = second;
        held.socket->closed = false;
        held.socket->Close();
        EXPECT_FALSE(IsOpen(second));
        EXPECT_TRUE(IsOpen(held.number));
    };
    held.peer.Send(TextBytes("Text", "a"));
    Cycle();
    EXPECT_EQ(Texts{"a"}, Take());
    EXPECT_FALSE(IsOpen(held.number));
}

TEST_F(ConnectionNumbers, DescriptorsBeyondTheSetAreOnlySentTo) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 1100;
    if (setrlimit(RLIMIT_NOFILE, &limit) == -1) {
        GTEST_SKIP() << "the system allows too few descriptors";
    }
    const int kept = dup(0);
    for (const int number : {0, 1023, 1024}) {
        ConnectedPair pair;
        auto* const socket = new KLVMsgCommSocket(*pair.socket);
        socket->descriptor = dup2(pair.number, number);
        Registry().AddConnection(socket);
        KLVMsgChannel channel(socket, "");
        Communicator().AddConnection(channel, true);
        Send(channel, &hello);
        Communicator().TransmitPendingMessage();
        const std::string bytes = TextBytes("Text", "hello");
        EXPECT_EQ(bytes, pair.peer.Receive(bytes.size()));
        pair.peer.Send(bytes);
        Cycle();
        EXPECT_EQ(number == 1024 ? Texts{} : Texts{"hello"}, Take());
        EXPECT_TRUE(channel.IsActiveInCurrentThreads());
        Registry().ShutDownConnection(number);
        dup2(kept, 0);
    }
    ::close(kept);
}
