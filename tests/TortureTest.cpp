// One scenario through the whole public interface, again and again: with each allocation failing in
// turn, those of a message's own code among them, and with each system call failing in every way
// that it can. It also sees how often each operation takes which lock.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <optional>

#include "Faults.h"
#include "Support.h"

// What another thread does while an operation sleeps; no fault comes there.
static std::function<void()> meanwhile;

static unsigned sleeps = 0, slept = 0;  // how often, and how long the last time

// In place of the base library's.
void KLVBasUtlsleep(unsigned milliseconds) {
    const Exempt exempt;
    ++sleeps;
    slept = milliseconds;
    meanwhile();
}

namespace {

using Address = KLVMsgSocketAddress;

// The one failure of a run: the n-th allocation or, with a name, the n-th such call with an errno.
struct Fault {
    int n = 0;
    std::string call;
    int error = 0;
};

// The lock that an operation takes once and holds across its system calls: the communicator's, and
// perhaps the registry's meanwhile; the registry's and no other one; none; as it comes.
enum Lock { communicators, registrys, none, some };

class Scenario {
public:
    explicit Scenario(const Fault& fault) : m_fault(fault), m_left(fault.n) {}

    // False when the fault was not reached: there are not so many of its kind.
    bool Run() {
        int modules = 0;
        KLVMsgCommModules_initialize(modules);
        TextMessage::hook = [] { mem_Free(mem_OperatorNewThrow(1)); };
        Do(some, [] { Registry(), Communicator(); });
        m_locks = {&LockOf<KLVMsgSocketCommunicator>(), &LockOf<KLVMsgConnectionServicesUtils>()};
        Do(registrys, [] { Registry().ReleaseHeaderBuffers(true); });
        SetUp();
        SendAndReceive();
        Ask();
        WaitForOthers();
        LosePeers();
        Do(communicators, [] { Communicator().RemoveConnection(nullptr, true); });
        m_locks.clear();
        KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
        KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
        KLVMsgCommModules_finalize(modules);
        EXPECT_EQ(0, modules);
        return m_left <= 0;
    }

private:
    using Operation = std::function<void()>;

    // An operation, in which the fault may come. When memory is short everything is as before, and
    // it can be done again.
    void Do(Lock lock, const Operation& operation, int line = __builtin_LINE()) {
        const std::string before = m_left > 0 && Intact() ? State() : "";
        if (!Attempt(lock, operation, line)) {
            EXPECT_EQ(before, State()) << line;
            Attempt(lock, operation, line);
        }
    }

    // One that moves bytes. With the fault in it a connection may be out of step.
    void Move(Lock lock, const Operation& operation, int line = __builtin_LINE()) {
        const bool before = m_left > 0;
        if (!Attempt(lock, operation, line)) {
            Attempt(lock, operation, line);
        }
        m_outOfStep |= before && m_left <= 0;
    }

    // False when memory was short. However it ends, no lock is taken.
    bool Attempt(Lock lock, const Operation& operation, int line) {
        SCOPED_TRACE(line);
        const bool memory = m_fault.call.empty();
        const auto before = Taken();
        const Interposed inside([&](SystemCall& call) -> std::optional<long> {
            EXPECT_TRUE(lock >= none || m_locks[lock]->held || Exempt::depth != 0) << call.name;
            return std::nullopt;
        });
        const FailingCall call(m_fault.call, m_fault.error, m_left > 0 ? m_left : -1);
        const FailingAllocation allocation(memory ? m_left : 0);
        bool done = true;
        try {
            operation();
        } catch (const std::bad_alloc&) {
            done = false;
        }
        const Exempt exempt;
        m_left -= memory ? allocation.Count() : call.Count();
        for (std::size_t each = 0; each < 2 && each <= lock && lock != some; ++each) {
            const int times = Taken()[each] - before[each], own = each == lock ? 1 : 0;
            EXPECT_TRUE(times == own || (times < own && !done)) << times;
        }
        EXPECT_FALSE(!m_locks.empty() && (m_locks[0]->held || m_locks[1]->held));
        return done;
    }

    std::array<int, 2> Taken() const {
        return m_locks.empty() ? std::array{0, 0}
                               : std::array{+m_locks[0]->taken, +m_locks[1]->taken};
    }

    // Everything that was sent arrives.
    bool Intact() const { return m_fault.call.empty() && !m_outOfStep; }

    void Expect(bool holds, const char* what) const { EXPECT_TRUE(holds || !Intact()) << what; }

