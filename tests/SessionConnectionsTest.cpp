#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <future>
#include <numeric>

#include "Faults.h"
#include "Sessions.h"

namespace {

TEST(SessionConnections, MeetsAtEveryKindOfAddress) {
    for (const char* host : {twoAddresses, "localhost", "::1", "127.0.0.1", ""}) {
        Session server, client;
        int port = 0;
        ASSERT_TRUE(server.Serve({host, 0}, &port)) << host;
        EXPECT_TRUE(client.Connect({host, port}, "peer", ever)) << host;
        const std::string address = server.Await(KLVMsgEvent::kCame).address;
        EXPECT_TRUE(Has(address, Has(host, ":") ? "::1, port" : "1, port")) << address;
        EXPECT_TRUE(client.Disconnect(KLVMsgPeers::All()));
        EXPECT_EQ(KLVMsgEvent::kGone, server.NextEvent(ever).kind) << "one connection";
    }
    Session session;
    for (const auto& [error, n] : {std::pair(EADDRINUSE, 2), {EADDRNOTAVAIL, 1}}) {
        const FailingCall fault("bind", error, n);
        EXPECT_TRUE(session.Serve({twoAddresses, 0})) << "on another port, or address";
    }
}

TEST(SessionConnections, TellsWhyItCannotConnectOrServeOrRegister) {
    Session session;
    auto reading = std::async([&] { return session.Receive<Word>(ever).status; });
    EXPECT_EQ(EADDRINUSE, session.Serve(At(session.port)).error);
    EXPECT_TRUE(Has(session.Connect({"no host", 1}, "").text, gai_strerror(EAI_NONAME)));
    EXPECT_EQ(EINVAL, session.Connect(At(0), "").error);
    EXPECT_EQ(EINVAL, session.Serve(At(70000)).error);
    EXPECT_EQ(ENOENT, session.StopServing(-1).error);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.NextEvent(20ms).status);
    {
        const FailingCall first("epoll_ctl", EMFILE, 1);
        EXPECT_EQ(EMFILE, session.Serve({"::1", session.port}).error);
    }
    EXPECT_TRUE(session.StopServing(session.port)) << "as it was served before";
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, reading.get()) << "nobody can come";
    {
        const FailingCall second("epoll_ctl", EMFILE, 2);
        EXPECT_EQ(EMFILE, session.Serve({twoAddresses, session.port}).error) << "on none, then";
    }
    EXPECT_EQ(ECONNREFUSED, session.Connect({twoAddresses, session.port}, "").error);
    const auto limit = KLVMsgTimeLimit(30ms).Deadline();
    EXPECT_EQ(ECONNREFUSED, session.ConnectAgain(At(session.port), "", 30ms).error);
    EXPECT_LE(limit, KLVMsgTimeLimit::Clock::now());
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
    EXPECT_EQ(EINVAL, fresh.Register(TextMessage("")).error);
    EXPECT_TRUE(fresh.Register(Word()));
    EXPECT_EQ(EINVAL, fresh.Register(Word()).error) << "for the second time";
}

TEST(SessionConnections, OneTooManyIsRefused) {
    KLVMsgSessionOptions options;
    options.connectionLimit = 1;
    MutePair pair(options);
    PlainPeer second(pair.session.port);
    EXPECT_EQ("", second.Receive(1));
    EXPECT_EQ(EMFILE, pair.session.Await(KLVMsgEvent::kRefused).error);
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Connect(At(pair.session.port), "").status);
    pair.mute.Close();
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts().connections == 0; }));
    PlainPeer third(pair.session.port);
    EXPECT_NE(0U, pair.session.Came().id);
}

TEST(SessionConnections, AStallIsToldAgainWhenAByteHasMoved) {
    KLVMsgSessionOptions options;
    options.stall = 50ms;
    MutePair pair(options);
    for (const char* part : {"\4", "\0"}) {
        pair.mute.Send(std::string(part, 1));
        EXPECT_EQ(pair.id, pair.session.Await(KLVMsgEvent::kStalls).peer);
    }
}

