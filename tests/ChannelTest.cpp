#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "Faults.h"
#include "Support.h"

namespace {

const int unknown = 777;

using Channels = KLVBasVector<KLVMsgChannel>;
using Numbers = std::vector<int>;

Channels ListOf(const Numbers& numbers) {
    std::vector<KLVMsgChannel> channels(numbers.size());
    std::transform(numbers.begin(), numbers.end(), channels.begin(), ChannelOf);
    return ::ListOf(channels);
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

TEST(Query, AppendsExactMatchesInOrder) {
    ConnectedPair a("pair"), other("Pair"), b("pair");
    const Numbers numbers{b.number, other.number, unknown, a.number, b.number, a.number};
    KLVMsgChannelOrganizer organizer;
    organizer.channels = ListOf(numbers);
    TextMessage first("A"), small("a"), second("A"), nameless("");
    const auto messages =
        ::ListOf<KLVMsgSocketMessage*>({&first, &small, &second, &nameless, &first, &second});
    Channels found = ListOf({other.number});
    KLVBasVector<int> positions;
    KLVMsgChannelQueryByLabel("pai").Search(organizer.channels, found);
    KLVMsgMessageQueryByType("").Search(messages, positions);
    KLVMsgMessageQueryByType("A").Search(messages, positions);
    KLVMsgChannelQueryByLabel("pair").Search(organizer.channels, found);
    EXPECT_EQ((Numbers{3, 0, 2, 4, 5}), VectorOf(positions));
    EXPECT_EQ((Numbers{other.number, b.number, a.number, b.number, a.number}), NumbersOf(found));
}

TEST(Organizer, RemovingTakesTheFirstEntryOffEachList) {
    ConnectedPair twice, unwatched("once"), stranger, first, second;
    KLVMsgChannelOrganizer organizer;
    using Lists = std::pair<Numbers, Numbers>;
    const auto lists = [&] {
        return Lists(NumbersOf(organizer.channels), NumbersOf(organizer.waitable.channels));
    };
    organizer.RegisterChannel(unwatched.channel, false);
    organizer.RegisterChannel(twice.channel, true);
    organizer.RegisterChannel(twice.channel, true);
    organizer.RemoveChannel(twice.channel, false);
    organizer.RemoveChannel(stranger.channel, true);
    EXPECT_EQ(-2, twice.channel.connection + KLVMsgChannel(nullptr, "label").connection);
    EXPECT_EQ("", twice.peer.Receive(1) + stranger.peer.Receive(1));
    EXPECT_EQ(Lists({unwatched.number, twice.number}, {twice.number}), lists());
    KLVMsgChannelQueryByLabel query("once");
    organizer.RemoveChannel(&query, true);
    organizer.RegisterChannel(first.channel, true);
    organizer.RegisterChannel(second.channel, true);
    EXPECT_EQ(Lists({twice.number, first.number, second.number},
                    {twice.number, first.number, second.number}),
              lists());
    organizer.RemoveChannel(organizer.channels[0], true);  // an entry itself
    organizer.RemoveChannel(organizer.waitable.channels[1], true);
    EXPECT_EQ("", unwatched.peer.Receive(1) + second.peer.Receive(1));
    EXPECT_EQ(Lists({first.number}, {first.number}), lists());
    organizer.Shutdown();
    EXPECT_EQ("", first.peer.Receive(1));
    EXPECT_EQ(Lists(), lists());
}

TEST(Waitable, TimeLimitReachesTheSystemInMicroseconds) {
    ConnectedPair pair;
    pair.peer.Send("x");
    KLVMsgChannelWaitable waitable(ListOf({pair.number}));
    std::string limits;
    testing::internal::CaptureStderr();
    {
        const Interposed waits([&](SystemCall& call) -> std::optional<long> {
            limits += call.rest;
            return limits == "0 0 " ? std::optional<long>(-EINTR) : std::nullopt;
        });
        for (const int milliseconds : {0, -1, 20, 1000, 1001, 2500}) {
            waitable.WaitForConnectionAndMessages(milliseconds);
        }
    }
    printError("bind", EADDRINUSE);
    EXPECT_EQ(&aio_cerr, &endl(aio_cerr));
    EXPECT_EQ("waiting for select4\nwaiting for select22\nbind: " +
                  std::string(std::strerror(EADDRINUSE)) + "\n\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ("0 0 0 -1000 0 20000 0 1000000 1 1000 2 500000 ", limits);
    EXPECT_EQ(4u, waitable.readyChannels.Size());
}

TEST(Waitable, ReadableConnectionIsReportedOncePerEntry) {
    ConnectedPair low, high, quiet, ended;
    ended.EndByPeer();
    KLVMsgChannelWaitable dead(ListOf({ended.number, -1, unknown}));
    const CallLog log;
    dead.WaitForConnectionAndMessages(1000);
    EXPECT_EQ("", log.Names());
    KLVMsgChannelWaitable waitable(
        ListOf({high.number, high.number, ended.number, quiet.number, unknown, low.number}));
    high.peer.Send("x");
    low.peer.Close();
    EXPECT_TRUE(Eventually([&] {
        waitable.readyChannels.Clear();
        waitable.WaitForConnectionAndMessages(1000);
        return waitable.readyChannels.Size() == 3;
    }));
    EXPECT_EQ((Numbers{low.number, high.number, high.number}), NumbersOf(waitable.readyChannels));
    FailEachAllocation([&] { waitable.WaitForConnectionAndMessages(1000); },
                       [&, before = std::size_t{3}](int n, bool thrown) mutable {
                           before += thrown ? 0 : 3;
                           EXPECT_EQ(before, waitable.readyChannels.Size()) << n;
                       });
}

TEST(Waitable, ServerAcceptsOncePerWait) {
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
    EXPECT_EQ(0u, waitable.newChannels.Size() + waitable.readyChannels.Size());
    waitable.WaitForConnectionAndMessages(1000);
    ASSERT_EQ(1u, waitable.newChannels.Size());
    EXPECT_EQ(KLVString(), waitable.newChannels[0].GetLabel());
    EXPECT_TRUE(waitable.newChannels[0].IsActiveInCurrentThreads());
    waitable.WaitForConnectionAndMessages(1000);
    ASSERT_EQ(2u, waitable.newChannels.Size());
    EXPECT_FALSE(waitable.newChannels[0] == waitable.newChannels[1]);
}

TEST(Waitable, NumberGivenAgainIsTheNewConnectionsUnlessItsSocketIsOpen) {
    KLVMsgServerSocket* const server = StartLoopbackServer();
    ConnectedPair holder("holder"), talking, old("old");
    Communicator().AddConnection(holder.channel, true);
    talking.peer.Send("x");
    PlainPeer next(server->address.port), last(server->address.port);
    old.EndByPeer();
    KLVMsgChannelWaitable waitable(
        ListOf({old.number, server->descriptor, old.number, talking.number}));
    const CallLog log;
    waitable.WaitForConnectionAndMessages(1000);
    EXPECT_EQ(theWait + " accept", log.Names());
    EXPECT_EQ((Numbers{server->descriptor, talking.number}), NumbersOf(waitable.channels));
    EXPECT_EQ((Numbers{talking.number}), NumbersOf(waitable.readyChannels));
    EXPECT_TRUE(old.channel.IsActiveInCurrentThreads());
    EXPECT_EQ(KLVString(), old.channel.GetLabel());
    ::close(holder.number);  // behind the socket's back
    waitable.WaitForConnectionAndMessages(1000);
    EXPECT_EQ((Numbers{old.number, holder.number}), NumbersOf(waitable.newChannels));
    EXPECT_EQ(0u, Known().size()) << "what had the number before";
    EXPECT_EQ(holder.socket, holder.channel.GetSocket());
    last.Send("x");
    char byte = 0;
    EXPECT_EQ(1, holder.socket->read(&byte, 1));
}

TEST(Stream, LastPieceOfABodyIsNotCounted) {
    EXPECT_EQ("4 4 2 -> 8 abcdefghij", Write("abcdefghij", 4));
    EXPECT_EQ("4 4 -> 4 abcdefgh", Write("abcdefgh", 4));
    EXPECT_EQ("4 -> 4 abcd", Write("abcd", 4));
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
    {
        const FailingCall first("send", EAGAIN, 1);
        EXPECT_EQ("4 4 4 3 -> 7 <abcdefghij", Write("abcdefghij", 4));
    }
    ConnectedPair ended, closed, open;
    KLVMsgBufferedOutputStream stream(4), backwards(-1);
    ended.socket->ShutDownOutput();
    closed.socket->Close();
    char data[10] = {};
    for (int i = 0; i < 100; ++i) {  // each does not go round 2^31 times
        int count = 0;
        stream.m_connectionNumber = i % 2 == 0 ? ended.number : closed.number;
        stream.write(data, sizeof data, count);
        ASSERT_EQ(INT_MIN + 10, count);
        count = 0;
        backwards.m_connectionNumber = open.number;
        backwards.write(data, sizeof data, count);
        ASSERT_EQ(INT_MIN + 10, count);
    }
}

TEST(Stream, ReadIsOneReceive) {
    ConnectedPair connection;
    KLVMsgSimpleInputStream input;
    KLVMsgBufferedOutputStream output(4);
    char buffer[100] = {};
    int count = 42;
    for (const int number : {-1, unknown, StartLoopbackServer()->descriptor}) {
        input.m_connectionNumber = output.m_connectionNumber = number;
        input.read(buffer, 10, count);
        output.write(buffer, 10, count);
        EXPECT_EQ(42, count) << "without a stream socket";
    }
    input.m_connectionNumber = connection.number;
    connection.peer.Send(std::string(30, 'x'));
    input.read(buffer, 100, count);
    EXPECT_EQ(30, count);
}
