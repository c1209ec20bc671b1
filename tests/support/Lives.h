// A session's life, again and again: with each of its system calls failing in turn, and with each
// allocation of the thread that uses it, and of each loop.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "Faults.h"
#include "Sessions.h"

inline std::atomic<int> loops{-1};  // that have waited so far; -1: nobody counts

// Reads its body by itself.
struct BareWord : Word {
    using Word::Word;
    int ReadMessage(KLVMsgInputStream* stream) override {
        int count = 0, size = 0;
        stream->read(&size, sizeof size, count);
        text.resize(static_cast<std::size_t>(size));
        return stream->read(text.data(), size, count), 1;
    }
    KLVMsgSocketMessage* NewInstance() override { return new BareWord; }
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
    explicit Life(const KLVMsgProtection* ofBoth = nullptr) : protection(ofBoth) {}

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
        const auto connects = [&] {
            return protection == nullptr ? client->Connect(At(port), "server", ever)
                                         : client->Connect(At(port), "server", ever, *protection);
        };
        const auto serves = [&] {
            const auto admit = [](const KLVMsgPeerInfo& info) { return info.Port() != 0; };
            return protection == nullptr ? server->Serve(anyPort, admit, &port)
                                         : server->Serve(anyPort, admit, &port, *protection);
        };
        return Try([&] { return server->Register(Word()); }) &&
               Try([&] { return server->Register(BareWord()); }) &&
               Try([&] { return server->Observe([](const KLVMsgEvent&) {}); }) && Try(serves) &&
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
                          Try([&] { return client->Post("server", BareWord("much too long")); }) &&
                          Try([&] { return client->Send("server", large, ever); }) && AllCame();
        while (const auto some = Try([&] { return server->ReceiveAll<BareWord>(0ms); })) {
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

    const KLVMsgProtection* const protection;
    static inline const Word large{std::string(70000, 'x')};
    int port = 0;
    bool lacks = false;  // memory for a message, and said so
    std::optional<KLVMsgSession> server, client;
    std::vector<KLVMsgPeer> peers, answering;
};

// What happens to each life: whether not all need come, where the call of a name fails with an
// errno; and what is checked after it.
struct Lives {
    const KLVMsgProtection* protection = nullptr;
    std::function<bool(const std::string& name, int error)> mayLose;
    std::function<void()> after = [] {};
};

inline void FailEachSystemCall(const Lives& lives, std::initializer_list<const char*> names) {
    for (const char* const name : names) {
        for (const int error : {EMFILE, EINTR}) {
            bool reached = true;
            for (int n = 1; reached && n <= 12; ++n) {
                const FailingCall fault(name, name == std::string("getaddrinfo") ? 4 : error, n);
                const bool gotAll = Life(lives.protection).GetsAll();
                reached = fault.Count() >= n;
                EXPECT_TRUE(gotAll || (reached && lives.mayLose(name, error))) << name << " " << n;
                lives.after();
            }
        }
    }
}

// The n-th allocation of a loop fails: of the first that is started from now on, or of the second.
class FailingOnLoop {
public:
    FailingOnLoop(int where, int n)
        : m_interposed([this, where, n](SystemCall& call) -> std::optional<long> {
              thread_local int loop = 0;
              thread_local std::optional<FailingAllocation> fault;
              if (call.name == "epoll_pwait2") {
                  loop = loop != 0 ? loop : ++loops;
                  loop == where && !fault ? void(fault.emplace(n)) : void();
              }
              m_count = fault ? fault->Count() : m_count.load();
              return std::nullopt;
          }) {
        loops = 0;
    }
    ~FailingOnLoop() { loops = -1; }
    int Count() const { return m_count; }

private:
    std::atomic<int> m_count{0};
    Interposed m_interposed;
};

// On one thread: 0 is this one, 1 the server's loop, 2 the client's. Every `step`-th of them.
inline void FailEachAllocation(const Lives& lives, int where, int step) {
    bool reached = true;
    for (int n = 1; reached; n += step) {
        SCOPED_TRACE(std::to_string(n) + " on thread " + std::to_string(where));
        const FailingOnLoop onLoop(where, n);
        bool isWell = false;
        {
            Life life(lives.protection);
            const FailingAllocation fault(where == 0 ? n : 0);
            isWell = life.GetsAll() || life.lacks;
            reached = (where == 0 ? fault.Count() : onLoop.Count()) >= n;
        }
        EXPECT_TRUE(isWell || (reached && (where != 0 || lives.protection != nullptr)));
        lives.after();
    }
}
