#include <gtest/gtest.h>

#include "KLVMsgInbox.h"
#include "traffic/Simulation.h"

namespace {

using namespace std::chrono_literals;
using Event = KLVMsgEvent;

struct ConnectionTest : testing::Test {
    ConnectionTest() { Renew(); }
    void Renew() { one.emplace(types, options); }

    void Queue(const std::vector<std::size_t>& sizes) {
        for (const std::size_t size : sizes) {
            one->output.Append("head", std::string(size - 4, 'x'), nullptr);
        }
    }
    // Sends a run, of which the system takes so much.
    std::size_t Run(std::size_t segment, std::size_t takes = 1 << 20) {
        const std::size_t size = one->output.Take(segment).size;
        one->Took(now, std::min(size, takes), takes < size);
        return size;
    }
    void HalfAMessageComes() {
        static KLVMsgWireReader::Buffer buffer;
        KLVMsgWireReader::Space spaces[2];
        KLVMsgWireReader::Arrivals arrivals;
        one->reader.MakeRoom(buffer, spaces);
        one->reader.Came(buffer, 1, arrivals);
        one->Came(now);
    }
    bool StallsAfter(std::chrono::milliseconds time, KLVMsgPeerWatch::Sample sample = {0, 0, 0ms}) {
        return one->Check(now += time, sample);
    }

