#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <future>

#include "Sessions.h"

namespace {

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(SessionConnections, ServesAndConnectsByNameAndByEitherKindOfAddress) {
    for (const char* host : {"localhost", "::1", "127.0.0.1", ""}) {
        Session server, client;
        int port = 0;
        ASSERT_TRUE(server.Serve({host, 0}, &port)) << host;
        EXPECT_TRUE(client.Connect({host, port}, "peer", ever)) << host;
        const std::string address = server.Await(KLVMsgEvent::kCame).address;
        EXPECT_TRUE(Has(address, host == std::string("::1") ? "::1, port" : "1, port")) << address;
        EXPECT_TRUE(client.Disconnect(KLVMsgPeers::All()));
    }
}

TEST(SessionConnections, TellsWhyItCannotConnectOrServeOrRegister) {
    Session session;
    EXPECT_EQ(EADDRINUSE, session.Serve(At(session.port)).error);
    EXPECT_TRUE(Has(session.Connect({"no host", 1}, "").text, gai_strerror(EAI_NONAME)));
    EXPECT_EQ(EINVAL, session.Connect(At(0), "").error);
    EXPECT_EQ(EINVAL, session.Serve(At(70000)).error);
    EXPECT_EQ(ENOENT, session.StopServing(-1).error);
    EXPECT_TRUE(session.StopServing(session.port));
    EXPECT_EQ(ECONNREFUSED, session.Connect(At(session.port), "").error);
    EXPECT_EQ(ECONNREFUSED, session.ConnectAgain(At(session.port), "", 30ms).error);
    auto again = std::async([&] { return session.ConnectAgain(At(session.port), "own", ever); });
    EXPECT_TRUE(session.Serve(At(session.port))) << "on the same port again";
    EXPECT_TRUE(again.get());
    EXPECT_TRUE(session.Disconnect(KLVMsgPeers::All()));
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Disconnect(KLVMsgPeers::All()).status);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.SetLabel(KLVMsgPeer(), "").status);
    EXPECT_EQ(EALREADY, session.Register(Word()).error);
    struct Careless : Word {
        KLVString GetMessageType() const override { return "Careless"; }
    };
    KLVMsgSession fresh;
    EXPECT_EQ(EINVAL, fresh.Register(Careless()).error) << "NewInstance makes a Word";
    EXPECT_TRUE(fresh.Register(Word()));
    EXPECT_EQ(EINVAL, fresh.Register(Word()).error) << "for the second time";
}

TEST(SessionConnections, OneTooManyIsRefusedAndAStallIsTold) {
    KLVMsgSessionOptions options;
    options.connectionLimit = 1;
    options.stall = 50ms;
    MutePair pair(options);
    PlainPeer second(pair.session.port);
    EXPECT_EQ("", second.Receive(1));
    EXPECT_EQ(EMFILE, pair.session.Await(KLVMsgEvent::kRefused).error);
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Connect(At(pair.session.port), "").status);
    pair.mute.Send(WordBytes("slow").substr(0, 10));
    EXPECT_EQ(pair.id, pair.session.Await(KLVMsgEvent::kStalls).peer);
    pair.mute.Close();
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts().connections == 0; }));
    PlainPeer third(pair.session.port);
    EXPECT_NE(0U, pair.session.Came().id);
}

TEST(SessionConnections, DisconnectDropsWhatIsQueuedAndKeepsWhatHasCome) {
    MutePair pair;
    pair.mute.Send(WordBytes("came"));
    EXPECT_TRUE(pair.session.Holds(1));
    pair.session.Send("mute", Word("taken"), ever);
    pair.session.Post("mute", flood);
    auto sending = std::async([&] { return pair.session.Send("mute", Word("last"), ever); });
    auto gone = std::async([&] { return pair.session.WaitUntilGone(pair.id, ever); });
    auto waiting = std::async([&] { return pair.session.Receive<Other>(ever, "mute").status; });
    EXPECT_TRUE(pair.session.Queues(2));
    EXPECT_TRUE(pair.session.Disconnect("mute"));
    EXPECT_TRUE(gone.get());
    EXPECT_TRUE(Has(sending.get().text, "disconnected here"));
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, waiting.get());
    EXPECT_EQ("came", pair.session.Next());
    EXPECT_EQ(KLVMsgEvent::kShutDownHere, pair.session.Await(KLVMsgEvent::kGone).cause);
    EXPECT_EQ(WordBytes("taken"), pair.mute.Receive(17));
    EXPECT_LT(pair.mute.Receive(flood.text.size()).size(), flood.text.size());
}