TEST(SessionConnections, DisconnectDropsOnlyWhatIsQueued) {
    KLVMsgSessionOptions options;
    options.queueLimit = 1000;
    MutePair pair(options);
    pair.mute.Send(WordBytes("came"));
    EXPECT_TRUE(pair.session.Holds(1));
    pair.session.Send("mute", Word("taken"), ever);
    auto sending = std::async([&] { return pair.session.Send("mute", flood, ever); });
    EXPECT_TRUE(pair.session.Queues(1));
    auto roomless = std::async([&] { return pair.session.Send("mute", Word("last"), ever); });
    auto gone = std::async([&] { return pair.session.WaitUntilGone(pair.id, ever); });
    auto waiting = std::async([&] { return pair.session.Receive<Other>(ever, "mute").status; });
    EXPECT_EQ(KLVMsgOutcome::kFull, pair.session.Send("mute", Word("full"), 20ms).status);
    pair.session.Await(KLVMsgEvent::kLeftOut);
    EXPECT_TRUE(pair.session.Disconnect("mute"));
    EXPECT_EQ(KLVMsgEvent::kShutDownHere, pair.session.NextEvent(0ms).cause);
    EXPECT_TRUE(gone.get());
    EXPECT_TRUE(Has(sending.get().text, "disconnected here"));
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, roomless.get().status);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, waiting.get());
    EXPECT_EQ("came", pair.session.Next());
    EXPECT_EQ(WordBytes("taken"), pair.mute.Receive(17));
    EXPECT_LT(pair.mute.Receive(flood.text.size()).size(), flood.text.size());
}

TEST(SessionConnections, LabelsSayWhoIsMeant) {
    MutePair pair;
    PlainPeer other(pair.session.port);
    const KLVMsgPeer second = pair.session.Came("mute");
    auto gone = std::async([&] { return pair.session.WaitUntilGone("mute", ever); });
    auto reading = std::async([&] { return pair.session.Receive<Word>(ever, "mute").status; });
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.WaitUntilGone("mute", 50ms).status);
    EXPECT_TRUE(pair.session.SetLabel(second, "a"));
    EXPECT_TRUE(pair.session.SetLabel(pair.id, "a"));
    EXPECT_TRUE(gone.get());
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, reading.get());
    EXPECT_EQ((std::vector<KLVMsgPeer>{pair.id, second}), pair.session.Peers("a"));
    std::vector<std::unique_ptr<PlainPeer>> many;
    std::vector<KLVMsgPeer> came;
    while (many.size() < 20) {
        many.push_back(std::make_unique<PlainPeer>(pair.session.port));
        came.push_back(pair.session.Came());
    }
    EXPECT_EQ(came, pair.session.Peers("")) << "the oldest first";
}

TEST(SessionConnections, WhoeverWaitsIsToldThatTheSessionHasEnded) {
    KLVMsgSessionOptions options;
    options.queueLimit = 1000;
    MutePair pair(options);
    Session& session = pair.session;
    session.Post("mute", flood);
    EXPECT_EQ(KLVMsgOutcome::kFull, session.Ask<Quiz>("mute", Quiz(), ever).status);
    session.Handle<TextMessage>([](auto) {});
    const PlainPeer other(session.port);
    session.Came("other");
    const std::function<KLVMsgOutcome()> operations[] = {
        [&] { return session.Ask<Quiz>("other", Quiz(), ever); },
        [&] { return session.Dispatch(ever); },
        [&] { return session.ReceiveAny(ever); },
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
    EXPECT_TRUE(Eventually([&] { return session.Questions().waiting == 1; }));
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.End(100ms).status) << "the peer has not read";
    for (std::size_t i = 0; i < waiting.size(); ++i) {
        EXPECT_EQ(ESHUTDOWN, waiting[i].get().error) << i;
        EXPECT_EQ(ESHUTDOWN, operations[i]().error) << i;
    }
    EXPECT_EQ(ESHUTDOWN, session.Post("mute", Word()).error);
    EXPECT_EQ(ESHUTDOWN, session.End(ever).error);
    EXPECT_TRUE(session.Peers(KLVMsgPeers::All()).empty());
    EXPECT_EQ(ECONNREFUSED, KLVMsgSession().Connect(At(session.port), "").error);
}

