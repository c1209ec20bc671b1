#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <future>
#include <thread>

#include "Faults.h"
#include "Sessions.h"

namespace {

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(SessionConnections, ServesAndConnectsByNameAndByEitherKindOfAddress) {
    Session client;
    for (const char* host : {"localhost", "::1", "127.0.0.1", ""}) {
        Session server;
        int port = 0;
        ASSERT_TRUE(server.Serve({host, 0}, &port)) << host;
        EXPECT_TRUE(client.Connect({host, port}, "peer", ever)) << host;
        EXPECT_TRUE(client.Send("peer", Word(host), ever));
        EXPECT_EQ(host, server.Next());
        const std::string address = server.Await(KLVMsgEvent::kCame).address;
        EXPECT_TRUE(Has(address, host == std::string("::1") ? "::1, port" : "1, port")) << address;
        EXPECT_TRUE(client.Disconnect(KLVMsgPeers::All()));
        EXPECT_FALSE(server.Receive<Word>(0ms)) << "lets go of the last one";
    }
}

TEST(SessionConnections, TellsWhyItCannotConnectOrServe) {
    Session session;
    const Listener elsewhere;
    EXPECT_EQ(EADDRINUSE, session.Serve(At(session.port)).error);
    EXPECT_TRUE(Has(session.Serve(At(elsewhere.address.port)).text, "127.0.0.1, port"));
    EXPECT_TRUE(Has(session.Connect({"no host", 1}, "").text, gai_strerror(EAI_NONAME)));
    EXPECT_EQ(EINVAL, session.Connect(At(0), "").error);
    EXPECT_EQ(EINVAL, session.Serve(At(70000)).error);
    EXPECT_EQ(ENOENT, session.StopServing(elsewhere.address.port).error);
    EXPECT_EQ(ENOENT, session.StopServing(-1).error);
    EXPECT_TRUE(session.StopServing(session.port));
    EXPECT_EQ(ECONNREFUSED, session.Connect(At(session.port), "").error);
    EXPECT_EQ(ECONNREFUSED, session.ConnectAgain(At(session.port), "", 30ms).error);
    EXPECT_TRUE(session.Serve(At(session.port))) << "on the same port again";
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Disconnect(KLVMsgPeers::All()).status);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.SetLabel(KLVMsgPeer(), "").status);
}

TEST(SessionConnections, RegistersOnlyWhatItCanMake) {
    KLVMsgSession session;
    struct Careless : Word {
        KLVString GetMessageType() const override { return "Careless"; }
    };
    struct Throwing : Word {
        KLVMsgSocketMessage* NewInstance() override { throw 1; }
    };
    struct Nameless : Word {
        KLVMsgSocketMessage* NewInstance() override { return new Nameless; }
        KLVString GetMessageType() const override { return ""; }
    };
    EXPECT_EQ(EINVAL, session.Register(Careless()).error) << "NewInstance makes a Word";
    EXPECT_EQ(EINVAL, session.Register(Throwing()).error);
    EXPECT_EQ(EINVAL, session.Register(Nameless()).error);
    EXPECT_TRUE(session.Register(Word()));
    EXPECT_EQ(EINVAL, session.Register(Word()).error) << "for the second time";
    EXPECT_TRUE(session.Start());
    EXPECT_TRUE(session.Start()) << "once is enough";
    EXPECT_EQ(EALREADY, session.Register(Other()).error);
}

TEST(SessionConnections, ConnectsAgainToAServerThatComesLater) {
    Session session;
    const int port = session.port;
    EXPECT_TRUE(session.StopServing(port));
    auto connected = std::async([&] { return session.ConnectAgain(At(port), "again", ever); });
    Session later;
    EXPECT_TRUE(later.Serve(At(port)));
    EXPECT_TRUE(connected.get());
    EXPECT_EQ(1U, session.Peers("again").size());
}

