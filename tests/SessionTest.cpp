#include <KLVMsgSession.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "Support.h"

namespace {

using namespace std::chrono_literals;

// The type's name is longer than the shortest of its messages, so that headers are looked at.
struct Word : KLVMsgFramedMessage {
    explicit Word(const std::string& content = "") : text(content) {}
    bool Encode(std::string& bytes) const override { return bytes = text, true; }
    bool Decode(std::string_view bytes) override { return text = bytes, text != "refused"; }
    KLVMsgSocketMessage* NewInstance() override { return new Word; }
    KLVString GetMessageType() const override { return "AWordOfSomeLength"; }
    std::string text;
};
struct Stop : Word {
    KLVMsgSocketMessage* NewInstance() override { return new Stop; }
    KLVString GetMessageType() const override { return "Stop"; }
};

const KLVMsgSocketAddress anyPort("127.0.0.1", 0);
std::string Bytes(const std::string& text) { return TextBytes("AWordOfSomeLength", text); }

struct Session : KLVMsgSession {
    explicit Session(Pace pace = kAtOnce, KLVMsgTimeLimit stall = 20s)
        : KLVMsgSession(pace, stall) {
        Register(Word());
        Register(Stop());
        Start();
    }
    std::string Next(KLVMsgTimeLimit limit = 20s) {
        const auto word = Receive<Word>(limit);
        return word ? word->text : word.KLVMsgOutcome::text;
    }
};

// A session that serves in a process of its own, made before the test has threads; on the port of
// an earlier one it waits until that has gone.
struct Partner {
    template <class Work>
    explicit Partner(Work work, const Partner* earlier = nullptr) {
        int ends[2];
        EXPECT_EQ(0, pipe(ends));
        process = fork();
        if (process == 0) {
            while (earlier != nullptr && kill(earlier->process, 0) == 0) {
                std::this_thread::sleep_for(1ms);
            }
            Session session;
            session.Serve({"127.0.0.1", earlier == nullptr ? 0 : earlier->port}, &port);
            const bool right = write(ends[1], &port, sizeof port) == sizeof port && work(session);
            session.End(20s);
            _exit(right ? 0 : 1);
        }
        if (earlier == nullptr) {
            EXPECT_EQ(ssize_t{sizeof port}, read(ends[0], &port, sizeof port));
        }
        close(ends[0]);
        close(ends[1]);
    }
    ~Partner() { End(SIGKILL); }

    // The status of a process that ends by itself, or by a signal.
    int End(int signal = 0) {
        int status = -1;
        kill(process, signal);
        waitpid(process, &status, 0);
        return status;
    }

    pid_t process;
    int port = 0;
};

bool Echo(Session& session) {
    while (const auto word = session.Receive<Word>(60s)) {
        session.Post(word.peer, Word(word->text + "!"));
    }
    return true;
}

TEST(Session, LosesAPeerAndFindsItAgainUnderTheSameLabel) {
    Partner first(Echo), second(Echo, &first);
    Session session;
    const KLVMsgSocketAddress address("127.0.0.1", first.port);
    EXPECT_TRUE(session.Connect(address, "echo"));
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(session.Send("echo", Word("hello"), 20s));
        EXPECT_EQ("hello!", session.Next());
    }
    first.End(SIGKILL);
    EXPECT_TRUE(session.WaitUntilGone("echo", 20s));
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Send("echo", Word(), 20s).status);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Receive<Word>(20s).status);
    EXPECT_TRUE(session.ConnectAgain(address, "echo", 20s));
    EXPECT_TRUE(session.Post("echo", std::make_unique<Word>("again")));
    EXPECT_EQ("again!", session.Next());
}

TEST(Session, TellsWhyItCannotConnectOrServe) {
    Session session;
    int port = 0;
    EXPECT_TRUE(session.Serve(anyPort, &port));
    EXPECT_EQ(EADDRINUSE, session.Serve({"127.0.0.1", port}).error);
    const std::string unknown = session.Connect({"no host", 1}, "").text;
    EXPECT_NE(std::string::npos, unknown.find(gai_strerror(EAI_NONAME))) << unknown;
    EXPECT_EQ(EBUSY, KLVMsgSession().Start().error);
    struct Careless : Word {
        KLVString GetMessageType() const override { return "Careless"; }
    };
    EXPECT_EQ(EINVAL, session.Register(Careless()).error) << "NewInstance makes a Word";
    EXPECT_EQ(EINVAL, session.Register(Word()).error) << "for the second time";
    EXPECT_EQ(EINVAL, session.Receive<Careless>(20s).error);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.Receive<Word>(10ms).status);
}

// One end does not read before the other has ended; then both write more than the sockets hold.
TEST(Session, EndingLosesNothingAndTwoWhoWriteDoNotWaitForEachOther) {
    const std::string large(1 << 20, 'x');
    const auto talk = [&large](KLVMsgSession& session, const KLVMsgPeers& to) {
        for (int i = 0; i < 40; ++i) {
            session.Post(to, Word(large + std::to_string(i)));
        }
        bool inOrder = true;
        for (int i = 0; inOrder && i < 40; ++i) {
            const auto word = session.Receive<Word>(60s);
            inOrder = word && word->text == large + std::to_string(i);
        }
        return inOrder;
    };
    Partner partner([&](Session& session) {
        const auto hello = session.Receive<Stop>(20s);
        const bool both = talk(session, hello.peer);
        bool all = session.WaitUntilGone(hello.peer, 20s) && both;
        for (int i = 0; i < 20000; ++i) {
            all = all && session.Next(0s) == std::to_string(i);
        }
        return all;
    });
    {
        Session session;
        EXPECT_TRUE(session.Connect({"127.0.0.1", partner.port}, "partner"));
        session.Post("partner", Stop());
        EXPECT_TRUE(talk(session, "partner"));
        for (int i = 0; i < 20000; ++i) {
            session.Post("partner", Word(std::to_string(i)));
        }
    }
    EXPECT_EQ(0, partner.End());
}

