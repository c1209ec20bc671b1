#include <unistd.h>

#include <cstring>

#include "Faults.h"
#include "Support.h"

namespace {

using Address = KLVMsgSocketAddress;

// Reads a header: the result, the type name ("-" when it was left alone), and what has become of
// the connection.
std::string Read(int number) {
    KLVString name("-");
    const int result = Registry().RetrieveMessageTypeFromSocket(number, name);
    const bool registered = Registry().GetSocket(number) != nullptr;
    const std::string state = Registry().IsConnectionOpen(number) ? " open" : " closed";
    return std::to_string(result) + " " +
           std::string(name.Text(), static_cast<std::size_t>(name.Length())) +
           (registered ? state : " removed");
}

int LastError(int number) {
    int code = -42;
    Registry().GetLastErrorCode(number, code);
    return code;
}

const std::string header = HeaderBytes("Type");
const int unknown = -5;

}  // namespace

TEST(Header, IsLengthAndNameAndNothingElse) {
    ConnectedPair pair;
    pair.socket->lastError = EIO;
    const std::string bytes = HeaderBytes("") + HeaderBytes(std::string("a\0b", 3));
    struct Derived : KLVMsgCommSocket {
        using KLVMsgCommSocket::KLVMsgCommSocket;
    };
    auto* const derived = new Derived(Address());
    derived->outputOpen = true;
    derived->descriptor = -7;
    Registry().AddConnection(derived);
    derived->descriptor = dup(pair.number);
    const CallLog log;
    EXPECT_EQ(1, Registry().SendMessageHeader(pair.number, KLVString()));
    EXPECT_EQ(1, Registry().SendMessageHeader(-7, KLVString("a\0b", 3)));
    EXPECT_EQ("send send send send", log.Names());
    EXPECT_EQ(0, LastError(pair.number));
    pair.socket->ShutDownOutput();
    EXPECT_EQ(bytes, pair.peer.Receive(100));
    pair.peer.Send(bytes);
    EXPECT_EQ("0 - open", Read(pair.number));
    pair.socket->lastError = EIO;
    EXPECT_EQ("1 a open", Read(pair.number));
    EXPECT_EQ(0, LastError(pair.number));
}

TEST(Header, ShortOrFailedSendIsNotRepeated) {
    for (const int n : {1, 2}) {
        for (const int error : {0, EAGAIN, ECONNRESET}) {
            ConnectedPair pair;
            int sends = 0;
            const Interposed faulty([&](SystemCall& call) -> std::optional<long> {
                const bool now = call.name == "send" && ++sends == n;
                return now ? std::optional<long>(error == 0 ? 3 : -error) : std::nullopt;
            });
            EXPECT_EQ(0, Registry().SendMessageHeader(pair.number, "Type"));
            EXPECT_EQ(n, sends);
            EXPECT_EQ(error, LastError(pair.number));
            EXPECT_EQ(error != ECONNRESET, Registry().IsConnectionOpen(pair.number));
            EXPECT_EQ(pair.socket, Registry().GetSocket(pair.number));
        }
    }
}

TEST(Header, CutAnywhereFailsUntilTheEndIsFound) {
    for (std::size_t cut = 0; cut <= header.size(); ++cut) {
        for (const auto& [reset, release] :
             {std::pair(false, true), {true, true}, {true, false}, {false, false}}) {
            SCOPED_TRACE(testing::Message() << cut << (reset ? " reset" : " closed"));
            ConnectedPair pair;
            pair.peer.Send(header.substr(0, cut));
            reset ? pair.peer.Reset() : pair.peer.Close();
            const std::string end = reset && cut != 4 ? "0 - removed" : "0 - closed";
            const std::string outcome = cut % 4 != 0 ? "0 - open" : cut == 8 ? "1 Type open" : end;
            // A short length and a whole name keep their buffer; a removed socket goes.
            const int kept = !release && (cut == 8 || cut < 4) ? 1 : 0;
            keptOnPurpose += kept + (!release && outcome != end ? 1 : 0);
            Registry().ReleaseHeaderBuffers(release);
            const int before = Blocks();
            EXPECT_EQ(outcome, Read(pair.number));
            EXPECT_EQ(kept - (outcome == "0 - removed" ? 1 : 0), Blocks() - before);
            EXPECT_EQ(end, Read(pair.number));
        }
    }
}

