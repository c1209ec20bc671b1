#include <KLVMsgNetwork.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <future>

#include "Faults.h"
#include "Sessions.h"

namespace {

TEST(SessionAdmitting, ANetworkHasItsOwnAddressesAlone) {
    const std::array<const char*, 3> ones[] = {{"10.0.0.0/15", "::ffff:10.1.0.1", "10.2.0.0"},
                                               {"::ffff:10.1.0.0/112", "10.1.2.3", "10.2.0.0"},
                                               {"0.0.0.0/0", "255.255.255.255", "::1"},
                                               {"::/0", "fe80::1%lo", "10.1.2.3"},
                                               {"fd00:1::/33", "fd00:1:7fff::", "fd00:1:8000::"},
                                               {"127.0.0.1", "127.0.0.1", "127.0.0.0"}};
    for (const auto& [text, in, out] : ones) {
        EXPECT_TRUE(KLVMsgNetwork(text).Contains(in) && !KLVMsgNetwork(text).Contains(out)) << in;
    }
    for (const char* text : {"", "/8", "10.1.0.0/33", "10.1.0.0/", "10.1.0.0/-1", "10.1.0.0/1x",
                             "10.1.2.3/16", "::/129", "::ffff:0.0.0.0/95", "localhost"}) {
        EXPECT_FALSE(KLVMsgNetwork(text) || KLVMsgNetwork(text).Contains("0.0.0.0")) << text;
    }
}

TEST(SessionAdmitting, WhoIsNotAdmittedIsClosed) {
    Session session;
    int port = 0, asked = 0;
    const auto admit = [&](const KLVMsgPeerInfo& info) {
        EXPECT_TRUE(KLVMsgNetwork("127.0.0.0/8").Contains(info) && info.Port() > 0);
        EXPECT_TRUE(info.ServedPort() == port && info.ServedHost() == "127.0.0.1");
        session.Peers("");  // the session can be asked
        return ++asked == 2 ? throw std::runtime_error("the second") : asked == 3;
    };
    ASSERT_TRUE(session.Serve(anyPort, admit, &port));
    for (const char* why : {"not admitted", "the second"}) {
        EXPECT_EQ("", PlainPeer(port).Receive(1));
        const KLVMsgEvent event = session.Await(KLVMsgEvent::kRefused);
        EXPECT_TRUE(event.error == EACCES && event.what.find(why) != std::string::npos);
    }
    PlainPeer peer(port);
    const KLVMsgPeer id = session.Came("in");
    peer.Send(WordBytes("hello"));
    EXPECT_TRUE(session.Holds(1));
    const KLVMsgPeerInfo info = session.Info(id);
    EXPECT_TRUE(info && info.Peer() == id && info.Label() == "in" && info.ServedPort() == port);
    EXPECT_TRUE(info.Host() == "127.0.0.1" && info.Counts().messagesInInbox == 1);
    EXPECT_FALSE(session.Info(KLVMsgPeer()));
}

TEST(SessionKeeping, WhatWasQueuedComesInOrderBehindTheHello) {
    const int port = Listener().address.port;
    KLVMsgSessionOptions options;
    options.inboxLimit = 100;
    options.queueLimit = flood.text.size() + 1000;
    Session session(options);
    const auto send = [&](const Word& word) { return session.Send("kept", word, ever).status; };
    const std::string hello = WordBytes("hello"), full(1000, 'x');
    EXPECT_TRUE(session.Keep({"no host", port}, "none"));
    EXPECT_EQ("none", session.Await(KLVMsgEvent::kAway).label);
    ASSERT_TRUE(session.Keep({twoAddresses, port}, "kept", Word("hello")));
    EXPECT_EQ(ECONNREFUSED, session.Await(KLVMsgEvent::kAway).error);
    EXPECT_TRUE(session.Post("kept", Word("1")));
    auto sending = std::async([&] { return send(Word("2")); });
    auto reading = std::async([&] { return session.Next("kept"); });
    EXPECT_TRUE(session.Queues(2));
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.Send("kept", Word("withdrawn"), 1ms).status);
    EXPECT_TRUE(session.Peers("kept").empty() && session.WaitUntilGone("kept", ever));
    std::optional<Listener> server(At(port));
    PlainPeer first(*server);
    EXPECT_EQ(hello + WordBytes("1") + WordBytes("2"), first.Receive(17 + 2 * 13));
    EXPECT_EQ(KLVMsgOutcome::kDone, sending.get());
    first.Send(WordBytes("answer"));
    EXPECT_EQ("answer", reading.get());
    EXPECT_EQ(EBUSY, session.SetLabel(session.Peers("kept").at(0), "other").error);
    first.Send(WordBytes(full));  // and it is not read any more
    EXPECT_TRUE(session.Holds(1));
    auto lost = std::async([&] { return send(flood); });
    EXPECT_TRUE(Eventually([&] { return session.Counts("kept").bytesSent > 1000; }));
    auto later = std::async([&] { return send(Word("3")); });
    EXPECT_TRUE(session.Queues(2));
    first.Reset();
    const auto refused = [&] { return session.Post(session.Peers("kept").at(0), flood).status; };
    EXPECT_TRUE(Eventually([&] { return refused() == KLVMsgOutcome::kPeerGone; })) << "no room";
    EXPECT_TRUE(session.Post("kept", Word("4")));
    EXPECT_EQ(full, session.Next("kept")) << "so that the end is read";
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, lost.get());
    EXPECT_NE(std::string::npos, session.Await(KLVMsgEvent::kLost).what.find(": 1 message"));
    PlainPeer second(*server);
    EXPECT_EQ(hello + WordBytes("3") + WordBytes("4"), second.Receive(17 + 2 * 13));
    EXPECT_EQ(KLVMsgOutcome::kDone, later.get());
    EXPECT_TRUE(session.Disconnect(session.Peers("kept").at(0))) << "of one: another one comes";
    second.Close();
    PlainPeer third(*server);
    EXPECT_EQ(hello, third.Receive(17));
    EXPECT_TRUE(session.Disconnect("kept"));
    EXPECT_EQ("", third.Receive(1));
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Post("kept", Word()).status);
    Session silent;  // that nobody asks for what has come is no reason to wait for the next one
    EXPECT_TRUE(silent.Keep(At(port), "kept"));
    PlainPeer(*server).Send(WordBytes("unread"));
    PlainPeer next(*server);
    EXPECT_TRUE(silent.Disconnect("kept") && silent.Holds(1));
    EXPECT_TRUE(session.Connect(At(port), "own"));
    EXPECT_EQ(EEXIST, session.Keep(At(1), "own").error) << "of a connection";
    EXPECT_EQ(EEXIST, session.Keep(At(1), "none").error) << "of another one that is kept";
    server.reset();
}