TEST(SessionConnections, OneTooManyIsRefusedAndSaysSo) {
    KLVMsgSessionOptions options;
    options.connectionLimit = 1;
    MutePair pair(options);
    PlainPeer second(pair.session.port);
    EXPECT_EQ("", second.Receive(1));
    const KLVMsgEvent refused = pair.session.Await(KLVMsgEvent::kRefused);
    EXPECT_EQ(EMFILE, refused.error);
    EXPECT_TRUE(Has(refused.address, "127.0.0.1, port"));
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Connect(At(pair.session.port), "").status);
    pair.mute.Close();
    EXPECT_TRUE(pair.session.WaitUntilGone("mute", ever));
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts().connections == 0; }));
    PlainPeer third(pair.session.port);
    EXPECT_NE(0U, pair.session.Came().id);
}

TEST(SessionConnections, DisconnectDropsWhatIsQueuedAndKeepsWhatHasCome) {
    MutePair pair;
    pair.mute.Send(WordBytes("came"));
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts().messagesInInbox == 1; }));
    pair.session.Send("mute", Word("taken"), ever);
    pair.session.Post("mute", flood);
    auto sending = std::async([&] { return pair.session.Send("mute", Word("last"), ever); });
    auto gone = std::async([&] { return pair.session.WaitUntilGone(pair.id, ever); });
    auto waiting = std::async([&] { return pair.session.Receive<Other>(ever, "mute").status; });
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts().messagesQueued == 2; }));
    EXPECT_TRUE(pair.session.Disconnect("mute"));
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, pair.session.Disconnect("mute").status);
    EXPECT_TRUE(gone.get());
    EXPECT_TRUE(Has(sending.get().text, "disconnected here"));
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, waiting.get());
    EXPECT_EQ("came", pair.session.Next());
    EXPECT_EQ(KLVMsgEvent::kShutDownHere, pair.session.Await(KLVMsgEvent::kGone).cause);
    EXPECT_TRUE(Has(pair.session.Post("mute", Word()).text, "shut down here"));
    EXPECT_EQ(WordBytes("taken"), pair.mute.Receive(17));
    EXPECT_LT(pair.mute.Receive(flood.text.size()).size(), flood.text.size());
}

TEST(SessionConnections, LabelsSayWhoIsMeantAndWhoIsGone) {
    MutePair pair;
    PlainPeer other(pair.session.port);
    const KLVMsgPeer second = pair.session.Came("mute");
    EXPECT_EQ((std::vector<KLVMsgPeer>{pair.id, second}), pair.session.Peers("mute"));
    auto gone = std::async([&] { return pair.session.WaitUntilGone("mute", ever); });
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.WaitUntilGone("mute", 1ms).status);
    EXPECT_TRUE(pair.session.SetLabel(second, "a"));
    EXPECT_TRUE(pair.session.SetLabel(pair.id, "a"));
    EXPECT_TRUE(gone.get());
    EXPECT_EQ((std::vector<KLVMsgPeer>{pair.id, second}), pair.session.Peers("a"));
    EXPECT_TRUE(pair.session.Post("a", Word("both")));
    EXPECT_EQ(WordBytes("both"), pair.mute.Receive(16));
    EXPECT_EQ(WordBytes("both"), other.Receive(16));
    EXPECT_EQ(2U, pair.session.Counts("a").connections);
}

TEST(SessionConnections, EndingSendsWhatIsQueuedAndWaitsForThePeersToRead) {
    Session server;
    {
        Session client;
        client.Connect(At(server.port), "server", ever);
        for (int i = 0; i < 20000; ++i) {
            client.Post("server", Word(std::to_string(i)));
        }
        client.Post("server", flood);
        auto ended = std::async([&] { return client.End(ever); });
        for (int i = 0; i < 20000; ++i) {
            ASSERT_EQ(std::to_string(i), server.Next());
        }
        EXPECT_TRUE(flood.text == server.Next());
        EXPECT_FALSE(server.Receive<Word>(0ms)) << "and answers no more";
        EXPECT_TRUE(ended.get());
        EXPECT_EQ(20001U, client.Counts().messagesSent);
    }
}

