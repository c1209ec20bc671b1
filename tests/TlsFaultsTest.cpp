// What a protected connection needs fails in turn, OpenSSL's own memory included.
#include <openssl/crypto.h>

#include <cstdlib>
#include <utility>

#include "Certificates.h"
#include "Lives.h"

namespace {

std::atomic<long> held{0};  // blocks of OpenSSL's

void* Counted(void* block) { return held += block == nullptr ? 0 : 1, block; }

const bool isHooked = CRYPTO_set_mem_functions(
                          [](std::size_t size, const char*, int) {
                              return AllocationFails() ? nullptr : Counted(std::malloc(size));
                          },
                          [](void* block, std::size_t size, const char*, int) {
                              void* const moved =
                                  AllocationFails() ? nullptr : std::realloc(block, size);
                              return block == nullptr ? Counted(moved) : moved;
                          },
                          [](void* block, const char*, int) {
                              held -= block == nullptr ? 0 : 1, std::free(block);
                          }) == 1;

class TlsFaults : public testing::Test {
protected:
    // Once before: OpenSSL keeps what it needs again.
    void SetUp() override {
        ASSERT_TRUE(isHooked && Life(&tls).GetsAll());
        lives.protection = &tls;
        lives.mayLose = [](const std::string& name, int error) {
            return error == EMFILE || (name != "readv" && name != "sendmsg");
        };
        lives.after = [before = held.load()] { EXPECT_LT(held, before + 100); };
    }

    Identity authority, peer{&authority, "IP:127.0.0.1"};
    PemFolder folder;
    // Who waits for a greeting that never comes has not been told.
    KLVMsgTls Forever() const {
        KLVMsgTlsOptions options = folder.Peer("peer", {&peer}, authority);
        options.greeting = ever;
        return KLVMsgTls(options);
    }
    const KLVMsgTls tls = Forever();
    Lives lives;
};

TEST_F(TlsFaults, EachSystemCallMayFail) {
    FailEachSystemCall(lives, {"epoll_ctl", "epoll_pwait2", "poll", "getsockopt", "setsockopt",
                               "accept4", "readv", "sendmsg", "shutdown"});
}

// There are eight thousand on each of two threads: some of them, or with KLVMSG_FAULT_STEP=1 all.
int Step(int usual) {
    const char* const step = std::getenv("KLVMSG_FAULT_STEP");
    return step != nullptr ? std::atoi(step) : usual;
}

TEST_F(TlsFaults, EachAllocationMayFail) {
    for (const int where : {0, 1, 2}) {
        FailEachAllocation(lives, where, where == 2 ? 1 : Step(401));
    }
}

TEST_F(TlsFaults, KeepComesBackWhereverItsMemoryRunsShort) {
    bool reached = true;
    for (int n = 1; reached; n += Step(331)) {
        const FailingOnLoop onLoop(2, n);
        int port = 0;
        Session server;
        Life::SeesLoops(1);
        Session client;
        Life::SeesLoops(2);
        EXPECT_TRUE(server.Serve(anyPort, &port, tls));
        EXPECT_TRUE(client.Keep(At(port), "kept", Word("hello"), tls));
        EXPECT_TRUE(client.Post("kept", Word("1")));
        std::string text = server.Next();
        while (text == "hello") {
            text = server.Next();
        }
        EXPECT_EQ("1", text) << n;
        reached = onLoop.Count() >= n;
        client.Disconnect("kept"), server.Disconnect(KLVMsgPeers::All());
    }
}

TEST_F(TlsFaults, KeepTriesAgainWhereItsGreetingCannotGoOn) {
    for (int n = 1; n <= 10; ++n) {
        std::atomic<int> failed{0};
        const Interposed onLoop([&, n](SystemCall& call) -> std::optional<long> {
            thread_local std::optional<FailingAllocation> fault;
            thread_local bool isFull = false;
            if (call.name == "sendmsg") {
                isFull = true;
                return -EAGAIN;
            }
            if (call.name != "epoll_ctl" || !std::exchange(isFull, false)) {
                return std::nullopt;
            }
            fault.emplace(n);
            ++failed;
            return -EMFILE;  // it cannot wait for room, and then memory runs short as well
        });
        const Listener mute(anyPort);
        Session client;
        EXPECT_TRUE(client.Keep(mute.address, "kept", tls));
        EXPECT_TRUE(Eventually([&] { return failed > 1; }));
    }
}

}  // namespace
