#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "Faults.h"
#include "Support.h"

namespace {

using Address = KLVMsgSocketAddress;

// What is open, and the last error.
std::string State(const KLVMsgCommSocket& socket) {
    return std::string(socket.inputOpen ? "in " : "") + (socket.outputOpen ? "out " : "") +
           (socket.closed ? "closed " : "open ") + std::to_string(socket.lastError);
}

// The arguments of the calls on a descriptor.
std::string Arguments(const CallLog& log, int descriptor) {
    std::string arguments;
    for (const SystemCall& call : log.Calls(descriptor)) {
        arguments += call.rest;
    }
    return arguments;
}

// Those of an option that is set to so much.
std::string Option(int option, const std::string& value) {
    return std::to_string(SOL_SOCKET) + " " + std::to_string(option) + " " + value + " ";
}

}  // namespace

TEST(StreamSocket, ConnectionHasItsTwoOptions) {
    for (const char* host : {"", "localhost", "::1"}) {
        const CallLog log;
        Listener server(Address(host, 0));
        ASSERT_NE("getaddrinfo listen", log.Names()) << host << " does not resolve";
        if (server.closed) {
            GTEST_SKIP() << host << ": " << std::strerror(server.lastError);
        }
        KLVMsgCommSocket socket(server.address);
        EXPECT_EQ(0, socket.address.port);
        socket.Connect(server.address);
        EXPECT_EQ("in out open 0", State(socket));
        socket.Shutdown();
        ASSERT_EQ("connect setsockopt setsockopt shutdown shutdown close",
                  log.Names(socket.descriptor));
        EXPECT_EQ(Option(SO_LINGER, "1 0") + Option(SO_KEEPALIVE, "1 0") + "0 1 ",
                  Arguments(log, socket.descriptor));
    }
}

TEST(StreamSocket, FailedConnectKeepsItsDescriptorUntilShutdown) {
    const int before = OpenDescriptors();
    const int port = Listener().address.port;  // nothing listens there any more
    KLVMsgCommSocket socket{Address()};
    const CallLog log;
    socket.Connect(Address("localhost", port));
    EXPECT_EQ("getaddrinfo socket connect freeaddrinfo", log.Names());  // the first address only
    EXPECT_EQ("closed " + std::to_string(ECONNREFUSED), State(socket));
    EXPECT_EQ(before + 1, OpenDescriptors());
    socket.Shutdown();
    EXPECT_EQ(before, OpenDescriptors());
    Listener listener;
    for (const int failing : {1, 2}) {
        const FailingCall option("setsockopt", EPERM, failing);
        socket.Connect(Address("", listener.address.port));
        EXPECT_EQ(failing == 1 ? "open 1" : "in out open 1", State(socket));
        EXPECT_EQ(failing == 2, socket.IsConnected());
        socket.Shutdown();
    }
    const CallLog last;
    socket.Connect(Address("", 0));
    EXPECT_EQ("127.0.0.1 0 ", Arguments(last, 0));
    const FailingCall closing("close", EIO);
    socket.Shutdown();
    EXPECT_EQ("closed " + std::to_string(EIO), State(socket));
}

TEST(StreamSocket, ConnectEndsTheOldConnectionFirst) {
    ConnectedPair pair;
    const auto show = [&] { return State(*pair.socket); };
    const auto connect = [&] { pair.socket->Connect(pair.listener->address); };
    EXPECT_EQ(1, ShortMemoryChangesNothing(connect, show));
    const FailingCall stuck("shutdown", EINVAL), unknown("getaddrinfo", ENOENT);
    const CallLog log;
    pair.socket->inputOpen = false;
    pair.socket->Connect(Address("127.0.0.1", 80));
    EXPECT_EQ("shutdown close getaddrinfo", log.Names());
    EXPECT_EQ("closed " + std::to_string(ENOENT), State(*pair.socket));
    EXPECT_EQ(-1, pair.socket->descriptor);
    pair.socket->inputOpen = true;
    pair.socket->closed = false;
    pair.socket->ShutDownInput();
    EXPECT_FALSE(pair.socket->IsConnected());
    EXPECT_EQ("shutdown close getaddrinfo", log.Names()) << "there is no descriptor";
    Registry().ShutDownConnection(pair.number);
}

TEST(StreamSocket, EveryOperationIsOneCallWhateverItMoves) {
    ConnectedPair pair;
    pair.peer.Send("abcdef");
    char buffer[100] = {};
    const Interposed three([](SystemCall& call) -> std::optional<long> {
        call.length = std::min(call.length, 3L);
        return std::nullopt;
    });
    const CallLog log;
    EXPECT_EQ(3, pair.socket->write("0123456", 7));
    EXPECT_EQ(3, pair.socket->read(buffer, 100));
    EXPECT_STREQ("abc", buffer);
    EXPECT_EQ(0, pair.socket->write("", 0));
    EXPECT_EQ(-2, pair.socket->write("", -1) + pair.socket->read(buffer, -1));
    pair.socket->ShutDownOutput();
    pair.socket->ShutDownOutput();
    EXPECT_EQ(-1, pair.socket->write("x", 1));
    EXPECT_TRUE(pair.socket->IsConnected());
    pair.socket->ShutDownInput();
    EXPECT_FALSE(pair.socket->IsConnected());
    EXPECT_EQ("open 0", State(*pair.socket));
    ASSERT_EQ("send recv send shutdown shutdown", log.Names());
    EXPECT_EQ("7 0 100 0 0 0 1 0 ", Arguments(log, pair.number));
}