TEST(SessionKeeping, AFailureIsToldOnceForAsLongAsItsCauseIsTheSame) {
    std::atomic<int> attempts{0};
    const Interposed counting([&](SystemCall& call) -> std::optional<long> {
        attempts += call.name == "connect" ? 1 : 0;
        return std::nullopt;
    });
    const int port = Listener().address.port;
    Session session;
    EXPECT_TRUE(session.Keep(At(port), "kept"));
    EXPECT_EQ(KLVMsgEvent::kAway, session.NextEvent(ever).kind);
    EXPECT_TRUE(Eventually([&] { return attempts >= 3; }));
    const Listener server(At(port));
    EXPECT_EQ(KLVMsgEvent::kCame, session.NextEvent(ever).kind);
}

TEST(SessionKeeping, WhoWaitsIsToldWhatIsThereAndWhatIsTaken) {
    const int port = Listener().address.port;
    Session session;
    EXPECT_TRUE(session.Keep(At(port), "big", flood));
    auto behind = std::async([&] { return session.Send("big", Word("5"), ever).status; });
    auto there = std::async([&] { return session.WaitUntilThere("big", ever).status; });
    EXPECT_TRUE(session.Queues(1));
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.WaitUntilThere("big", 0ms).status);
    const Listener server(At(port));
    EXPECT_EQ(KLVMsgOutcome::kDone, there.get());
    EXPECT_TRUE(Eventually([&] { return session.Counts("big").bytesSent > 1000; }));
    const KLVMsgPeer big = session.Peers("big").at(0);
    EXPECT_TRUE(session.WaitUntilThere(big, 0ms) && session.Disconnect("big"));
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, behind.get()) << "the hello before it was not yet taken";
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.WaitUntilThere(big, ever).status);
    EXPECT_EQ("big", session.Await(KLVMsgEvent::kGone).label);
    auto named = std::async([&] { return session.WaitUntilThere("named", ever).status; });
    PlainPeer other(session.port);
    session.Came("named");
    EXPECT_EQ(KLVMsgOutcome::kDone, named.get());
    auto none = std::async([&] { return session.WaitUntilThere("nobody", ever).status; });
    session.End(0ms);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, none.get());
}

TEST(SessionKeeping, AnEndThatThrowsHasNotBegun) {
    const int port = Listener().address.port;
    bool reached = true;
    for (int n = 1; reached; ++n) {
        Session session;
        session.Keep(At(port), "kept"), session.Post("kept", Word("lost"));
        const FailingAllocation fault(n);
        int error = 0;
        try {
            error = session.End(ever).error;
        } catch (const std::bad_alloc&) {
            error = session.End(ever).error;
        }
        EXPECT_EQ(ENOTCONN, error) << n;
        reached = fault.Count() >= n;
    }
}

TEST(SessionDraining, WhatHasComeIsAnsweredAndNothingNewTaken) {
    MutePair pair;
    pair.mute.Send(WordBytes("1") + WordBytes("2"));
    EXPECT_TRUE(pair.session.Holds(2));
    EXPECT_EQ("1", pair.session.Next());
    auto draining = std::async([&] { return pair.session.Drain(ever).text; });
    EXPECT_TRUE(Eventually([&] { return !pair.session.Serve(anyPort); }));
    pair.mute.Send(WordBytes("3"));
    EXPECT_EQ("2", pair.session.Next());
    EXPECT_EQ(std::future_status::timeout, draining.wait_for(50ms)) << "the last has no answer yet";
    EXPECT_TRUE(pair.session.Post("mute", Word("two")));
    EXPECT_EQ("the session has ended", pair.session.Next());
    EXPECT_EQ(WordBytes("two"), pair.mute.Receive(1000));
    pair.mute.Close();
    EXPECT_EQ("", draining.get());
}

}  // namespace