TEST(Session, TakesBackWhatIsTooLateAndEndsWhenThePeerHasReadTheRest) {
    Listener listener;
    KLVMsgSession session;
    EXPECT_TRUE(session.Connect({"127.0.0.1", listener.address.port}, "peer"));
    PlainPeer peer(listener);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.Send("peer", Word("too late"), 10ms).status);
    const std::string next(1 << 20, 'x');  // of which the peer's socket holds a part only
    session.Post("peer", Word(next));
    session.Start();
    std::thread ending([&] { EXPECT_TRUE(session.End(20s)); });
    std::this_thread::sleep_for(100ms);
    peer.Send("x");  // would reset a connection that is closed, with what was not read
    EXPECT_TRUE(Bytes(next) == peer.Receive(Bytes(next).size()));
    peer.Close();
    ending.join();
}

TEST(Session, TimeLimitsHoldWhateverAPeerDoes) {
    Listener listener;
    Session session(KLVMsgSession::kAtOnce, 2s);
    EXPECT_TRUE(session.Connect({"127.0.0.1", listener.address.port}, "mute"));
    PlainPeer mute(listener);
    const Word large(std::string(20 << 20, 'x'));
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.Send("mute", large, 100ms).status);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.Receive<Word>(100ms).status);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Send("mute", large, 20s).status);
    EXPECT_TRUE(session.Connect({"127.0.0.1", listener.address.port}, "mute"));
    PlainPeer again(listener);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Send("mute", large, 20s).status) << "a part only";
}

TEST(Session, ReadsHeadersInPiecesAndEndsConnectionsThatAreOutOfStep) {
    for (const auto pace : {KLVMsgSession::kAtOnce, KLVMsgSession::kTask}) {
        Session session(pace, 500ms);
        int port = 0;
        EXPECT_TRUE(session.Serve(anyPort, &port));
        PlainPeer slow(port);
        for (std::size_t cut = 1; cut < Bytes("slow").size(); cut += 3) {
            slow.Send(Bytes("slow").substr(0, cut));
            std::this_thread::sleep_for(5ms);
            slow.Send(Bytes("slow").substr(cut));
            EXPECT_EQ("slow", session.Next());
        }
        for (const std::string& bad :
             {Bytes("refused"), Bytes("cut").substr(0, 27), TextBytes("Odd", "odd"),
              std::string(60, '\xff'), Bytes("").substr(0, 10)}) {
            PlainPeer peer(port);
            EXPECT_TRUE(Eventually([&] { return session.Peers("").size() == 2; }));
            peer.Send(bad);
            bad.size() == 10 ? peer.Close() : void();
            EXPECT_EQ("", peer.Receive(1));
            EXPECT_TRUE(Eventually([&] { return session.Peers("").size() == 1; })) << bad;
        }
        slow.Send(Bytes("still here"));
        EXPECT_EQ("still here", session.Next());
    }
}

// Pieces of messages lie at the ends of what the system hands over.
TEST(Session, TakesABurstThatFillsTheBuffers) {
    Session session;
    int port = 0;
    EXPECT_TRUE(session.Serve(anyPort, &port));
    std::string burst;
    for (int i = 0; i < 100000; ++i) {
        burst += Bytes(std::to_string(i));
    }
    std::thread sender([&] { PlainPeer(port).Send(burst); });
    for (int i = 0; i < 100000 && !HasFailure(); ++i) {
        EXPECT_EQ(std::to_string(i), session.Next());
    }
    sender.join();
}

TEST(Session, SendsToALabelAndRenewsAWakeUpThatIsClosed) {
    Session session;
    int port = 0;
    EXPECT_TRUE(session.Serve(anyPort, &port));
    std::deque<PlainPeer> peers;
    for (const char* topic : {"sun", "rain", "sun"}) {
        peers.emplace_back(port).Send(Bytes(topic));
        const auto word = session.Receive<Word>(20s);
        EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Post(KLVMsgPeer(), Word("nobody")).status);
        EXPECT_TRUE(session.SetLabel(word.peer, word->text));
    }
    const auto wakeUp = [] {
        int number = 100, family = 0;
        for (socklen_t length = sizeof family; family != AF_UNIX && number-- > 0;) {
            if (Registry().GetSocket(number) != nullptr) {
                getsockopt(number, SOL_SOCKET, SO_DOMAIN, &family, &length);
            }
        }
        return number;
    };
    ASSERT_NE(-1, wakeUp());
    Registry().ShutDownConnection(wakeUp());
    for (const char* topic : {"sun", "rain"}) {
        EXPECT_TRUE(session.Send(topic, Word(topic), 20s));
    }
    EXPECT_TRUE(session.Send(KLVMsgPeers::All(), Word("all"), 20s));
    for (std::size_t i = 0; i < 3; ++i) {
        const std::string expected = Bytes(i == 1 ? "rain" : "sun") + Bytes("all");
        EXPECT_EQ(expected, peers[i].Receive(expected.size()));
    }
    EXPECT_TRUE(Eventually([&] { return wakeUp() != -1; }));
}

}  // namespace