TEST(SessionConnections, EventsThatNobodyAsksForAreCounted) {
    Session session;
    PlainPeer peer(session.port);
    for (int i = 0; i < 600; ++i) {
        PlainPeer passing(session.port);
    }
    PlainPeer last(session.port);
    last.Send(WordBytes("all have come"));
    EXPECT_TRUE(session.Holds(1));
    EXPECT_TRUE(Eventually([&] { return session.Counts().connections == 2; }));
    std::uint64_t events = 0, missed = 0;
    for (KLVMsgEvent event; (event = session.NextEvent(0ms)); ++events) {
        missed += event.missed;
    }
    EXPECT_EQ(1000U, events);
    EXPECT_EQ(202U, missed);
}

TEST(SessionConnections, WhoeverObservesSeesEveryEventOnTheLoop) {
    std::string seen;
    const Listener listener;
    {
        KLVMsgSession session;
        session.Observe([&, main = pthread_self()](const KLVMsgEvent& event) {
            EXPECT_NE(main, pthread_self());
            session.SetLabel(event.peer, "free of locks");
            throw seen += event.what.substr(event.what.find(": ")) + ".";
        });
        session.Connect(At(listener.address.port), "", ever);
        session.Start();
        EXPECT_TRUE(Eventually([&] { return session.Peers("free of locks").size() == 1; }));
        EXPECT_FALSE(session.End(0ms)) << "nobody has accepted it";
    }
    EXPECT_EQ(": a connection.: the session has ended.", seen);
}

TEST(SessionConnections, EveryDescriptorHasItsOptions) {
    const auto isOpen = [](int number) { return fcntl(number, F_GETFD) != -1; };
    std::vector<int> made(64);
    std::iota(made.begin(), made.end(), 0);
    made.erase(std::remove_if(made.begin(), made.end(), isOpen), made.end());
    Pair pair;
    pair.here.Descriptor();
    const auto option = [](int number, int level, int name) {
        int value = 0;
        socklen_t size = sizeof value;
        getsockopt(number, level, name, &value, &size);
        return value;
    };
    int connections = 0;
    for (const int number : made) {
        EXPECT_TRUE(!isOpen(number) || fcntl(number, F_GETFD) == FD_CLOEXEC);
        if (option(number, SOL_SOCKET, SO_ACCEPTCONN) != 0) {
            EXPECT_EQ(1, option(number, SOL_SOCKET, SO_REUSEADDR));
        } else if (option(number, SOL_SOCKET, SO_TYPE) == SOCK_STREAM) {
            EXPECT_EQ(1, option(number, IPPROTO_TCP, TCP_NODELAY));
            EXPECT_EQ(1, option(number, SOL_SOCKET, SO_KEEPALIVE));
            EXPECT_EQ(10, option(number, IPPROTO_TCP, TCP_KEEPIDLE));
            ++connections;
        }
    }
    EXPECT_EQ(2, connections);
}

TEST(SessionConnections, ThousandsAreServedAtOnce) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 11000;
    if (setrlimit(RLIMIT_NOFILE, &limit) == -1) {
        GTEST_SKIP() << "the system allows too few descriptors";
    }
    Session session;
    std::vector<std::unique_ptr<PlainPeer>> peers;
    while (peers.size() < 5000) {
        peers.push_back(std::make_unique<PlainPeer>(session.port));
    }
    peers.back()->Send(WordBytes("from the last"));
    const auto word = session.Receive<Word>(ever);
    EXPECT_TRUE(session.Send(word.peer, Word("alone"), ever));
    EXPECT_EQ(WordBytes("alone"), peers.back()->Receive(17));
    EXPECT_TRUE(session.Send(KLVMsgPeers::All(), Word("together"), ever));
    for (const auto& peer : peers) {
        ASSERT_EQ(WordBytes("together"), peer->Receive(20));
    }
    EXPECT_TRUE(session.Disconnect(KLVMsgPeers::All()));
}

// As happens where the system connects out of a port at which nobody listens.
TEST(SessionConnections, NobodyMeetsItself) {
    const int port = Listener().address.port;
    const Interposed onConnect([=](const SystemCall& call) {
        const sockaddr_in own = {AF_INET, htons(std::uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}};
        if (call.name == "connect") {
            syscall(SYS_bind, call.descriptor, &own, sizeof own);
        }
        return std::optional<long>();
    });
    Session session;
    EXPECT_EQ(ECONNREFUSED, session.Connect(At(port), "", ever).error);
    EXPECT_TRUE(session.Keep(At(port), "kept"));
    EXPECT_EQ(ECONNREFUSED, session.Await(KLVMsgEvent::kAway).error);
}

