#include <KLVMsgNetwork.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <future>

#include "Faults.h"
#include "Sessions.h"

namespace {

TEST(SessionAdmitting, ANetworkHasItsOwnAddressesAlone) {
    // What is in it, and behind a ! what is not.
    const std::pair<const char*, std::vector<std::string>> networks[] = {
        {"10.0.0.0/15", {"10.1.255.255", "::ffff:10.0.0.1", "!10.2.0.0", "!::10.0.0.1"}},
        {"::ffff:10.1.0.0/112", {"10.1.2.3", "!10.2.0.0"}},
        {"0.0.0.0/0", {"255.255.255.255", "!::1", "!localhost"}},
        {"::/0", {"fe80::1%lo", "!10.1.2.3"}},
        {"fd00:1::/33", {"fd00:1:7fff::1", "!fd00:1:8000::"}},
        {"127.0.0.1", {"127.0.0.1", "!127.0.0.0"}}};
    for (const auto& [text, addresses] : networks) {
        for (const std::string& one : addresses) {
            const bool isOut = one[0] == '!';
            EXPECT_EQ(isOut, !KLVMsgNetwork(text).Contains(one.substr(isOut))) << text << one;
        }
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
        PlainPeer refused(port);
        EXPECT_EQ("", refused.Receive(1));
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
    EXPECT_GT(10s, std::chrono::system_clock::now() - info.Since());
    EXPECT_EQ("hello", session.Next("in"));
    EXPECT_TRUE(session.Disconnect(id));
    peer.Close();
    EXPECT_TRUE(Eventually([&] { return !session.Info(id); }));
}

TEST(SessionKeeping, WhatWasQueuedComesInOrderBehindTheHello) {
    auto server = std::make_unique<Listener>();
    const int port = server->address.port;
    server.reset();
    KLVMsgSessionOptions options;
    options.inboxLimit = 100;
    Session session(options);
    const auto send = [&](const Word& word) { return session.Send("kept", word, ever).status; };
    const auto comes = [](PlainPeer& peer, const std::string& bytes) {
        EXPECT_EQ(bytes, peer.Receive(bytes.size()));
    };
    const std::string hello = WordBytes("hello"), full(1000, 'x');
    ASSERT_TRUE(session.Keep({"localhost", port}, "kept", Word("hello")));
    EXPECT_EQ(ECONNREFUSED, session.Await(KLVMsgEvent::kAway).error);
    EXPECT_TRUE(session.Post("kept", Word("1")));
    auto sending = std::async([&] { return send(Word("2")); });
    auto reading = std::async([&] { return session.Next("kept"); });
    EXPECT_TRUE(session.Queues(2));
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.Send("kept", Word("withdrawn"), 1ms).status);
    EXPECT_TRUE(session.Peers("kept").empty() && session.WaitUntilGone("kept", ever));
    server = std::make_unique<Listener>(At(port));
    PlainPeer first(*server);
    comes(first, hello + WordBytes("1") + WordBytes("2"));
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
    session.NextEvent(20ms);  // the loop has time to see that nothing can be sent
    EXPECT_TRUE(session.Post("kept", Word("4")));
    EXPECT_EQ(full, session.Next("kept")) << "so that the end is read";
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, lost.get());
    EXPECT_NE(std::string::npos, session.Await(KLVMsgEvent::kLost).what.find(": 1 message"));
    PlainPeer second(*server);
    comes(second, hello + WordBytes("3") + WordBytes("4"));
    EXPECT_EQ(KLVMsgOutcome::kDone, later.get());
    EXPECT_TRUE(session.Disconnect(session.Peers("kept").at(0))) << "of one: another one comes";
    second.Close();
    PlainPeer third(*server);
    comes(third, hello);
    EXPECT_EQ(EEXIST, session.Keep(At(1), "kept").error);
    EXPECT_TRUE(session.Disconnect("kept"));
    comes(third, "");
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Post("kept", Word()).status);
    EXPECT_TRUE(session.Connect(At(port), "kept"));
    EXPECT_EQ(EEXIST, session.Keep(At(1), "kept").error) << "of a connection";
    server.reset();
}

TEST(SessionKeeping, WhyItIsAwayIsToldWhenThatChanges) {
    Session session;
    ASSERT_TRUE(session.Keep({"no host", session.port}, "name"));
    EXPECT_EQ("name", session.Await(KLVMsgEvent::kAway).label);
    EXPECT_TRUE(session.Disconnect("name"));
    std::optional<FailingCall> fault(std::in_place, "connect", ECONNREFUSED);
    ASSERT_TRUE(session.Keep(At(session.port), "kept"));
    EXPECT_EQ(ECONNREFUSED, session.Await(KLVMsgEvent::kAway).error);
    EXPECT_TRUE(Eventually([&] { return fault->Count() >= 3; }));
    EXPECT_GT(6, fault->Count()) << "with pauses";
    EXPECT_FALSE(session.NextEvent(0ms)) << "once";
    fault.reset();
    fault.emplace("connect", ENETUNREACH);
    EXPECT_EQ(ENETUNREACH, session.Await(KLVMsgEvent::kAway).error);
    fault.reset();
    session.Await(KLVMsgEvent::kCame);
    EXPECT_TRUE(session.Disconnect(KLVMsgPeers::All()));
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
    MutePair other;
    other.mute.Send(WordBytes("nobody receives it"));
    EXPECT_TRUE(other.session.Holds(1));
    EXPECT_EQ("the time was over: 1 messages were not received", other.session.Drain(1ms).text);
}

}  // namespace
