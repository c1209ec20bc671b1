#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "Support.h"
#include "SystemCalls.h"

namespace {

const int unknown = 777;

using Channels = KLVBasVector<KLVMsgChannel>;
using Numbers = std::vector<int>;

Channels ListOf(const Numbers& numbers) {
    Channels list;
    for (const int number : numbers) {
        list.PushBack(ChannelOf(number));
    }
    return list;
}

Numbers NumbersOf(const Channels& channels) {
    Numbers numbers;
    for (const KLVMsgChannel& channel : VectorOf(channels)) {
        numbers.push_back(channel.connection);
    }
    return numbers;
}

// Writes `text` through a stream of this piece size, from behind a byte "<". Returns the lengths
// that were asked of send, the resulting count, and what came out at the peer.
std::string Write(const std::string& text, int pieceSize) {
    ConnectedPair connection;
    KLVMsgBufferedOutputStream stream(pieceSize);
    stream.m_connectionNumber = connection.number;
    std::string buffer = "<" + text;
    std::string asked;
    int count = 0;
    const Interposed sends([&](SystemCall& call) -> std::optional<long> {
        asked += call.name == "send" ? std::to_string(call.length) + " " : "";
        return std::nullopt;
    });
    stream.write(buffer.data() + 1, static_cast<int>(text.size()), count);
    connection.socket->ShutDownOutput();
    return asked + "-> " + std::to_string(count) + " " + connection.peer.Receive(100);
}

}  // namespace

TEST(Channel, SharesLabelAndLifeWithItsConnection) {
    ConnectedPair ended, shut("first");
    KLVMsgChannel copy(shut.socket, "second");
    EXPECT_TRUE(shut.channel == copy);
    EXPECT_EQ(KLVString("second"), shut.channel.GetLabel());
    EXPECT_TRUE(ended.channel.IsActiveInCurrentThreads() && copy.IsActiveInCurrentThreads());
    ended.EndByPeer();
    shut.channel.Shutdown();
    EXPECT_EQ(-1, shut.channel.connection);
    EXPECT_EQ("", shut.peer.Receive(1));
    for (KLVMsgChannel* channel : {&ended.channel, &shut.channel, &copy}) {
        EXPECT_FALSE(channel->IsActiveInCurrentThreads());
    }
}

TEST(Channel, ElementFunctionsComeFromTheLibrary) {
    for (const char* name :
         {"21KLVBasStandardDestroyI13KLVMsgChannelEvPv",
          "21KLVBasStandardDestroyI22KLVMsgChannelMsgStructEvPv",
          "18KLVBasStandardCopyI13KLVMsgChannelEvPvPKv",
          "18KLVBasStandardCopyI22KLVMsgChannelMsgStructEvPvPKv", "13KLVBasPODCopyIjEvPvPKv",
          "13KLVBasPODCopyIiEvPvPKv", "13KLVBasPODCopyIPvEvS0_PKv"}) {
        EXPECT_NE(nullptr, dlsym(RTLD_DEFAULT, ("_Z" + std::string(name)).c_str())) << name;
    }
}

TEST(Query, SelectsExactMatchesInOrderAndAppends) {
    ConnectedPair a("pair"), other("Pair"), b("pair");
    const Channels all = ListOf({b.number, other.number, unknown, a.number});
    Channels found = ListOf({other.number});
    KLVMsgChannelQueryByLabel("pair").Search(all, found);
    KLVMsgChannelQueryByLabel("pai").Search(all, found);
    KLVMsgChannelQueryByLabel("").Search(all, found);
    EXPECT_EQ((Numbers{other.number, b.number, a.number, unknown}), NumbersOf(found));

    TextMessage first("A"), small("a"), second("A"), nameless("");
    KLVBasVector<KLVMsgSocketMessage*> messages;
    for (TextMessage* message : {&first, &small, &second, &nameless}) {
        messages.PushBack(message);
    }
    KLVBasVector<int> positions;
    KLVMsgMessageQueryByType("").Search(messages, positions);
    KLVMsgMessageQueryByType("A").Search(messages, positions);
    ASSERT_EQ(3u, positions.Size());
    EXPECT_EQ((Numbers{3, 0, 2}), (Numbers{positions[0], positions[1], positions[2]}));
}

