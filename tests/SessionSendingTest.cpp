#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <map>
#include <thread>

#include "Sessions.h"

namespace {

constexpr std::size_t kFloodSize = (std::size_t{24} << 20) + 12;  // on the wire

// The words that arrive at a session until one is "end".
std::string UntilEnd(Session& session) {
    std::string all;
    for (std::string next; (next = session.Next()) != "end";) {
        all += next + " ";
    }
    return all;
}

TEST(SessionSending, EveryFormOfAMessageArrivesOnceAndInOrder) {
    Pair pair;
    const Word constant("constant");
    Word changing("reference");
    EXPECT_TRUE(pair.here.Post("peer", constant));
    EXPECT_TRUE(pair.here.Send("peer", changing, ever));
    EXPECT_TRUE(pair.here.Post(pair.peer, Word("value")));
    EXPECT_TRUE(pair.here.Send(KLVMsgPeers::All(), std::make_unique<Word>("pointer"), ever));
    EXPECT_EQ(EINVAL, pair.here.Post("peer", std::unique_ptr<Word>()).error);
    const std::string large(200000, 'x');
    EXPECT_TRUE(pair.here.Send("peer", Word(large), ever));
    EXPECT_TRUE(pair.here.Post("peer", Bare("bare")));
    EXPECT_TRUE(pair.here.Post("peer", Word("end")));
    EXPECT_EQ("constant reference value pointer " + large + " ", UntilEnd(pair.there));
    EXPECT_EQ("bare", pair.there.Next<Bare>());
    EXPECT_EQ(7U, pair.here.Counts().messagesSent);
    EXPECT_EQ(pair.here.Counts(pair.peer).bytesSent, pair.there.Counts("peer").bytesReceived);
}

// Whoever writes, nothing overtakes and nothing is left lying.
TEST(SessionSending, ManyThreadsSendRightAfterTheyHaveConnected) {
    Session server;
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.push_back(std::async(std::launch::async, [&] {
            Session client;
            for (int round = 0; round < 20; ++round) {
                const std::string label = std::to_string(round);
                ASSERT_TRUE(client.Connect(At(server.port), label, ever));
                ASSERT_TRUE(client.Post(label, Word("post")));
                ASSERT_TRUE(client.Send(label, Word("send"), ever));
            }
            ASSERT_TRUE(client.End(ever));
        }));
    }
    std::map<KLVMsgPeer, std::string> got;
    for (int i = 0; i < 8 * 20 * 2; ++i) {
        const auto word = server.Receive<Word>(ever);
        ASSERT_TRUE(word);
        got[word.peer] += word->text;
    }
    EXPECT_FALSE(server.Receive<Word>(0ms)) << "and lets go of the last one";
    threads.clear();
    EXPECT_EQ(160U, got.size());
    for (const auto& [peer, texts] : got) {
        EXPECT_EQ("postsend", texts);
    }
}

TEST(SessionSending, WhatIsPostedBeforeTheStartGoesInOrderAfterIt) {
    Session server;
    KLVMsgSession client;
    EXPECT_TRUE(client.Connect(At(server.port), "server", ever));
    EXPECT_TRUE(client.Post("server", Word("one")));
    EXPECT_EQ(KLVMsgOutcome::kTooLate, client.Send("server", Word("withdrawn"), 1ms).status);
    EXPECT_TRUE(client.Post("server", Word("end")));
    EXPECT_TRUE(client.Start());
    EXPECT_EQ("one ", UntilEnd(server));
    EXPECT_FALSE(server.Receive<Word>(0ms));
}

TEST(SessionSending, ABacklogGoesOutAsThePeerReadsIt) {
    for (const bool wholeHeaders : {true, false}) {
        KLVMsgSessionOptions options;
        options.wholeHeaders = wholeHeaders;
        MutePair pair(options);
        pair.session.Post("mute", flood);
        for (int i = 0; i < 1000; ++i) {
            pair.session.Post("mute", Word(std::string(5000, 'y')));
        }
        EXPECT_EQ(kFloodSize, pair.mute.Receive(kFloodSize).size());
        auto sent = std::async([&] { return pair.session.Send("mute", Word("last"), ever); });
        pair.mute.Receive(1000 * 5012);
        EXPECT_EQ(WordBytes("last"), pair.mute.Receive(16));
        EXPECT_TRUE(sent.get());
    }
}