TEST(Header, UnusableLengthEndsItsHeaderAlone) {
    for (const unsigned int length : {0u, 0x7ffffffeu, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        ConnectedPair hostile, good;
        const int before = Blocks();
        std::string bytes = header;
        std::memcpy(bytes.data(), &length, sizeof length);
        hostile.peer.Send(bytes);
        good.peer.Send(header);
        EXPECT_EQ("0 - open", Read(hostile.number));
        EXPECT_EQ(before, Blocks());
        EXPECT_EQ(0, LastError(hostile.number));
        EXPECT_EQ("1 Type open", Read(good.number));
    }
    EXPECT_EQ(0x7fffffffu, RefusedSize()) << "the one that fits was asked for";
}

TEST(Header, RegisteredNamesArriveLikeUnknownOnes) {
    ConnectedPair pair;
    TextMessage first("first"), second("second");
    const KLVString registered[] = {"b", {"a\0b", 3}, "bb", "A", "a"};
    Registry().RegisterMessagePrototype(registered[0], nullptr);  // which holds the name
    for (const KLVString& name : registered) {
        Registry().RegisterMessagePrototype(name, &first);
        Registry().RegisterMessagePrototype(name, &second);
    }
    for (const std::string sent : {"a", "A", "b", "b!", "bb", "c"}) {
        const char* const maker = sent == "a" || sent == "A" || sent == "bb" ? "first" : "";
        KLVString received;
        pair.peer.Send(HeaderBytes(sent));
        EXPECT_EQ(1, Registry().RetrieveMessageTypeFromSocket(pair.number, received));
        EXPECT_EQ(KLVString(sent.c_str()), received);
        for (const KLVString& name : registered) {  // such a name is not copied
            EXPECT_EQ(name == received, name.Text() == received.Text());
        }
        const std::unique_ptr<KLVMsgSocketMessage> made(Registry().GetMsgInstance(received));
        EXPECT_EQ(KLVString(maker), made ? made->GetMessageType() : KLVString());
    }
}

TEST(Registry, WithoutAFittingSocketNothingIsTouched) {
    ConnectedPair ended;
    KLVMsgServerSocket* const server = StartLoopbackServer();
    ended.socket->ShutDownInput();
    ended.socket->ShutDownOutput();
    ended.socket->lastError = server->lastError = EIO;
    const CallLog log;
    for (const int number : {ended.number, server->descriptor, unknown}) {
        EXPECT_EQ(0, Registry().SendMessageHeader(number, "Type"));
        EXPECT_EQ(number == unknown ? "0 - removed" : "0 - open", Read(number));
        EXPECT_EQ(number == unknown ? -42 : EIO, LastError(number));
        EXPECT_EQ(number != unknown, Registry().HasError(number));
        Registry().ClearError(number);
        EXPECT_FALSE(Registry().HasError(number));
    }
    Registry().ShutDownConnection(unknown);
    EXPECT_EQ("", log.Names());
}

TEST(Registry, FailedStartIsReportedUnlessThereIsNoSocketAtAll) {
    Listener taken;
    KLVMsgServerSocket* const server = Registry().StartServer(Address("", taken.address.port), 1);
    EXPECT_EQ(server, Registry().GetSocket(server->descriptor));
    EXPECT_EQ(EADDRINUSE, LastError(server->descriptor));
    for (const char* call : {"socket", "connect", "setsockopt"}) {
        const FailingCall fault(call, EMFILE), tidying("close", EIO);
        EXPECT_EQ(nullptr, Registry().ConnectToServer(Address(), Address("", taken.address.port)));
        EXPECT_EQ(call == std::string("socket") ? EBADF : EMFILE, errno);
    }
    const FailingCall fault("socket", EMFILE);
    const CallLog log;
    EXPECT_EQ(nullptr, Registry().StartServer(Address("", 0), 1));
    EXPECT_EQ("getaddrinfo socket bind freeaddrinfo listen", log.Names());
}

TEST(Registry, NumberGivenAgainReplacesTheSocketAlone) {
    ConnectedPair left;
    const int number = StartLoopbackServer()->descriptor;
    Registry().SetName(number, "first");
    Registry().SetName(number, "name");
    for (const bool connect : {true, false}) {
        ::close(number);  // behind the registry's back
        const int before = Blocks();
        const CallLog log;
        KLVMsgSocket* const next =
            connect ? Registry().ConnectToServer(Address(), left.listener->address)
                    : static_cast<KLVMsgSocket*>(StartLoopbackServer());
        EXPECT_EQ(next, Registry().GetSocket(number));
        EXPECT_EQ(std::string::npos, log.Names().find("close"));
        EXPECT_EQ(connect ? -1 : 1, Blocks() - before);  // the text of the server's host
    }
    const CallLog log;
    Registry().ShutDownConnection(number);
    EXPECT_EQ("shutdown close", log.Names());
    EXPECT_EQ(nullptr, Registry().GetSocket(number));
    KLVString name("-");
    Registry().GetName(unknown, name);
    EXPECT_EQ(KLVString("-"), name);
    Registry().GetName(number, name);
    EXPECT_EQ(KLVString("name"), name);
    KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
    EXPECT_EQ(1, Registry().AddConnection(left.socket));
    EXPECT_EQ(0, Registry().AddConnection(left.socket));
    EXPECT_EQ(1, left.socket->write("x", 1));
}
