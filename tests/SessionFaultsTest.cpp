// A session's life, again and again, with one of its system calls or allocations failing each time.
#include <gtest/gtest.h>

#include <cerrno>
#include <future>

#include "Faults.h"
#include "Sessions.h"

namespace {

// Neither waits for answers that the other one may still give.
struct Two {
    ~Two() {
        for (KLVMsgSession* const one : {&client, &server}) {
            try {
                one->Disconnect(KLVMsgPeers::All());
            } catch (const std::bad_alloc&) {
                one->Disconnect(KLVMsgPeers::All());  // only one allocation fails
            }
        }
    }
    KLVMsgSession server, client;
};

// Waits for no time limit but its own end: a wake-up that is lost is a time-out.
void Live(bool& gotAll) {
    Two sessions;
    KLVMsgSession &server = sessions.server, &client = sessions.client;
    int port = 0;
    const bool done = server.Register(Word()) && server.Register(Bare()) &&
                      server.Serve(anyPort, &port) && server.Start() && client.Register(Word()) &&
                      client.Start() && client.Connect(At(port), "server", ever);
    // From here on nobody else can come, so that whoever waits for the client learns that it has gone.
    server.NextEvent(done ? 200ms : 0ms);
    server.StopServing(port);
    const bool sent = done && client.Post("server", Word("posted")) &&
                      client.Post("server", Bare("bare")) &&
                      client.Send("server", Word(std::string(100000, 'x')), ever);
    if (sent) {
        const auto first = server.Receive<Word>(ever);
        const auto second = first ? server.Receive<Word>(ever) : KLVMsgReceived<Word>();
        const auto bare =
            second.message ? server.ReceiveAll<Bare>(ever) : KLVMsgReceivedAll<Bare>();
        // Who has no memory to decode the first one has refused it, and told so.
        EXPECT_TRUE(second.message == nullptr ||
                    (first->text == "posted" && second->text.size() == 100000));
        gotAll = !bare.messages.empty();
        if (first) {
            server.SetLabel(first.peer, "client");
            server.Post("client", Word("answer"));
            client.Receive<Word>(gotAll ? ever : KLVMsgTimeLimit(0s), "server");
        }
    }
    client.Peers(KLVMsgPeers::All());
    client.Descriptor();
    client.NextEvent(0ms);
    client.Disconnect("server");
    server.Disconnect(KLVMsgPeers::All());
    client.End(ever);
    server.End(ever);
}

TEST(SessionFaults, EachSystemCallMayFail) {
    for (const char* name :
         {"epoll_create1", "eventfd", "epoll_ctl", "epoll_wait", "socket", "setsockopt", "bind",
          "listen", "getsockname", "getpeername", "getsockopt", "connect", "accept4", "readv",
          "sendmsg", "shutdown", "getaddrinfo"}) {
        for (const int error : {EMFILE, EINTR}) {
            bool reached = true;
            for (int n = 1; reached && n <= 12; ++n) {
                const FailingCall fault(name, name == std::string("getaddrinfo") ? 4 : error, n);
                bool gotAll = false;
                Live(gotAll);
                reached = fault.Count() >= n;
                EXPECT_TRUE(reached || gotAll) << name << " " << n;
            }
        }
    }
}

TEST(SessionFaults, DISABLED_EachAllocationOfAnyThreadMayFail) {
    bool reached = true, gotAll = false;
    for (int n = 1; reached; ++n) {
        const FailingAllocationAnywhere fault(n);
        gotAll = false;
        try {
            Live(gotAll);
        } catch (const std::bad_alloc&) {
        }
        reached = fault.HasFailed();
    }
    EXPECT_TRUE(gotAll) << "the last one has none";
}

}  // namespace