TEST(SessionSending, AFullQueueSaysSoAndTakesMoreWhenThereIsRoom) {
    KLVMsgSessionOptions options;
    options.queueLimit = 10000;
    MutePair pair(options);
    EXPECT_TRUE(pair.session.Post("mute", flood)) << "one always has room";
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Post(pair.id, Word("full")).status);
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Send(pair.id, Word("full"), 1ms).status);
    EXPECT_EQ(1U, pair.session.Counts("mute").messagesQueued);
    auto waiting = std::async([&] { return pair.session.Send("mute", Word("waits"), ever); });
    EXPECT_EQ(kFloodSize, pair.mute.Receive(kFloodSize).size());
    EXPECT_EQ(WordBytes("waits"), pair.mute.Receive(17));
    EXPECT_TRUE(waiting.get());
    const KLVMsgCounts after = pair.session.Counts();
    EXPECT_EQ(0U, after.messagesQueued + after.bytesQueued);
}

TEST(SessionSending, TheQueuesOfAllHaveALimitTogether) {
    KLVMsgSessionOptions options;
    options.queueLimitOfAll = kFloodSize + 1000;
    MutePair pair(options);
    PlainPeer another(pair.session.port);
    const KLVMsgPeer other = pair.session.Came();
    EXPECT_TRUE(pair.session.Post("mute", flood));
    EXPECT_TRUE(pair.session.Post(other, flood)) << "its own is empty";
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Post(other, Word()).status);
    EXPECT_TRUE(pair.session.Disconnect("mute"));
    pair.session.Disconnect(other);
    PlainPeer third(pair.session.port);
    const KLVMsgPeer last = pair.session.Came();
    EXPECT_TRUE(pair.session.Post(last, flood));
    EXPECT_TRUE(pair.session.Post(last, Word())) << "what was queued for others has gone";
}

TEST(SessionSending, WhatIsTooLateIsTakenBackAndLeavesItsRoomToOthers) {
    constexpr std::size_t kLarge = std::size_t{20} << 20;
    KLVMsgSessionOptions options;
    options.queueLimit = std::size_t{45} << 20;
    MutePair pair(options);
    pair.session.Post("mute", flood);
    const auto send = [&](char letter, KLVMsgTimeLimit limit) {
        return pair.session.Send(pair.id, Word(std::string(kLarge, letter)), limit);
    };
    auto late = std::async(send, 'a', 300ms);
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts("mute").messagesQueued == 2; }));
    auto next = std::async(send, 'b', ever);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, late.get().status);
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts("mute").messagesQueued == 2; }));
    pair.session.Post("mute", Word("end"));
    pair.mute.Receive(kFloodSize);
    EXPECT_EQ(WordBytes(std::string(kLarge, 'b')) + WordBytes("end"),
              pair.mute.Receive(kLarge + 27));
    EXPECT_TRUE(next.get());
}

// A message of which a part has gone stays whole.
TEST(SessionSending, WhatHasBegunIsTooLateAndArrivesAllTheSame) {
    MutePair pair;
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.Send("mute", flood, 100ms).status);
    EXPECT_TRUE(WordBytes(flood.text) == pair.mute.Receive(kFloodSize));
}