TEST(Organizer, RemovingShutsDownAndTakesTheFirstEntryOffEachList) {
    ConnectedPair twice("twice"), unwatched("once"), stranger;
    KLVMsgChannelOrganizer organizer;
    organizer.RegisterChannel(unwatched.channel, false);
    organizer.RegisterChannel(twice.channel, true);
    organizer.RegisterChannel(twice.channel, true);
    EXPECT_EQ((Numbers{twice.number, twice.number}), NumbersOf(organizer.waitable.channels));
    organizer.RemoveChannel(twice.channel, false);
    organizer.RemoveChannel(stranger.channel, true);
    EXPECT_EQ(-1, twice.channel.connection);
    EXPECT_EQ("", twice.peer.Receive(1) + stranger.peer.Receive(1));
    EXPECT_TRUE(unwatched.channel.IsActiveInCurrentThreads());
    EXPECT_EQ((Numbers{unwatched.number, twice.number}), NumbersOf(organizer.channels));
    KLVMsgChannelQueryByLabel query("once");
    organizer.RemoveChannel(&query, true);
    EXPECT_EQ("", unwatched.peer.Receive(1));
    EXPECT_EQ((Numbers{twice.number}), NumbersOf(organizer.channels));
    EXPECT_EQ((Numbers{twice.number}), NumbersOf(organizer.waitable.channels));
    ConnectedPair first, second;
    organizer.RegisterChannel(first.channel, true);
    organizer.RegisterChannel(second.channel, true);
    organizer.RemoveChannel(organizer.channels[1], true);  // an entry itself
    organizer.RemoveChannel(organizer.waitable.channels[1], true);
    EXPECT_EQ("", first.peer.Receive(1) + second.peer.Receive(1));
    EXPECT_EQ((Numbers{twice.number}), NumbersOf(organizer.channels));
    organizer.RemoveChannel(nullptr, true);
    EXPECT_EQ(0u, organizer.channels.Size() + organizer.waitable.channels.Size());
}

TEST(Waitable, TimeLimitReachesSelectInMicrosecondsAndARefusalIsReported) {
    ConnectedPair connection;
    connection.peer.Send("x");
    KLVMsgChannelWaitable waitable(ListOf({connection.number}));
    std::vector<std::string> limits;
    testing::internal::CaptureStderr();
    {
        const Interposed selects([&](SystemCall& call) -> std::optional<long> {
            limits.push_back(call.limit);
            return limits.size() == 1 ? std::optional<long>(-EINTR) : std::nullopt;
        });
        for (const int milliseconds : {0, -1, 20, 1000, 1001, 2500}) {
            waitable.WaitForConnectionAndMessages(milliseconds);
        }
    }
    EXPECT_EQ("waiting for select4\nwaiting for select22\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(
        (std::vector<std::string>{"0:0", "0:-1000", "0:20000", "0:1000000", "1:1000", "2:500000"}),
        limits);
    EXPECT_EQ(4u, waitable.readyChannels.Size());
}

TEST(Waitable, ReadableConnectionsAreReportedOncePerEntry) {
    ConnectedPair low, high, quiet, ended;
    ended.EndByPeer();
    KLVMsgChannelWaitable dead(ListOf({ended.number, -1, unknown}));
    const CallLog log;
    dead.WaitForConnectionAndMessages(1000);
    EXPECT_EQ("", log.Names());
    KLVMsgChannelWaitable waitable(
        ListOf({high.number, ended.number, quiet.number, unknown, low.number, high.number}));
    waitable.WaitForConnectionAndMessages(0);
    EXPECT_EQ(0u, waitable.readyChannels.Size());
    high.peer.Send("x");
    low.peer.Close();
    EXPECT_TRUE(Eventually([&] {
        waitable.readyChannels.Clear();
        waitable.WaitForConnectionAndMessages(1000);
        return waitable.readyChannels.Size() == 3;
    }));
    EXPECT_EQ((Numbers{low.number, high.number, high.number}), NumbersOf(waitable.readyChannels));
    waitable.WaitForConnectionAndMessages(1000);
    EXPECT_EQ(6u, waitable.readyChannels.Size());
}

TEST(Waitable, OneConnectionIsAcceptedPerServerWhereThatIsWanted) {
    KLVMsgServerSocket* const server = StartLoopbackServer();
    PlainPeer first(server->address.port), second(server->address.port);
    KLVMsgChannelWaitable waitable(ListOf({server->descriptor, server->descriptor}));
    waitable.acceptConnections = false;
    waitable.WaitForConnectionAndMessages(1000);
    waitable.acceptConnections = true;
    {
        const FailingCall failing("accept", EMFILE);
        waitable.WaitForConnectionAndMessages(1000);
    }
    EXPECT_EQ(0u, waitable.newChannels.Size());
    waitable.WaitForConnectionAndMessages(1000);
    ASSERT_EQ(1u, waitable.newChannels.Size());
    EXPECT_EQ(KLVString(), waitable.newChannels[0].GetLabel());
    EXPECT_TRUE(waitable.newChannels[0].IsActiveInCurrentThreads());
    waitable.WaitForConnectionAndMessages(1000);
    ASSERT_EQ(2u, waitable.newChannels.Size());
    EXPECT_FALSE(waitable.newChannels[0] == waitable.newChannels[1]);
    EXPECT_EQ(0u, waitable.readyChannels.Size());
}