TEST(SessionConnections, AnUnansweredConnectIsGivenUp) {
    KLVMsgSession session;
    const Listener full;
    listen(full.descriptor, 0);
    const PlainPeer only(full.address.port);
    const FailingCall interruption("poll", EINTR, 1);
    const auto connect = [&](KLVMsgTimeLimit limit) {
        return session.Connect(At(full.address.port), "", limit);
    };
    EXPECT_EQ(KLVMsgOutcome::kTooLate, connect(20ms).status);
    const int before = interruption.Count();
    auto waiting = std::async(std::launch::async, connect, ever);
    EXPECT_TRUE(Eventually([&] { return interruption.Count() > before; }));
    EXPECT_TRUE(session.End(ever));
    EXPECT_EQ(ESHUTDOWN, waiting.get().error);
}

TEST(SessionConnections, AFailedAcceptIsToldOnceUntilOneSucceeds) {
    Session session;
    {
        const FailingCall aborted("accept4", ECONNABORTED, 1);
        PlainPeer peer(session.port);
        EXPECT_EQ(KLVMsgEvent::kCame, session.NextEvent(ever).kind);
    }
    for (int round = 0; round < 2; ++round) {
        const FailingCall again("epoll_ctl", ENOMEM, 2);
        std::optional<FailingCall> fault(std::in_place, "accept4", EMFILE);
        PlainPeer peer(session.port);
        EXPECT_EQ(EMFILE, session.Await(KLVMsgEvent::kServingFailed).error);
        EXPECT_TRUE(Eventually([&] { return fault->Count() >= 4; }));
        EXPECT_GT(50, fault->Count()) << "with pauses";
        while (const auto event = session.NextEvent(0ms)) {
            EXPECT_EQ(KLVMsgEvent::kGone, event.kind);
        }
        fault.reset();
        session.Came();
    }
}

// Neither an idle connection nor one that is not read keeps the loop busy.
TEST(SessionConnections, TheLoopSleepsUntilThereIsSomething) {
    std::atomic<int> waits{0};
    std::atomic<bool> isEndless{false}, blocks{false};
    const Interposed watch([&](SystemCall& call) -> std::optional<long> {
        if (call.name == "epoll_pwait2") {
            sigset_t blocked;
            pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
            blocks = sigismember(&blocked, SIGUSR1) == 1;
            isEndless = call.rest == "for ever";
            ++waits;
        }
        return std::nullopt;
    });
    KLVMsgSessionOptions options;
    options.inboxLimit = 100;
    MutePair pair(options);
    EXPECT_TRUE(Eventually([&] { return isEndless.load(); }));
    EXPECT_TRUE(pair.session.Send("mute", Word("by ourselves"), ever));
    EXPECT_TRUE(Eventually([&] { return !isEndless; })) << "looks after what was sent";
    pair.mute.Send(WordBytes(std::string(1000, 'x')));
    EXPECT_TRUE(pair.session.Holds(1));
    pair.mute.Send("not read");
    EXPECT_TRUE(blocks) << "signals";
    sigset_t own;
    pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_EQ(0, sigismember(&own, SIGUSR1));
    auto sending = std::async([&] { return pair.session.Send("mute", flood, ever); });
    EXPECT_TRUE(pair.session.Queues(1));
    pair.mute.Reset();
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, sending.get().status) << "an error is seen all the same";
    PlainPeer other(pair.session.port);
    pair.session.Came();
    for (int i = 0; i < 20; ++i) {  // time to spin in
        other.Send(TextBytes("Other", "busy"));
        EXPECT_EQ("busy", pair.session.Next<Other>());
    }
    EXPECT_GT(300, waits) << "spins";
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
    pair->session.StopServing(pair->session.port);
    EXPECT_EQ(ECONNREFUSED, pair->session.Connect(At(pair->session.port), "").error);
    pair->mute.Send(WordBytes("refused"));
    EXPECT_FALSE(pair->session.Receive<Word>(ever, "mute"));
    EXPECT_EQ("", pair->mute.Receive(1)) << "closed, though the child has a copy";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

}  // namespace
