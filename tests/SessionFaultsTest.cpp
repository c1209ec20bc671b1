// A session's life, again and again, with one of its system calls failing each time.
#include <gtest/gtest.h>

#include <cerrno>

#include "Faults.h"
#include "Sessions.h"

namespace {

// Waits for no time limit but its own end: a wake-up that is lost is a time-out.
bool LivesAndGetsAll() {
    KLVMsgSession server, client;
    int port = 0;
    const bool done = server.Register(Word()) && server.Register(Other()) &&
                      server.Serve(anyPort, &port) && server.Start() && client.Register(Word()) &&
                      client.Start() && client.Connect(At(port), "server", ever);
    // From here on nobody else can come: who waits for the client learns that it has gone.
    server.NextEvent(done ? 200ms : 0ms);
    server.StopServing(port);
    bool gotAll = done && client.Post("server", Word("posted")) && client.Post("server", Other()) &&
                  client.Send("server", Word(std::string(100000, 'x')), ever);
    if (gotAll) {
        const auto first = server.Receive<Word>(ever);
        gotAll = false;
        if (first) {
            const auto second = server.Receive<Word>(ever);
            gotAll = second && !server.ReceiveAll<Other>(ever).messages.empty();
            EXPECT_TRUE(!second || (first->text == "posted" && second->text.size() == 100000));
            server.Post(first.peer, Word("answer"));
            client.Receive<Word>(gotAll ? ever : KLVMsgTimeLimit(0s), "server");
        }
    }
    // Neither waits for answers that the other one may still give.
    client.Disconnect("server");
    server.Disconnect(KLVMsgPeers::All());
    client.End(ever);
    server.End(ever);
    return gotAll;
}

TEST(SessionFaults, EachSystemCallMayFail) {
    for (const char* name :
         {"epoll_create1", "eventfd", "epoll_ctl", "epoll_pwait2", "socket", "setsockopt", "bind",
          "listen", "getsockname", "getpeername", "getsockopt", "connect", "accept4", "readv",
          "sendmsg", "shutdown", "getaddrinfo"}) {
        for (const int error : {EMFILE, EINTR}) {
            bool reached = true;
            for (int n = 1; reached && n <= 12; ++n) {
                const FailingCall fault(name, name == std::string("getaddrinfo") ? 4 : error, n);
                const bool gotAll = LivesAndGetsAll();
                reached = fault.Count() >= n;
                EXPECT_TRUE(reached || gotAll) << name << " " << n;
            }
        }
    }
}

}  // namespace