TEST(Waitable, DescriptorsBeyondTheSetAreLeftOut) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 1100;
    if (limit.rlim_max < limit.rlim_cur || setrlimit(RLIMIT_NOFILE, &limit) == -1) {
        GTEST_SKIP() << "the system allows too few descriptors";
    }
    ConnectedPair connection;
    connection.peer.Send("x");
    for (const int number : {1023, 1024}) {
        auto* const socket = new KLVMsgCommSocket(KLVMsgSocketAddress());
        socket->descriptor = fcntl(connection.number, F_DUPFD, number);
        socket->closed = false;
        ASSERT_EQ(number, socket->descriptor);
        ASSERT_EQ(1, Registry().AddConnection(socket));
    }
    KLVMsgChannelWaitable waitable(ListOf({1024, 1023}));
    waitable.WaitForConnectionAndMessages(1000);
    EXPECT_EQ((Numbers{1023}), NumbersOf(waitable.readyChannels));
}

TEST(Waitable, NumberOfAClosedSocketGoesToTheNewConnection) {
    KLVMsgServerSocket* const server = StartLoopbackServer();
    ConnectedPair old("old");
    PlainPeer next(server->address.port);
    old.EndByPeer();
    KLVMsgChannelWaitable waitable(ListOf({old.number, server->descriptor, old.number}));
    const CallLog log;
    waitable.WaitForConnectionAndMessages(1000);
    EXPECT_EQ("select accept", log.Names());
    EXPECT_EQ((Numbers{old.number}), NumbersOf(waitable.newChannels));
    EXPECT_EQ((Numbers{server->descriptor}), NumbersOf(waitable.channels));
    EXPECT_TRUE(old.channel.IsActiveInCurrentThreads());
    EXPECT_EQ(KLVString(), old.channel.GetLabel());
}

TEST(Waitable, NumberOfAnOpenSocketKeepsItsEntry) {
    KLVMsgServerSocket* const server = StartLoopbackServer();
    ConnectedPair holder;
    PlainPeer next(server->address.port);
    ::close(holder.number);  // behind the socket's back
    KLVMsgChannelWaitable waitable(ListOf({server->descriptor}));
    waitable.WaitForConnectionAndMessages(1000);
    ASSERT_EQ((Numbers{holder.number}), NumbersOf(waitable.newChannels));
    EXPECT_EQ(holder.socket, holder.channel.GetSocket());
    next.Send("x");
    char byte = 0;
    EXPECT_EQ(1, holder.socket->read(&byte, 1));
}

TEST(Stream, BodyGoesOutInPiecesAndTheLastOneIsNotCounted) {
    EXPECT_EQ("4 4 2 -> 8 abcdefghij", Write("abcdefghij", 4));
    EXPECT_EQ("4 4 -> 4 abcdefgh", Write("abcdefgh", 4));
    EXPECT_EQ("4 -> 4 abcd", Write("abcd", 4));
    EXPECT_EQ("3 -> 3 abc", Write("abc", 4));
    EXPECT_EQ("0 -> 0 ", Write("", 4));
}

TEST(Stream, NextPieceStartsWhereTheCountStands) {
    {
        const Interposed shortSends([](SystemCall& call) -> std::optional<long> {
            call.length = call.name == "send" ? std::min(call.length, 3L) : call.length;
            return std::nullopt;
        });
        EXPECT_EQ("4 4 4 -> 6 abcdefghi", Write("abcdefghij", 4));
        EXPECT_EQ("4 -> 3 abc", Write("abcd", 4));
    }
    const FailingCall first("send", EAGAIN, 1);
    EXPECT_EQ("4 4 4 3 -> 7 <abcdefghij", Write("abcdefghij", 4));
}

TEST(Stream, ReadIsOneReceiveAndNothingMovesWithoutAStreamSocket) {
    ConnectedPair connection;
    KLVMsgSimpleInputStream input;
    KLVMsgBufferedOutputStream output(4);
    char buffer[100] = {};
    int count = 42;
    for (const int number : {-1, unknown, StartLoopbackServer()->descriptor}) {
        input.m_connectionNumber = output.m_connectionNumber = number;
        input.read(buffer, 10, count);
        output.write(buffer, 10, count);
        EXPECT_EQ(42, count);
    }
    input.m_connectionNumber = connection.number;
    connection.peer.Send(std::string(30, 'x'));
    input.read(buffer, 100, count);
    EXPECT_EQ(30, count);
    {
        const FailingCall failing("recv", EIO);
        input.read(buffer, 100, count);
        EXPECT_EQ(-1, count);
    }
    connection.peer.Close();
    input.read(buffer, 100, count);
    EXPECT_EQ(0, count);
}
