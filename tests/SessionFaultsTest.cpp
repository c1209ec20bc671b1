// A session's life, again and again: with each of its system calls failing in turn, and with each
// allocation of the thread that uses it, and of each loop.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "Faults.h"
#include "Sessions.h"

namespace {

std::atomic<int> loops{-1};  // that have waited so far; -1: nobody counts

// Reads its body by itself.
struct Bare : Word {
    using Word::Word;
    int ReadMessage(KLVMsgInputStream* stream) override {
        int count = 0, size = 0;
        stream->read(&size, sizeof size, count);
        text.resize(static_cast<std::size_t>(size));
        return stream->read(text.data(), size, count), 1;
    }
    KLVMsgSocketMessage* NewInstance() override { return new Bare; }
    KLVString GetMessageType() const override { return "Bare"; }
};

// Again where memory was short: then nothing was done.
template <class Operation>
auto Try(const Operation& operation) {
    try {
        auto outcome = operation();
        if (outcome.error != ENOMEM) {
            return outcome;
        }
    } catch (const std::bad_alloc&) {
    }
    return operation();
}

// Two sessions that talk over two connections. Nobody waits with a limit: a wake-up that is lost is
// a time-out.
struct Life {
    bool GetsAll() {
        bool all = Begin() && Talk();
        for (std::size_t i = 0; all && i < peers.size(); ++i) {
            all = AllCameFrom(peers[i]) &&
                  Try([&] { return server->Post(peers[i], Word("answer")); }) &&
                  Try([&] { return client->Receive<Word>(ever, answering[i]); });
        }
        all = all && Refuses();
        End();
        return all;
    }

    bool Begin() {
        Try([&] { return server.emplace(), KLVMsgOutcome(); });
        Try([&] { return client.emplace(), KLVMsgOutcome(); });
        const auto connects = [&] { return client->Connect(At(port), "server", ever); };
        const auto admit = [](const KLVMsgPeerInfo& info) { return info.Port() != 0; };
        return Try([&] { return server->Register(Word()); }) &&
               Try([&] { return server->Register(Bare()); }) &&
               Try([&] { return server->Observe([](const KLVMsgEvent&) {}); }) &&
               Try([&] { return server->Serve(anyPort, admit, &port); }) &&
               Try([&] { return server->Start(); }) && SeesLoops(1) &&
               Try([&] { return client->Register(Word()); }) &&
               Try([&] { return client->Start(); }) && SeesLoops(2) && Try(connects) &&
               Try(connects);
    }
    static bool SeesLoops(int number) {
        const Exempt exempt;
        return loops < 0 || Eventually([=] { return loops == number; });
    }

    bool Talk() {
        const bool done = Try([&] { return client->Post("server", Word("1")); }) &&
                          Try([&] { return client->Post("server", Bare("much too long")); }) &&
                          Try([&] { return client->Send("server", large, ever); }) && AllCame();
        while (const auto some = Try([&] { return server->ReceiveAll<Bare>(0ms); })) {
            const Exempt exempt;
            for (const auto& one : some.messages) {
                peers.push_back(one.peer);
            }
        }
        const Exempt exempt;
        std::sort(peers.begin(), peers.end());
        answering = client->Peers("server");
        return done && peers.size() == 2 && answering.size() == 2;
    }
    bool AllCame() {
        const Exempt exempt;
        const auto isLost = [&] { return client->Counts().connections != 2; };
        return Eventually([&] { return isLost() || server->Counts().messagesInInbox == 6; }) &&
               !isLost();
    }

    // What comes is whole, once and in order; that no more will come is told.
    bool AllCameFrom(const KLVMsgPeers& peer) {
        const auto first = Try([&] { return server->Receive<Word>(ever, peer); });
        const auto rest = Try([&] { return server->ReceiveAll<Word>(ever, peer); });
        for (const auto status : {first.status, rest.status}) {
            EXPECT_TRUE(status == KLVMsgOutcome::kDone || status == KLVMsgOutcome::kPeerGone);
        }
        EXPECT_TRUE(!first || first->text == "1" || (first->text == large.text && !rest));
        EXPECT_TRUE(!rest || (rest.messages.size() == 1 && rest.messages[0]->text == large.text));
        return first && rest;
    }