TEST(Socket, OnlyAConnectionLostErrorEndsIt) {
    const std::set<int> ending = {ENETDOWN,   ENETUNREACH, ENETRESET, ECONNABORTED,
                                  ECONNRESET, ENOTCONN,    ESHUTDOWN};
    for (int error = 1; error <= EHWPOISON; ++error) {
        SCOPED_TRACE(std::strerror(error));
        const bool lost = ending.count(error) == 1;
        ConnectedPair reader, writer, both;
        Listener accepting, closing;
        {
            const FailingCall recv("recv", error), send("send", error), accept("accept", error);
            const CallLog log;
            char byte = 0;
            EXPECT_EQ(-1, reader.socket->read(&byte, 1));
            EXPECT_EQ(-1, writer.socket->write("x", 1));
            EXPECT_EQ(nullptr, accepting.Accept());
            EXPECT_EQ(lost ? "recv shutdown shutdown close send shutdown shutdown close "
                             "accept shutdown close"
                           : "recv send accept",
                      log.Names());
            const std::string state = (lost ? "closed " : "in out open ") + std::to_string(error);
            EXPECT_EQ(state, State(*reader.socket));
            EXPECT_EQ(state, State(*writer.socket));
            EXPECT_EQ(error, accepting.lastError);
        }
        const FailingCall shutdown("shutdown", error);
        both.socket->ShutDownInput();
        EXPECT_EQ(lost ? "out open 0" : "in out open " + std::to_string(error),
                  State(*both.socket));
        both.socket->Shutdown();
        EXPECT_EQ(lost ? "closed 0" : "in out closed " + std::to_string(error),
                  State(*both.socket));
        EXPECT_FALSE(both.socket->IsConnected());
        closing.Shutdown();
        EXPECT_TRUE(closing.closed);
        EXPECT_EQ(lost ? 0 : error, closing.lastError);
        Registry().ShutDownConnection(reader.number);
        Registry().ShutDownConnection(writer.number);
    }
}

TEST(ServerSocket, ServesWithoutFurtherOptions) {
    const int before = OpenDescriptors();
    const CallLog log;
    KLVMsgServerSocket server(Address("", 0), -7);
    EXPECT_EQ("127.0.0.1 none ", Arguments(log, 0));
    EXPECT_EQ(0, server.address.host.Length() + server.lastError);
    PlainPeer peer(server.address.port);
    KLVMsgCommSocket* const accepted = server.Accept();
    EXPECT_EQ("accept", log.Names().substr(log.Names().rfind(' ') + 1));
    EXPECT_EQ("in out open 0", State(*accepted));
    EXPECT_EQ(1, Registry().AddConnection(accepted));
    server.Shutdown();
    ASSERT_EQ("bind setsockopt getsockname listen accept shutdown close",
              log.Names(server.descriptor));
    EXPECT_EQ(Option(SO_REUSEADDR, "1 0") + "-7 2 ", Arguments(log, server.descriptor));
    const int port = Listener().address.port;
    const CallLog given;
    const int left = KLVMsgServerSocket(Address("127.0.0.1", port), 3).descriptor;
    EXPECT_EQ("127.0.0.1 " + std::to_string(port) + " ", Arguments(given, 0));
    EXPECT_EQ("getaddrinfo socket bind freeaddrinfo setsockopt listen", given.Names());
    EXPECT_EQ(before + 3, OpenDescriptors());  // a destructor does not close
    ::close(left);
}

TEST(ServerSocket, ListensEvenWhenTheBindFailed) {
    Listener taken;
    for (const auto& [call, state] : {std::pair("getaddrinfo", "closed 1"),
                                      {"bind", "closed 1"},
                                      {"setsockopt", "open 0"},
                                      {"getsockname", "open 1"}}) {
        const FailingCall fault(call, EPERM);
        KLVMsgCommSocket socket{Address()};
        socket.BindLocalAddress(Address("", -1));
        EXPECT_EQ(state, State(socket)) << call;
        socket.Shutdown();
    }
    const CallLog log;
    Listener second(taken.address);
    EXPECT_EQ("getaddrinfo socket bind freeaddrinfo listen", log.Names());
    EXPECT_TRUE(second.closed);
    EXPECT_EQ(EADDRINUSE, second.lastError);
    second.Shutdown();
    {
        const FailingCall none("socket", EMFILE);
        const CallLog without;
        Listener().Shutdown();
        EXPECT_EQ("getaddrinfo socket bind freeaddrinfo listen close", without.Names());
    }
    const FailingCall listen("listen", EOPNOTSUPP);
    Listener third(taken.address);
    EXPECT_EQ(EOPNOTSUPP, third.lastError);
    third.Shutdown();
}