TEST(SessionSending, OfALabelThoseWithRoomHaveItAndAnEventNamesTheOthers) {
    KLVMsgSessionOptions options;
    options.queueLimit = 10000;
    MutePair pair(options);
    PlainPeer good(pair.session.port);
    pair.session.Came("mute");
    pair.session.Post(pair.id, flood);
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Post("mute", Word("posted")).status);
    EXPECT_EQ(pair.id, pair.session.Await(KLVMsgEvent::kLeftOut).peer);
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Send("mute", Word("sent"), 1ms).status);
    EXPECT_EQ(pair.id, pair.session.Await(KLVMsgEvent::kLeftOut).peer);
    EXPECT_EQ(WordBytes("posted") + WordBytes("sent"), good.Receive(34));
    auto both = std::async([&] { return pair.session.Send("mute", Word("both"), ever); });
    EXPECT_EQ(WordBytes("both"), good.Receive(16));
    pair.mute.Receive(kFloodSize);
    EXPECT_EQ(WordBytes("both"), pair.mute.Receive(16));
    EXPECT_TRUE(both.get());
}

TEST(SessionSending, WhatCannotBePutIntoBytesFailsAndSendsNone) {
    Pair pair;
    struct Named : Word {
        explicit Named(std::string type) : name(std::move(type)) {}
        KLVString GetMessageType() const override {
            return name == "throws" ? throw 1
                                    : KLVString(name.data(), static_cast<int>(name.size()));
        }
        std::string name;
    };
    Word::hook = [](const std::string& text) { text == "throws" ? throw 1 : 0; };
    for (const Word& bad :
         {Word("not encoded"), Word("throws"), Word(flood.text + flood.text + flood.text)}) {
        EXPECT_EQ(KLVMsgOutcome::kFailed, pair.here.Post("peer", bad).status);
        EXPECT_EQ(KLVMsgOutcome::kFailed, pair.here.Send("peer", bad, ever).status);
    }
    Word::hook = [](const std::string&) {};
    for (const std::string& name :
         {std::string(), std::string("zer\0", 4), std::string("throws"), std::string(65530, 'x')}) {
        EXPECT_EQ(KLVMsgOutcome::kFailed, pair.here.Post("peer", Named(name)).status);
        EXPECT_EQ(KLVMsgOutcome::kFailed, pair.here.Send(pair.peer, Named(name), ever).status);
    }
    EXPECT_EQ(0U, pair.here.Counts().bytesSent + pair.here.Counts().bytesQueued);
    pair.here.Post("peer", Word("end"));
    EXPECT_EQ("", UntilEnd(pair.there));
}

TEST(SessionSending, EncodeMayUseTheSession) {
    Pair pair;
    Word::hook = [&](const std::string& text) {
        if (text == "outer") {
            EXPECT_TRUE(pair.here.Send("peer", Word("inner"), ever));
        }
    };
    EXPECT_TRUE(pair.here.Send("peer", Word("outer"), ever));
    Word::hook = [](const std::string&) {};
    EXPECT_EQ("inner", pair.there.Next());
    EXPECT_EQ("outer", pair.there.Next());
}

TEST(SessionSending, APeerThatGoesIsToldWithItsCause) {
    MutePair pair;
    EXPECT_EQ("there is no such peer", pair.session.Post(KLVMsgPeer(), Word()).text);
    EXPECT_NE(std::string::npos, pair.session.Post("nobody", Word()).text.find("has had"));
    pair.session.Post("mute", flood);
    auto begun = std::async([&] { return pair.session.Send("mute", Word("last"), ever); });
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts().messagesQueued == 2; }));
    pair.mute.Reset();
    const KLVMsgOutcome lost = begun.get();
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, lost.status);
    const KLVMsgEvent gone = pair.session.Await(KLVMsgEvent::kGone);
    EXPECT_EQ(KLVMsgEvent::kReset, gone.cause);
    EXPECT_EQ(ECONNRESET, gone.error);
    EXPECT_EQ(pair.id, gone.peer);
    EXPECT_EQ("mute", gone.label);
    for (const KLVMsgPeers& to : {KLVMsgPeers("mute"), KLVMsgPeers(pair.id)}) {
        EXPECT_EQ(KLVMsgOutcome::kPeerGone, pair.session.Post(to, Word()).status);
        EXPECT_NE(std::string::npos, pair.session.Send(to, Word(), ever).text.find(lost.text));
    }
}

}  // namespace