    // All that can be seen of the library, and what it has handed out.
    std::string State() const {
        std::string state;
        const auto show = [&](auto&&... values) { ((state += std::to_string(values) + " "), ...); };
        show(OpenDescriptors(), TextMessage::alive, m_text.Length());
        show(m_messages.Size(), m_records.Size(), m_ids.Size(), m_pending.Size(),
             m_channels.Size());
        if (m_locks.empty()) {
            return state;
        }
        for (int number = -9; number < 30; ++number) {
            KLVString name;
            Registry().GetName(number, name);
            const auto* const socket = Registry().GetSocket(number);
            const auto* const stream = dynamic_cast<const KLVMsgCommSocket*>(socket);
            state += name.Text();
            socket != nullptr ? show(socket->closed, socket->lastError) : void();
            stream != nullptr ? show(stream->inputOpen, stream->outputOpen) : void();
        }
        for (const KLVMsgChannel& channel : ::Known()) {
            show(channel.connection);
        }
        for (unsigned int id = m_id; id < m_id + 20; ++id) {
            show(Communicator().QueryPendingStatus(id));
        }
        return state;
    }

    void SetUp() {
        Do(communicators, [&] { Communicator().SetDefaultInputStream(&m_input); });
        Do(communicators, [&] { Communicator().SetDefaultOutputStream(nullptr); });
        Do(none, [&] { Communicator().TransmitPendingMessage(); });
        Do(communicators, [&] { Communicator().SetDefaultOutputStream(&m_output); });
        Do(registrys, [&] { Communicator().RegisterMessagePrototype("Text", &m_prototype); });
        Do(registrys, [&] { Communicator().RegisterMessagePrototype(nullptr, &m_prototype); });
        KLVMsgServerSocket* server = nullptr;
        while (server == nullptr) {
            Do(registrys, [&] { server = Registry().StartServer(Address(), 16); });
        }
        m_address = server->address;
        m_server = Know(server, "server");
        Connect();
    }

