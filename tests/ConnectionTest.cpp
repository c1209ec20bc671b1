#include <gtest/gtest.h>

#include "traffic/Simulation.h"

namespace {

using namespace std::chrono_literals;
using Event = KLVMsgEvent;

struct ConnectionTest : testing::Test {
    ConnectionTest() { Renew(); }
    void Renew() { one.emplace(types, options); }

    void Queue(std::size_t size) {
        one->output.Append("head", std::string(size - 4, 'x'), nullptr);
    }
    // Of what is queued the system takes so much.
    void Run(std::size_t takes = 1 << 20) {
        const std::size_t size = one->output.Take(0).size;
        one->Took(now, std::min(size, takes), takes < size);
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

TEST_F(ConnectionTest, StallIsToldOnceInEachDirectionUntilAByteMovesThere) {
    HalfAMessageComes();
    EXPECT_EQ(now + 30s, one->NextCheck(now));
    EXPECT_FALSE(StallsAfter(29999ms));
    EXPECT_TRUE(StallsAfter(1ms));
    EXPECT_TRUE(one->Stalls());
    EXPECT_FALSE(StallsAfter(60s));
    Queue(100);
    Run(50);
    EXPECT_FALSE(StallsAfter(29s)) << "bytes that go do not tell it again";
    EXPECT_TRUE(StallsAfter(1s));
    Run(10);
    EXPECT_FALSE(StallsAfter(29s));
    Run(0);
    HalfAMessageComes();
    EXPECT_TRUE(StallsAfter(1s));
    Run(10);
    one->AllowReading(now, false);
    EXPECT_TRUE(StallsAfter(30s)) << "of what goes";
    Run();
    one->AllowReading(now, true);
    EXPECT_FALSE(one->Stalls());
    EXPECT_TRUE(StallsAfter(30s)) << "of what comes";
    one->AllowReading(now, false);
    EXPECT_FALSE(one->Stalls()) << "it is not read";
    one->InputEnded();
    EXPECT_EQ(Event::kCut, one->WhyOver());
}

TEST_F(ConnectionTest, NothingIsDueOfWhatIsNotLookedAt) {
    options.stallEnds = true;
    for (const bool discards : {false, true}) {
        Renew();
        HalfAMessageComes();
        if (discards) {
            one->EndOutput(true);
            one->EndOutput(false);
        }
        one->AllowReading(now, false);
        EXPECT_TRUE(one->Reads() == discards && one->Discards() == discards);
        EXPECT_FALSE(StallsAfter(1h));
        one->AllowReading(now, true);
        one->AllowReading(now + 29s, true);
        EXPECT_FALSE(StallsAfter(29s));
        EXPECT_EQ(!discards, StallsAfter(1s)) << "counted from when it was read again";
        EXPECT_EQ(discards ? Event::kNoCause : Event::kStalled, one->WhyOver());
        EXPECT_EQ(!discards, one->IsOver());
    }
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
        Queue(100);
        Run();
        EXPECT_EQ(now + 5s, one->NextCheck(now));
        StallsAfter(row.later / 2, {1, 0, 0ms});
        Queue(100);
        Run();
        StallsAfter(row.later - row.later / 2, {row.unacknowledged, row.probes, row.quiet});
        EXPECT_EQ(row.dies, one->IsOver());
        EXPECT_EQ(row.dies ? Event::kDead : Event::kNoCause, one->WhyOver());
    }
    StallsAfter(1s);
    EXPECT_EQ(KLVMsgPeerWatch::Time::max(), one->NextCheck(now)) << "all was acknowledged";
    one->AllowReading(now, false);
    one->OutputFailed(ETIMEDOUT);
    EXPECT_FALSE(one->IsOver()) << "what has come can still be read";
    EXPECT_EQ(Event::kDead, one->WhyOver());
    options.silence = 1s;
    Renew();
    Queue(100);
    Run();
    EXPECT_EQ(now + 200ms, one->NextCheck(now));
}

TEST_F(ConnectionTest, LeaveIsOverInTimeWithoutWhatIsQueued) {
    Queue(200);
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

TEST_F(ConnectionTest, LittleIsQueuedInLittleMemory) {
    Queue(900);
    Queue(900);
    EXPECT_EQ(2, one->output.Take(0).count) << "blocks";
    one->Took(now, 1800, false);
    const int before = Allocations();
    one->output.Append("head", "body", nullptr);
    EXPECT_EQ(before + 1, Allocations()) << "none was kept";
}

TEST(ConnectionOutput, TakesNothingBackThatIsHeld) {
    KLVMsgOutput output;
    const auto append = [&] { return output.Append("head", "body", nullptr); };
    const auto first = append(), second = append();
    output.Take(0);
    output.Took(2, 7);
    EXPECT_FALSE(output.CutOut(first, second)) << "its first byte is";
    const auto third = append();
    EXPECT_TRUE(output.CutOut(second, third));
    output.Clear();
    const auto begin = output.Appended();
    EXPECT_TRUE(output.CutOut(begin, append())) << "nothing is any more";
    EXPECT_TRUE(output.IsEmpty());
}

TEST_F(ConnectionTest, EachDirectionEndsByItself) {
    one->OutputFailed(ECONNRESET);
    EXPECT_TRUE(one->Reads() && !one->Takes());
    one->InputEnded();
    EXPECT_TRUE(one->IsOver());
    EXPECT_EQ(Event::kReset, one->WhyOver()) << "the first cause";
    Renew();
    one->InputEnded();
    one->AwaitAnswer(now + 30s);
    EXPECT_EQ(now + 30s, one->NextCheck(now));
    EXPECT_TRUE(one->Takes() && !one->Gives());
    StallsAfter(30s);
    EXPECT_TRUE(one->EndsOutput() && !one->Takes());
    EXPECT_EQ(KLVMsgConnection::Time::max(), one->NextCheck(now + 30s)) << "nothing is due";
}

TEST_F(ConnectionTest, SimulatedNetworksBreakNothing) {
    for (std::uint64_t seed = 1; seed <= 5000; ++seed) {
        ASSERT_NO_THROW(Simulation(seed).Run());
    }
}

}  // namespace