    KLVMsgMessageTypes types;
    KLVMsgSessionOptions options;
    KLVMsgPeerWatch::Time now{1h};
    std::optional<KLVMsgConnection> one;
};

TEST_F(ConnectionTest, RunsEndWithAMessageAndFitASegment) {
    Queue({60, 40, 10, 300, 99, 70000, 30, 30, 50000, 30000});
    for (const std::size_t size : {100U, 10U, 300U, 99U, 65536U, 4464U, 60U}) {
        EXPECT_EQ(size, Run(100));
    }
    EXPECT_EQ(50000U, Run(1 << 20, 30000));
    EXPECT_EQ(20000U, Run(1 << 20)) << "what is left of a message goes alone";
    EXPECT_EQ(30000U, Run(0, 10));
    EXPECT_EQ(9U, one->output.MessagesTaken());
    EXPECT_EQ(29990U + 64, one->output.Cost());
}

TEST_F(ConnectionTest, StallIsToldOnceInEachDirectionUntilAByteMovesThere) {
    HalfAMessageComes();
    EXPECT_EQ(now + 30s, one->NextCheck(now));
    EXPECT_FALSE(StallsAfter(29999ms));
    EXPECT_TRUE(StallsAfter(1ms));
    EXPECT_TRUE(one->Stalls());
    EXPECT_FALSE(StallsAfter(60s));
    Queue({100});
    Run(0, 50);
    EXPECT_FALSE(StallsAfter(29s)) << "bytes that go do not tell it again";
    EXPECT_TRUE(StallsAfter(1s));
    HalfAMessageComes();
    Run(0, 10);
    EXPECT_FALSE(StallsAfter(29s));
    Run(0, 0);
    EXPECT_TRUE(StallsAfter(1s));
    Run(0, 10);
    EXPECT_TRUE(StallsAfter(30s));
    Run(0);
    one->InputEnded();
    EXPECT_FALSE(one->Stalls());
    EXPECT_EQ(Event::kCut, one->WhyOver());
}

TEST_F(ConnectionTest, NothingIsDueWhileNobodyReads) {
    HalfAMessageComes();
    one->AllowReading(now, false);
    EXPECT_FALSE(StallsAfter(1h));
    EXPECT_FALSE(one->Reads());
    one->AllowReading(now, true);
    one->AllowReading(now + 29s, true);
    EXPECT_FALSE(StallsAfter(29s));
    EXPECT_TRUE(StallsAfter(1s));
    one->AllowReading(now, false);
    EXPECT_FALSE(one->Stalls());
}

TEST_F(ConnectionTest, StallEndsIfWantedAndNotWhatIsDiscarded) {
    options.stallEnds = true;
    Renew();
    HalfAMessageComes();
    one->EndOutput(true);
    one->EndOutput(false);
    one->AllowReading(now, false);
    EXPECT_TRUE(one->Reads() && one->Discards());
    EXPECT_FALSE(StallsAfter(1h));
    Renew();
    HalfAMessageComes();
    EXPECT_TRUE(StallsAfter(30s));
    EXPECT_EQ(Event::kStalled, one->WhyOver());
    EXPECT_TRUE(one->IsOver());
}

TEST_F(ConnectionTest, WhereAllWasTakenBackNothingWaits) {
    for (const bool leaves : {false, true}) {
        Renew();
        Queue({100, 50});
        Run(0, 0);
        EXPECT_TRUE(one->IsFull());
        if (leaves) {
            one->OutputFailed(EPIPE);
        } else {
            EXPECT_TRUE(one->CutOut(0, 100));
            EXPECT_TRUE(one->IsFull());
            EXPECT_TRUE(one->CutOut(0, 50));
        }
        EXPECT_FALSE(one->IsFull());
        EXPECT_FALSE(StallsAfter(1h));
    }
}

TEST_F(ConnectionTest, LittleThatIsLeftOfABlockMovesToASmallerOne) {
    Queue({900, 3000, 12000, 40000, 100});
    const auto lastPiece = [&] {
        const void* const bytes = one->output.Take(0).pieces[3].iov_base;
        one->Took(now, 0, false);
        return bytes;
    };
    const void* const before = lastPiece();
    EXPECT_TRUE(one->CutOut(15900, 55900));
    EXPECT_NE(before, lastPiece());
    EXPECT_FALSE(one->CutOut(15900, 15950)) << "no message";
    EXPECT_EQ(16000U, Run(0));
}

TEST_F(ConnectionTest, PeerIsDeadWhenItAnswersNothingForAsLong) {
    const struct {
        unsigned unacknowledged, probes;
        std::chrono::milliseconds quiet, later;
        bool dies;
    } rows[] = {{1, 0, 25s, 25s, true},
                {0, 3, 25s, 25s, true},
                {0, 2, 25s, 25s, false},
                {1, 0, 24s, 25s, false},
                {1, 0, 1h, 24999ms, false}};
    for (const auto& row : rows) {
        Renew();
        StallsAfter(1h, {1, 3, 1h});
        EXPECT_FALSE(one->IsOver()) << "nothing was sent";
        Queue({100});
        Run(0);
        EXPECT_EQ(now + 5s, one->NextCheck(now));
        StallsAfter(row.later, {row.unacknowledged, row.probes, row.quiet});
        EXPECT_EQ(row.dies, one->IsOver());
        EXPECT_EQ(row.dies ? Event::kDead : Event::kNoCause, one->WhyOver());
    }
    StallsAfter(1s);
    EXPECT_EQ(KLVMsgPeerWatch::Time::max(), one->NextCheck(now)) << "all was acknowledged";
}

TEST_F(ConnectionTest, PeerThatEndsItsOutputStillGetsItsAnswer) {
    one->InputEnded();
    EXPECT_TRUE(one->Takes() && !one->Gives() && !one->Reads() && !one->IsOver());
    one->AwaitAnswer(now + 30s);
    EXPECT_EQ(now + 30s, one->NextCheck(now));
    Queue({100});
    Run(0, 60);
    StallsAfter(30s);
    EXPECT_FALSE(one->Takes() || one->EndsOutput());
    EXPECT_LT(now, one->NextCheck(now));
    Run(0);
    EXPECT_TRUE(one->EndsOutput());
    one->OutputEnded();
    EXPECT_TRUE(one->IsOver());
    EXPECT_EQ(Event::kClosed, one->WhyOver());
}

TEST_F(ConnectionTest, LeaveDropsWhatIsQueuedAndIsOverInTime) {
    Queue({100, 100});
    one->output.Take(0);
    one->Leave(now + 4s);
    one->Leave(now + 9s);
    EXPECT_TRUE(one->Writes()) << "a run is out";
    one->Took(now, 30, true);
    EXPECT_TRUE(one->EndsOutput() && one->Reads() && one->Discards() && !one->IsFull());
    EXPECT_EQ(0U, one->output.Messages());
    EXPECT_EQ(now + 4s, one->NextCheck(now));
    StallsAfter(3999ms);
    EXPECT_FALSE(one->IsOver());
    StallsAfter(1ms);
    EXPECT_EQ(Event::kShutDownHere, one->WhyOver());
    EXPECT_TRUE(one->IsOver() && !one->Writes());
}

TEST_F(ConnectionTest, EachFailureHasItsCause) {
    const struct {
        int error;
        bool ofOutput, isOver;
        Event::Cause cause;
        const char* words;
    } rows[] = {
        {EPIPE, true, false, Event::kReset, "the peer has reset the connection"},
        {ETIMEDOUT, true, true, Event::kDead, "the peer does not answer: Connection timed out"},
        {EHOSTUNREACH, false, true, Event::kDead, "the peer does not answer: No route to host"},
        {ENOMEM, false, true, Event::kNoMemory, "there was no memory: Cannot allocate memory"},
        {EIO, false, true, Event::kReset, "the connection has failed: Input/output error"}};
    for (const auto& row : rows) {
        Renew();
        row.ofOutput ? one->OutputFailed(row.error) : one->Failed(row.error);
        EXPECT_EQ(row.isOver, one->IsOver()) << row.words;
        EXPECT_EQ(!row.isOver, one->Reads()) << row.words;
        EXPECT_FALSE(one->Takes()) << row.words;
        one->InputEnded();
        EXPECT_TRUE(one->IsOver());
        EXPECT_EQ(row.cause, one->WhyOver()) << row.words;
        EXPECT_EQ(row.words, one->Text());
        EXPECT_EQ(row.error, one->Error());
    }
}

TEST_F(ConnectionTest, InboxFindsTheOldestOfAClassAndOfASender) {
    KLVMsgInbox inbox;
    KLVMsgInbox::Sender senders[2];
    inbox.Prepare(2);
    std::vector<const KLVMsgParcel*> pushed;
    for (const unsigned bits : {0U, 1U, 2U, 3U, 0U, 2U}) {
        KLVMsgParcel::Owner parcel = KLVMsgParcel::New(0);
        parcel->type = bits % 2;
        parcel->wireSize = 10;
        pushed.push_back(parcel.get());
        inbox.Push(senders[bits / 2], std::move(parcel));
    }
    EXPECT_EQ(pushed[2], inbox.Oldest(0, senders[1]));
    EXPECT_LT(pushed[0]->order, pushed[2]->order);
    for (const std::size_t next : {2U, 5U, 0U}) {
        EXPECT_EQ(pushed[next], next == 0 ? inbox.Oldest(0) : inbox.Oldest(0, senders[1]));
        inbox.Take(pushed[next]);
    }
    EXPECT_EQ(pushed[4], inbox.Oldest(0));
    EXPECT_EQ(nullptr, inbox.Oldest(0, senders[1]));
    EXPECT_EQ(3 * 74U, inbox.Cost());
    EXPECT_EQ(74U, senders[1].cost);
    EXPECT_EQ(1U, inbox.Count(0));
}

TEST_F(ConnectionTest, SimulatedNetworksBreakNothing) {
    for (std::uint64_t seed = 1; seed <= 5000; ++seed) {
        ASSERT_EQ("", Simulation::Run(seed));
    }
}

}  // namespace