    // Makes a connection known. Nothing waits long on it, nor on those accepted there: a peer that
    // stops in the middle does not hold up the run.
    KLVMsgChannel Know(KLVMsgSocket* socket, const char* label) {
        KLVMsgChannel channel;
        if (socket != nullptr) {
            const timeval limit = {0, 150000};
            const int on = 1;
            setsockopt(socket->descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            setsockopt(socket->descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            Do(registrys, [&] { channel = KLVMsgChannel(socket, label); });
            Do(communicators, [&] { Communicator().AddConnection(channel, true); });
        }
        return channel;
    }

    void Connect() {
        KLVMsgCommSocket* client = nullptr;
        for (int i = 0; client == nullptr && i < 2; ++i) {
            Do(registrys, [&] { client = Registry().ConnectToServer(Address(), m_address); });
        }
        m_client = Know(client, "client");
        Accept();
    }

    // Accepts what waits: a connection that was given up in between among it.
    void Accept() {
        const std::size_t before = Known().size();
        Cycle();
        const std::vector<KLVMsgChannel> known = Known();
        for (std::size_t i = before; m_fault.call.empty() && i < known.size(); ++i) {
            EXPECT_NE(nullptr, known[i].GetSocket()) << "a channel of nothing";
        }
        Cycle(nullptr, 0);
        Cycle(nullptr, 0);
        const std::vector<KLVMsgChannel> now = Known();
        m_accepted = now.empty() ? KLVMsgChannel() : now.back();
        Do(registrys, [&] { m_accepted.SetLabel("accepted"); });
    }

    std::vector<KLVMsgChannel> Known() {
        m_channels.Clear();
        Do(communicators, [&] { Communicator().RetrieveConnections(nullptr, m_channels); });
        return VectorOf(m_channels);
    }

    void Cycle(KLVMsgChannelWaitable* waitable = nullptr, int patience = -1) {
        const int limit = patience != -1 ? patience : Intact() ? 1000 : 5;
        Move(communicators, [=] { Communicator().WaitConnectionsAndMessages(waitable, limit); });
    }

    void SendAndReceive() {
        KLVMsgMessageQueryByType texts("Text");
        unsigned int id = 0;
        Do(communicators, [&] { Communicator().ISendSocketMessage(m_client, &m_message, m_id); });
        Do(communicators, [&] { Communicator().ISendSocketMessage(nullptr, &m_message, m_ids); });
        Do(communicators, [&] { Communicator().ISendSocketMessage(m_client, &m_message, id); });
        Do(communicators, [&] { EXPECT_TRUE(Communicator().QueryPendingStatus(id)); });
        Do(communicators, [&] { Communicator().ISendSocketMessage("accepted", &m_message, id); });
        Do(communicators, [&] { Communicator().ISendSocketMessage(nullptr, &m_message, m_ids); });
        Do(communicators, [&] { Communicator().QueryPendingStatus(m_ids, m_pending); });
        Expect(VectorOf(m_ids) == VectorOf(m_pending), "pending");
        Move(communicators, [] { Communicator().TransmitPendingMessage(); });
        EXPECT_FALSE(Communicator().QueryPendingStatus(m_id)) << "also when it was cut short";
        Cycle();
        Cycle();
        Cycle();
        std::optional<KLVMsgChannelWaitable> own;
        Do(none, [&] { own.emplace(m_channels); });
        Cycle(&*own);
        auto* const added = new TextMessage("Text", "added");
        Do(communicators, [&] { Communicator().AddMessage({m_client, added, 0}); });
        Do(communicators, [&] { Communicator().IRetrieveMessagesWithChannel(&texts, m_records); });
        Expect(m_records.Size() == 8, "received");
        for (const KLVMsgChannelMsgStruct& record : VectorOf(m_records)) {
            Expect(TextOf(record.message) == (record.message == added ? "added" : "text"), "text");
            delete record.message;
        }
        m_records.Clear();
    }

    // What is asked of the registry alone.
    void Ask() {
        const int number = m_client.connection, other = m_accepted.connection;
        const KLVString type("Nothing");
        KLVString name;
        int code = 0;
        KLVMsgSocketMessage* made = nullptr;
        for (const KLVString& passedOver : {KLVString("", 1), type}) {
            Move(registrys, [&] { Registry().SendMessageHeader(number, passedOver); });
            Cycle();
        }
        Move(registrys, [&] { Registry().SendMessageHeader(number, type); });
        Move(registrys, [&] { Registry().RetrieveMessageTypeFromSocket(other, name); });
        Expect(name == type, "type");
        Do(registrys, [&] { made = Registry().GetMsgInstance("Text"); });
        delete made;
        for (const Operation& ask : std::vector<Operation>{
                 [&] { Registry().SetName(-1, name); }, [&] { Registry().GetName(-1, name); },
                 [&] { Registry().GetSocket(number); }, [&] { Registry().HasError(number); },
                 [&] { Registry().ClearError(number); },
                 [&] { Registry().GetLastErrorCode(number, code); },
                 [&] { Registry().IsConnectionOpen(number); }}) {
            Do(registrys, ask);
        }
        if (KLVMsgSocket* const socket = m_client.GetSocket()) {
            socket->lastError = EIO;
        }
        Do(communicators, [&] { Communicator().GetErrorsOnChannel(m_client, code, m_text); });
        Expect(code == EIO && m_text == std::strerror(EIO), "error");
        Expect(Registry().HasError(number), "an error stays");
    }

    // The operations that sleep, and what others do for them.
    void WaitForOthers() {
        KLVMsgChannelQueryByLabel label("client");
        KLVMsgMessageQueryByType texts("Text");
        meanwhile = [] { sleeps >= 2 ? Communicator().TransmitPendingMessage() : void(); };
        for (const Operation& send : std::vector<Operation>{
                 [&] { Communicator().SendSocketMessage(m_client, &m_message); },
                 [&] { Communicator().SendSocketMessage(&label, &m_message); },
                 [&] { Communicator().SendSocketMessage("client", &m_message); }}) {
            sleeps = 0;
            Move(some, send);
            Expect(sleeps == 2, "a blocking send ends with the transmission");
            Communicator().TransmitPendingMessage();
        }
        sleeps = 0;
        meanwhile = [] {
            sleeps == 2 ? Communicator().AddMessage({{}, new TextMessage("Text"), 0}) : void();
        };
        Move(some, [&] { Communicator().RetrieveMessages(&texts, m_messages); });
        EXPECT_EQ(1, KLVMsgMessageTask().Run(0)) << "at once: nobody has prepared it";
        Do(none, [] { Communicator().PrepareStartupMessageTask(); });
        Do(communicators, [&] { Communicator().ISendSocketMessage(m_client, &m_message, m_id); });
        meanwhile = [] { Communicator().ShutdownMessageTask(); };
        {
            const CallLog log;
            Move(some, [] { EXPECT_EQ(1, KLVMsgMessageTask().Run(0)); });
            Expect(log.Names().find(theWait + " recv recv recv recv send send send") == 0,
                   "in order");
            Expect(!Intact() || log.Calls()[0].rest == "0 20000 ", "of 20 milliseconds");
        }
        EXPECT_EQ(100u, slept);
        Expect(Known().empty(), "nothing is known then");
        Move(communicators, [] { Communicator().ShutdownMessageTask(); });
        Do(communicators, [&] { Communicator().IRetrieveMessages(&texts, m_messages); });
        Expect(m_messages.Size() == 2, "received");
        for (const KLVMsgSocketMessage* message : VectorOf(m_messages)) {
            delete message;
        }
    }

    // Peers that go in either way, a client that comes back under its number, and a socket of the
    // application's own.
    void LosePeers() {
        SetUp();
        for (const bool resets : {true, false}) {
            if (Registry().IsConnectionOpen(m_server.connection) &&
                !Registry().HasError(m_server.connection)) {
                PlainPeer peer(m_address.port);
                Accept();
                resets ? peer.Reset() : peer.Close();
            }
            Cycle();
            Expect(resets == (m_accepted.GetSocket() == nullptr), "lost");
            Expect(!m_accepted.IsActiveInCurrentThreads(), "closed");
            KLVMsgChannelQueryByLabel label("accepted");
            Do(communicators, [&] { Communicator().RemoveConnection(&label, true); });
        }
        Do(registrys, [&] { Registry().ShutDownConnection(m_client.connection); });
        Connect();
        auto* const own = new KLVMsgCommSocket(Address());
        own->descriptor = -7;
        int added = 0;
        Do(registrys, [&] { added = Registry().AddConnection(own); });
        EXPECT_EQ(1, added);
        Do(none, [] { Registry().RemoveConnection(-7); });
    }

    const Fault m_fault;
    int m_left;  // how many of its kind until the fault comes
    bool m_outOfStep = false;
    std::vector<const WatchedMutex*> m_locks;

    TextMessage m_prototype{"Text"}, m_message{"Text", "text"};
    KLVMsgSimpleInputStream m_input;
    KLVMsgBufferedOutputStream m_output{4};
    Address m_address;
    KLVMsgChannel m_server, m_client, m_accepted;
    KLVBasVector<KLVMsgChannel> m_channels;
    KLVBasVector<KLVMsgSocketMessage*> m_messages;
    KLVBasVector<KLVMsgChannelMsgStruct> m_records;
    KLVBasVector<unsigned int> m_ids, m_pending;
    unsigned int m_id = 0;
    KLVString m_text;
};

// Runs the scenario with the fault and once more without one; nothing is left of either.
bool Survives(const Fault& fault) {
    SCOPED_TRACE(fault.call + " " + std::to_string(fault.n) + " errno " +
                 std::to_string(fault.error));
    const std::array<int, 3> before = Held();
    const bool reached = Scenario(fault).Run();
    EXPECT_EQ(before, Held());
    Scenario(Fault()).Run();
    EXPECT_EQ(before, Held()) << "after the run that follows";
    return reached;
}

}  // namespace

TEST(Torture, AnyAllocationMayFail) {
    int n = 1;
    while (Survives({n, "", 0})) {
        ++n;
    }
    EXPECT_LT(100, n);
}

// A call, and the errors with which it fails.
using Failures = std::pair<std::string, std::vector<int>>;
struct TortureCall : testing::TestWithParam<Failures> {};

TEST_P(TortureCall, MayFail) {
    std::signal(SIGPIPE, SIG_IGN);
    const auto& [call, errors] = GetParam();
    testing::internal::CaptureStderr();
    for (const int error : errors) {
        int n = 1;
        while (Survives({n, call, error})) {
            ++n;
        }
        EXPECT_LT(1, n) << call << " is never made";
    }
    testing::internal::GetCapturedStderr();
}

INSTANTIATE_TEST_SUITE_P(
    Any, TortureCall,
    testing::Values(
        Failures("getaddrinfo", {ENOENT, ENOMEM}), Failures("socket", {EMFILE, ENOBUFS}),
        Failures("bind", {EADDRINUSE, EACCES}), Failures("listen", {EADDRINUSE}),
        Failures("accept", {EAGAIN, ECONNABORTED, EINTR, EMFILE, ENOBUFS, EPERM, EPROTO, ENETDOWN}),
        Failures("connect", {ECONNREFUSED, ETIMEDOUT, EINTR, ENETUNREACH, EADDRNOTAVAIL, EAGAIN}),
        Failures("getsockname", {ENOBUFS}), Failures("setsockopt", {ENOPROTOOPT, ENOMEM}),
        Failures("send", {EAGAIN, EINTR}), Failures("send", {ECONNRESET, ENOBUFS, ENOTCONN}),
        Failures("send", {EPIPE, ETIMEDOUT, ENETDOWN}), Failures("recv", {EAGAIN, EINTR, ENOMEM}),
        Failures("recv", {ECONNRESET, ENOTCONN, ETIMEDOUT, ENETRESET}),
        Failures("shutdown", {ENOTCONN, EINVAL, ENOBUFS}), Failures("close", {EINTR, EIO}),
        Failures(theWait, {EINTR, ENOMEM, EBADF})),
    [](const auto& call) { return call.param.first + std::to_string(call.index); });
