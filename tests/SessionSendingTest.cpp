#include <gtest/gtest.h>

#include <cerrno>
#include <future>

#include "Sessions.h"

namespace {

constexpr std::size_t kFloodSize = (std::size_t{24} << 20) + 12;  // on the wire

TEST(SessionSending, EveryFormOfAMessageArrivesOnceAndInOrder) {
    Pair pair;
    const Word constant("constant");
    Word changing("reference");
    Word::hook = [&](const std::string& text) {
        EXPECT_TRUE(text != "outer" || pair.here.Send("peer", Word("inner"), ever));
        text == "throws" ? throw 1 : 0;
    };
    EXPECT_TRUE(pair.here.Post("peer", constant));
    EXPECT_TRUE(pair.here.Send("peer", changing, ever));
    EXPECT_TRUE(pair.here.Post(pair.peer, Word("value")));
    EXPECT_TRUE(pair.here.Send(KLVMsgPeers::All(), std::make_unique<Word>("pointer"), ever));
    EXPECT_EQ(EINVAL, pair.here.Post("peer", std::unique_ptr<Word>()).error);
    for (const char* bad : {"not encoded", "throws"}) {
        EXPECT_EQ(KLVMsgOutcome::kFailed, pair.here.Post("peer", Word(bad)).status);
        EXPECT_EQ(KLVMsgOutcome::kFailed, pair.here.Send(pair.peer, Word(bad), ever).status);
    }
    EXPECT_TRUE(pair.here.Post("peer", Other("other")));
    EXPECT_TRUE(pair.here.Send("peer", Word("outer"), ever));
    Word::hook = [](const std::string&) {};
    for (const char* text : {"constant", "reference", "value", "pointer", "inner", "outer"}) {
        EXPECT_EQ(text, pair.there.Next());
    }
    EXPECT_EQ("other", pair.there.Next<Other>());
    EXPECT_EQ(7U, pair.here.Counts().messagesSent);
    EXPECT_EQ(pair.here.Counts(pair.peer).bytesSent, pair.there.Counts("peer").bytesReceived);
}

TEST(SessionSending, WhatIsPostedBeforeTheStartGoesInOrderAfterIt) {
    Session server;
    KLVMsgSession client;
    EXPECT_TRUE(client.Connect(At(server.port), "server", ever));
    EXPECT_TRUE(client.Post("server", Word("one")));
    EXPECT_EQ(KLVMsgOutcome::kTooLate, client.Send("server", Word("withdrawn"), 1ms).status);
    EXPECT_TRUE(client.Post("server", Word("end")));
    EXPECT_TRUE(client.Start());
    EXPECT_EQ("one", server.Next());
    EXPECT_EQ("end", server.Next());
    EXPECT_FALSE(server.Receive<Word>(0ms));
}

TEST(SessionSending, OfALabelThoseWithRoomHaveItAndAnEventNamesTheOthers) {
    KLVMsgSessionOptions options;
    options.queueLimit = 10000;
    options.wholeHeaders = false;
    MutePair pair(options);
    PlainPeer good(pair.session.port);
    pair.session.Came("mute");
    EXPECT_TRUE(pair.session.Post(pair.id, flood)) << "one always has room";
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
    EXPECT_EQ(0U, pair.session.Counts().messagesQueued + pair.session.Counts().bytesQueued);
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
    EXPECT_TRUE(pair.session.Post(other, Word())) << "what was queued for others has gone";
}

TEST(SessionSending, APeerThatGoesIsToldWithItsCause) {
    MutePair pair;
    EXPECT_EQ("there is no such peer", pair.session.Post(KLVMsgPeer(), Word()).text);
    EXPECT_NE(std::string::npos, pair.session.Post("nobody", Word()).text.find("has had"));
    pair.session.Post("mute", flood);
    auto begun = std::async([&] { return pair.session.Send("mute", Word("last"), ever); });
    EXPECT_TRUE(pair.session.Queues(2));
    pair.mute.Reset();
    const std::string lost = begun.get().text;
    const KLVMsgEvent gone = pair.session.Await(KLVMsgEvent::kGone);
    EXPECT_EQ(KLVMsgEvent::kReset, gone.cause);
    EXPECT_EQ(ECONNRESET, gone.error);
    EXPECT_EQ(pair.id, gone.peer);
    EXPECT_EQ("mute", gone.label);
    for (const KLVMsgPeers& to : {KLVMsgPeers("mute"), KLVMsgPeers(pair.id)}) {
        EXPECT_EQ(KLVMsgOutcome::kPeerGone, pair.session.Post(to, Word()).status);
        EXPECT_NE(std::string::npos, pair.session.Send(to, Word(), ever).text.find(lost));
    }
}

}  // namespace