TEST(SessionConnections, WhoeverWaitsIsToldThatTheSessionHasEnded) {
    KLVMsgSessionOptions options;
    options.queueLimit = 1000;
    MutePair pair(options);
    Session& session = pair.session;
    const Listener closed(At(0));
    const KLVMsgSocketAddress nobody("192.0.2.1", 9);
    session.Post("mute", flood);
    std::vector<std::future<KLVMsgOutcome>> waiting;
    const auto wait = [&](auto operation) {
        waiting.push_back(
            std::async(std::launch::async, [=] { return KLVMsgOutcome(operation()); }));
    };
    const std::function<KLVMsgOutcome()> operations[] = {
        [&] { return session.Receive<Word>(ever); },
        [&] { return session.ReceiveAll<Other>(ever, "mute"); },
        [&] { return session.WaitUntilGone("mute", ever); },
        [&] { return session.Send("mute", Word("no room"), ever); },
        [&] { return session.ConnectAgain(At(1), "", ever); },
        [&] { return session.Await(KLVMsgEvent::kNone); }};
    for (const auto& operation : operations) {
        wait(operation);
    }
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.End(100ms).status) << "the peer has not read";
    for (auto& one : waiting) {
        EXPECT_EQ(ESHUTDOWN, one.get().error) << &one - &waiting[0];
    }
    for (const auto& operation : operations) {
        EXPECT_EQ(ESHUTDOWN, operation().error) << &operation - operations;
    }
    for (const KLVMsgOutcome& late :
         {session.Post("mute", Word()), session.Disconnect("mute"), session.Serve(anyPort),
          session.StopServing(pair.session.port), session.SetLabel(pair.id, ""), session.Start(),
          session.Connect(At(1), ""), session.Register(Word()), session.End(ever)}) {
        EXPECT_EQ(ESHUTDOWN, late.error);
    }
    EXPECT_TRUE(session.Peers(KLVMsgPeers::All()).empty());
}

TEST(SessionConnections, AStallIsToldAndEndsOnlyWhereItIsAskedFor) {
    KLVMsgSessionOptions options;
    options.stall = 50ms;
    MutePair pair(options);
    pair.mute.Send(WordBytes("slow").substr(0, 10));
    EXPECT_EQ(pair.id, pair.session.Await(KLVMsgEvent::kStalls).peer);
    EXPECT_EQ(1U, pair.session.Counts("mute").stalled);
    pair.mute.Send(WordBytes("slow").substr(10));
    EXPECT_EQ("slow", pair.session.Next());
    EXPECT_EQ(0U, pair.session.Counts().stalled);
    pair.session.Post("mute", flood);
    EXPECT_EQ(pair.id, pair.session.Await(KLVMsgEvent::kStalls).peer);
    EXPECT_EQ(1U, pair.session.Peers("mute").size());
    options.stallEnds = true;
    MutePair ending(options);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, ending.session.Send("mute", flood, ever).status);
    EXPECT_EQ(KLVMsgEvent::kStalled, ending.session.Await(KLVMsgEvent::kGone).cause);
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
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
        pair->session.~Session();
        char byte = 'x';
        const bool written = write(ends[1], &byte, 1) == 1;
        pause();
        _exit(written ? 0 : 1);
    }
    char byte = 0;
    EXPECT_EQ(1, read(ends[0], &byte, 1));
    pair->mute.Send(WordBytes("still here"));
    EXPECT_EQ("still here", pair->session.Next());
    pair->mute.Send(WordBytes("refused"));
    EXPECT_FALSE(pair->session.Receive<Word>(ever, "mute"));
    EXPECT_EQ("", pair->mute.Receive(1)) << "closed, though the child has a copy";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
