#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <future>

#include "Faults.h"
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

TEST(SessionSending, WhatWaitsForTheStartGoesInOrderWithoutWhatWasWithdrawn) {
    Session server;
    KLVMsgSessionOptions options;
    options.queueLimitOfAll = 1000;
    KLVMsgSession client(options);
    const auto send = [&](std::size_t size, KLVMsgTimeLimit limit) {
        return client.Send("server", Word(std::string(size, 'x')), limit);
    };
    const auto queues = [&](unsigned n) {
        return Eventually([&] { return client.Counts().messagesQueued == n; });
    };
    EXPECT_TRUE(client.Connect(At(server.port), "server", ever));
    EXPECT_TRUE(client.Register(Quiz()) && client.Post("server", Word("one")));
    EXPECT_EQ(KLVMsgOutcome::kTooLate, client.Ask<Quiz>("server", Quiz(), 1ms).status);
    EXPECT_TRUE(queues(1)) << "the question was withdrawn";
    EXPECT_EQ(KLVMsgOutcome::kFull, client.Post("server", Word(std::string(846, 'x'))).status);
    auto late = std::async(std::launch::async, send, 500, 500ms);
    EXPECT_TRUE(queues(2));
    auto behind = std::async(std::launch::async, send, 9, ever);
    EXPECT_TRUE(queues(3));
    auto roomless = std::async(std::launch::async, send, 300, ever);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, late.get().status);
    EXPECT_TRUE(queues(3)) << "in its place";
    const CallLog log;
    EXPECT_TRUE(client.Start());
    EXPECT_EQ("one", server.Next());
    EXPECT_EQ(std::string(9, 'x'), server.Next());
    EXPECT_EQ(std::string(300, 'x'), server.Next());
    EXPECT_EQ(3U, server.Counts().messagesReceived);
    EXPECT_TRUE(behind.get() && roomless.get());
    EXPECT_FALSE(server.Receive<Word>(0ms)) << "and answers no more";
    const std::string whole = std::to_string(MSG_NOSIGNAL | MSG_DONTWAIT | MSG_EOR) + " ";
    for (const SystemCall& call : log.Calls()) {
        EXPECT_TRUE(call.name != "sendmsg" || call.rest == whole) << call.rest;
    }
}

TEST(SessionSending, ATypeNameFitsIntoASegment) {
    struct Named : Word {
        using Word::Word;
        KLVString GetMessageType() const override { return KLVString(text.c_str()); }
    };
    Session session;
    const Listener listener;
    const int size = 300;
    setsockopt(listener.descriptor, IPPROTO_TCP, TCP_MAXSEG, &size, sizeof size);
    EXPECT_TRUE(session.Connect(At(listener.address.port), "narrow", ever));
    const auto post = [&](std::size_t length) {
        return session.Post("narrow", Named(std::string(length, 'n')));
    };
    const std::string why = post(1000).text;
    const std::size_t segment = std::stoul(why.substr(why.find("segment of ") + 11));
    EXPECT_EQ(EMSGSIZE, post(segment - 3).error);
    EXPECT_TRUE(post(segment - 4));
    session.Disconnect("narrow");
}

TEST(SessionSending, OfALabelThoseWithRoomHaveIt) {
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
    EXPECT_EQ(WordBytes("posted"), good.Receive(18));
    auto both = std::async([&] { return pair.session.Send("mute", Word("both"), ever); });
    std::string next = good.Receive(16);
    next = next == WordBytes("sent") ? good.Receive(16) : next;  // or it was too late for that
    EXPECT_EQ(WordBytes("both"), next);
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Send(pair.id, Word("one"), 1ms).status);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.NextEvent(0ms).status) << "told already";
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
    KLVMsgSessionOptions options;
    options.queueLimit = 1000;
    MutePair pair(options);
    pair.mute.Send(WordBytes("came"));
    EXPECT_TRUE(pair.session.Holds(1));
    EXPECT_EQ("there is no such peer", pair.session.Post(KLVMsgPeer(), Word()).text);
    EXPECT_NE(std::string::npos, pair.session.Post("nobody", Word()).text.find("has had"));
    auto begun = std::async([&] { return pair.session.Send("mute", flood, ever); });
    EXPECT_TRUE(pair.session.Queues(1));
    auto roomless = std::async([&] { return pair.session.Send(pair.id, Word("no room"), ever); });
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Send(pair.id, Word("none"), 1ms).status);
    pair.mute.Reset();
    const std::string lost = begun.get().text;
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, roomless.get().status);
    const KLVMsgEvent gone = pair.session.Await(KLVMsgEvent::kGone);
    EXPECT_EQ(KLVMsgEvent::kReset, gone.cause);
    EXPECT_EQ(ECONNRESET, gone.error);
    EXPECT_EQ(pair.id, gone.peer);
    EXPECT_EQ("mute", gone.label);
    const KLVMsgCounts counts = pair.session.Counts();
    EXPECT_EQ(1U, counts.messagesReceived);
    EXPECT_EQ(16U, counts.bytesReceived);
    EXPECT_EQ(16U, counts.bytesInInbox);
    EXPECT_TRUE(pair.session.Peers("mute").empty());
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, pair.session.SetLabel(pair.id, "again").status);
    for (const KLVMsgPeers& to : {KLVMsgPeers("mute"), KLVMsgPeers(pair.id)}) {
        EXPECT_EQ(KLVMsgOutcome::kPeerGone, pair.session.Post(to, Word()).status);
        EXPECT_NE(std::string::npos, pair.session.Send(to, Word(), ever).text.find(lost));
    }
}

// To two, one of which has no room, and goes.
TEST(SessionSending, ThrowsOnlyWhatNobodyHas) {
    KLVMsgSessionOptions options;
    options.queueLimit = 1000;
    bool reached = true;
    for (int n = 1; reached; ++n) {
        MutePair pair(options);
        const PlainPeer other(pair.session.port);
        const KLVMsgPeer reader = pair.session.Came("mute");
        pair.session.Post(pair.id, flood);
        const auto isSent = [&] { return pair.session.Counts(reader).messagesSent != 0; };
        auto sending = std::async([&] {
            const FailingAllocation fault(n);
            bool thrown = false;
            try {
                pair.session.Send("mute", Word("1"), ever);
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            reached = fault.Count() >= n;
            return thrown;
        });
        EXPECT_TRUE(Eventually(
            [&] { return isSent() || sending.wait_for(0s) == std::future_status::ready; }));
        pair.mute.Close();
        EXPECT_FALSE(sending.get() && isSent()) << n;
    }
}

}  // namespace