TEST(SessionConnections, LabelsSayWhoIsMeantAndWhoIsGone) {
    MutePair pair;
    PlainPeer other(pair.session.port);
    const KLVMsgPeer second = pair.session.Came("mute");
    auto gone = std::async([&] { return pair.session.WaitUntilGone("mute", ever); });
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.WaitUntilGone("mute", 1ms).status);
    EXPECT_TRUE(pair.session.SetLabel(second, "a"));
    EXPECT_TRUE(pair.session.SetLabel(pair.id, "a"));
    EXPECT_TRUE(gone.get());
    EXPECT_EQ((std::vector<KLVMsgPeer>{pair.id, second}), pair.session.Peers("a"));
}

TEST(SessionConnections, WhoeverWaitsIsToldThatTheSessionHasEnded) {
    KLVMsgSessionOptions options;
    options.queueLimit = 1000;
    MutePair pair(options);
    Session& session = pair.session;
    session.Post("mute", flood);
    const std::function<KLVMsgOutcome()> operations[] = {
        [&] { return session.Receive<Word>(ever); },
        [&] { return session.ReceiveAll<Other>(ever, "mute"); },
        [&] { return session.WaitUntilGone("mute", ever); },
        [&] { return session.Send("mute", Word("no room"), ever); },
        [&] { return session.ConnectAgain(At(1), "", ever); },
        [&] { return session.Await(KLVMsgEvent::kNone); }};
    std::vector<std::future<KLVMsgOutcome>> waiting;
    for (const auto& operation : operations) {
        waiting.push_back(std::async(std::launch::async, operation));
    }
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.End(100ms).status) << "the peer has not read";
    for (std::size_t i = 0; i < waiting.size(); ++i) {
        EXPECT_EQ(ESHUTDOWN, waiting[i].get().error) << i;
        EXPECT_EQ(ESHUTDOWN, operations[i]().error) << i;
    }
    EXPECT_EQ(ESHUTDOWN, session.Post("mute", Word()).error);
    EXPECT_TRUE(session.Peers(KLVMsgPeers::All()).empty());
}

TEST(SessionConnections, EventsThatNobodyAsksForAreCounted) {
    Session session;
    PlainPeer peer(session.port);
    for (int i = 0; i < 600; ++i) {
        PlainPeer passing(session.port);
    }
    EXPECT_TRUE(Eventually([&] { return session.Counts().connections == 1; }));
    std::uint64_t events = 0, missed = 0;
    for (KLVMsgEvent event; (event = session.NextEvent(0ms)); ++events) {
        missed += event.missed;
    }
    EXPECT_EQ(1000U, events);
    EXPECT_EQ(201U, missed);
}

// The child's copies of the descriptors keep nothing open, and it ends nothing.
TEST(SessionConnections, AChildThatDestroysItsSessionLeavesTheParentsAlone) {
    auto pair = std::make_unique<MutePair>();
    const pid_t child = fork();
    if (child == 0) {
        pair->session.~Session();
        raise(SIGSTOP);
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, WUNTRACED));
    EXPECT_TRUE(WIFSTOPPED(status));
    pair->mute.Send(WordBytes("refused"));
    EXPECT_FALSE(pair->session.Receive<Word>(ever, "mute"));
    EXPECT_EQ("", pair->mute.Receive(1)) << "closed, though the child has a copy";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

}  // namespace