    // A body that its class refuses ends its connection, in whichever way it is asked for.
    bool Refuses() {
        const auto done = Try([&] { return client->Post("server", Word("refused")); });
        if (done) {
            const KLVMsgPeers one(peers[0]), other(peers[1]);
            const auto status = Try([&] { return server->Receive<Word>(ever, one); }).status;
            EXPECT_EQ(KLVMsgOutcome::kPeerGone, status);
            EXPECT_FALSE(Try([&] { return server->ReceiveAll<Word>(ever, other); }));
        }
        return bool(done);
    }

    // Neither waits for answers that the other one may still give.
    void End() {
        for (auto* const one : {&*client, &*server, &*client, &*server}) {
            const auto left = Try([&] { return one->Disconnect(KLVMsgPeers::All()); });
            if (!left) {
                while (const auto event = Try([&] { return one->NextEvent(0ms); })) {
                    lacks = lacks || event.cause == KLVMsgEvent::kNoMemory ||
                            event.kind == KLVMsgEvent::kLeftOut;
                }
                Try([&] { return one->WaitUntilGone(KLVMsgPeers::All(), ever); });
                const int error = Try([&] { return one->End(ever); }).error;
                EXPECT_TRUE(error != ESHUTDOWN || left.error == ESHUTDOWN) << "half done";
            }
        }
    }

    static inline const Word large{std::string(70000, 'x')};
    int port = 0;
    bool lacks = false;  // memory for a message, and said so
    std::optional<KLVMsgSession> server, client;
    std::vector<KLVMsgPeer> peers, answering;
};

TEST(SessionFaults, EachSystemCallMayFail) {
    for (const char* name :
         {"epoll_create1", "eventfd", "epoll_ctl", "epoll_pwait2", "socket", "setsockopt", "bind",
          "listen", "getsockname", "getpeername", "getsockopt", "connect", "accept4", "readv",
          "sendmsg", "shutdown", "getaddrinfo"}) {
        for (const int error : {EMFILE, EINTR}) {
            bool reached = true;
            for (int n = 1; reached && n <= 12; ++n) {
                const FailingCall fault(name, name == std::string("getaddrinfo") ? 4 : error, n);
                const bool gotAll = Life().GetsAll();
                reached = fault.Count() >= n;
                const bool mayLose = error == EMFILE || name != std::string("readv");
                EXPECT_TRUE(gotAll || (reached && mayLose)) << name << " " << n;
            }
        }
    }
    const FailingCall missing("epoll_pwait2", ENOSYS);
    EXPECT_TRUE(Life().GetsAll()) << "on a kernel before 5.11";
}

TEST(SessionFaults, EachAllocationMayFail) {
    for (const int where : {0, 1, 2}) {  // here, on the server's loop, on the client's
        std::atomic<int> count{0};
        bool reached = true;
        for (int n = 1; reached; ++n) {
            SCOPED_TRACE(std::to_string(n) + " on thread " + std::to_string(where));
            loops = 0;
            count = 0;
            const Interposed onLoops([&](SystemCall& call) -> std::optional<long> {
                thread_local int loop = 0;
                thread_local std::optional<FailingAllocation> fault;
                if (call.name == "epoll_pwait2") {
                    loop = loop != 0 ? loop : ++loops;
                    loop == where && !fault ? void(fault.emplace(n)) : void();
                    count = loop == where ? fault->Count() : count.load();
                }
                return std::nullopt;
            });
            Life life;
            bool gotAll = false;
            {
                const FailingAllocation fault(where == 0 ? n : 0);
                gotAll = life.GetsAll();
                count = where == 0 ? fault.Count() : count.load();
            }
            reached = count >= n;
            EXPECT_TRUE(gotAll || life.lacks || (reached && where != 0));
        }
        loops = -1;
    }
}

}  // namespace
