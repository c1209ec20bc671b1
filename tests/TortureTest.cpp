// One scenario through the whole public interface, again and again: with each allocation failing in
// turn, and with each system call failing in every way that it can.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>

#include "Faults.h"
#include "Support.h"
#include "SystemCalls.h"

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
    std::string call = "";
    int error = 0;
};

// Shows the inbox and takes nothing.
struct Look : KLVMsgMessageQuery {
    void Search(const KLVBasVector<KLVMsgSocketMessage*>& messages,
                KLVBasVector<int>&) const override {
        for (const KLVMsgSocketMessage* message : VectorOf(messages)) {
            texts += TextOf(message) + ",";
        }
    }
    mutable std::string texts;
};

class Scenario {
public:
    explicit Scenario(const Fault& fault) : m_fault(fault), m_left(fault.n) {}

    // False when the fault was not reached: there are not so many of its kind.
    bool Run() {
        int modules = 0;
        KLVMsgCommModules_initialize(modules);
        Do("Instance", [] { Registry(), Communicator(); });
        m_locks = {&LockOf<KLVMsgSocketCommunicator>(), &LockOf<KLVMsgConnectionServicesUtils>()};
        SetUp();
        SendAndReceive();
        WaitForOthers();
        LosePeers();
        Do("Remove", [] { Communicator().RemoveConnection(nullptr, true); });
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
    void Do(const char* name, const Operation& operation) {
        const std::string before = m_left > 0 && Intact() ? State() : "";
        if (!Attempt(name, operation)) {
            EXPECT_EQ(before, State()) << name;
            Attempt(name, operation);
        }
    }

    // One that moves bytes. With the fault in it a connection may be out of step: the run has to come
    // to its end, whatever still arrives.
    void Move(const char* name, const Operation& operation) {
        const bool before = m_left > 0;
        const bool done = Attempt(name, operation);
        m_outOfStep |= before && m_left <= 0;
        if (!done) {
            Attempt(name, operation);
        }
    }

    // False when memory was short. However it ends, no lock is taken.
    bool Attempt(const char* name, const Operation& operation) {
        const bool memory = m_fault.call.empty();
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
        for (const WatchedMutex* lock : m_locks) {
            EXPECT_FALSE(lock->held) << name;
        }
        return done;
    }

    // Everything that was sent arrives.
    bool Intact() const { return m_fault.call.empty() && !m_outOfStep; }

    void Expect(bool holds, const char* what) const { EXPECT_TRUE(holds || !Intact()) << what; }

    // All that can be seen of the library, and what it has handed out.
    std::string State() const {
        const Exempt exempt;
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
        KLVBasVector<KLVMsgSocketMessage*> none;
        Look look;
        Communicator().IRetrieveMessages(&look, none);
        for (unsigned int id = m_id; id < m_id + 20; ++id) {
            show(Communicator().QueryPendingStatus(id));
        }
        return state + look.texts;
    }

    void SetUp() {
        Communicator().SetDefaultInputStream(&m_input);
        Communicator().SetDefaultOutputStream(&m_output);
        Do("Register", [&] { Communicator().RegisterMessagePrototype("Text", &m_prototype); });
        KLVMsgServerSocket* server = nullptr;
        while (server == nullptr) {
            Do("StartServer", [&] { server = Registry().StartServer(Address(), 16); });
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
            {
                const Exempt exempt;
                const timeval limit = {0, 150000};
                const int on = 1;
                setsockopt(socket->descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
                setsockopt(socket->descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            }
            Do("Channel", [&] { channel = KLVMsgChannel(socket, label); });
            Do("AddConnection", [&] { Communicator().AddConnection(channel, true); });
        }
        return channel;
    }

    void Connect() {
        KLVMsgCommSocket* client = nullptr;
        for (int i = 0; client == nullptr && i < 2; ++i) {
            Do("Connect", [&] { client = Registry().ConnectToServer(Address(), m_address); });
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
        Do("SetLabel", [&] { m_accepted.SetLabel("accepted"); });
    }

    std::vector<KLVMsgChannel> Known() {
        m_channels.Clear();
        Do("Known", [&] { Communicator().RetrieveConnections(nullptr, m_channels); });
        return VectorOf(m_channels);
    }

    void Cycle(KLVMsgChannelWaitable* waitable = nullptr, int patience = -1) {
        const int limit = patience != -1 ? patience : Intact() ? 1000 : 5;
        Move("Wait", [=] { Communicator().WaitConnectionsAndMessages(waitable, limit); });
    }

    void SendAndReceive() {
        KLVMsgMessageQueryByType texts("Text");
        unsigned int id = 0;
        Do("Send", [&] { Communicator().ISendSocketMessage(m_client, &m_message, m_id); });
        Do("Send", [&] { Communicator().ISendSocketMessage(nullptr, &m_message, m_ids); });
        Do("Send", [&] { Communicator().ISendSocketMessage(m_client, &m_message, id); });
        EXPECT_TRUE(Communicator().QueryPendingStatus(id));
        Do("Send", [&] { Communicator().ISendSocketMessage("accepted", &m_message, id); });
        Do("Send", [&] { Communicator().ISendSocketMessage(nullptr, &m_message, m_ids); });
        Do("Pending", [&] { Communicator().QueryPendingStatus(m_ids, m_pending); });
        Expect(VectorOf(m_ids) == VectorOf(m_pending), "pending");
        Move("Transmit", [] { Communicator().TransmitPendingMessage(); });
        EXPECT_FALSE(Communicator().QueryPendingStatus(m_id)) << "also when it was cut short";
        Cycle();
        Cycle();
        Cycle();
        std::optional<KLVMsgChannelWaitable> own;
        Do("Waitable", [&] { own.emplace(m_channels); });
        Cycle(&*own);
        auto* const added = new TextMessage("Text", "added");
        Do("AddMessage", [&] { Communicator().AddMessage({m_client, added, 0}); });
        Do("Retrieve", [&] { Communicator().IRetrieveMessagesWithChannel(&texts, m_records); });
        Expect(m_records.Size() == 8, "received");
        for (const KLVMsgChannelMsgStruct& record : VectorOf(m_records)) {
            Expect(TextOf(record.message) == (record.message == added ? "added" : "text"), "text");
            delete record.message;
        }
        m_records.Clear();
        Move("Header", [&] { Registry().SendMessageHeader(m_client.connection, "Nothing"); });
        Cycle();
        if (KLVMsgSocket* const socket = m_client.GetSocket()) {
            socket->lastError = EIO;
        }
        int code = 0;
        Do("Errors", [&] { Communicator().GetErrorsOnChannel(m_client, code, m_text); });
        Expect(code == EIO, "error");
    }

    // The operations that sleep, and what others do for them.
    void WaitForOthers() {
        KLVMsgChannelQueryByLabel label("client");
        KLVMsgMessageQueryByType texts("Text");
        meanwhile = [] { sleeps >= 2 ? Communicator().TransmitPendingMessage() : void(); };
        const std::pair<const char*, Operation> sends[] = {
            {"a channel", [&] { Communicator().SendSocketMessage(m_client, &m_message); }},
            {"a query", [&] { Communicator().SendSocketMessage(&label, &m_message); }},
            {"a label", [&] { Communicator().SendSocketMessage("client", &m_message); }}};
        for (const auto& [name, send] : sends) {
            sleeps = 0;
            Move(name, send);
            Expect(sleeps == 2, "a blocking send ends with the transmission");
            Communicator().TransmitPendingMessage();
        }
        Communicator().AddMessage({m_client, new TextMessage("Text"), 0});
        meanwhile = [] {};
        Do("Retrieve", [&] { Communicator().RetrieveMessages(&texts, m_messages); });
        Communicator().PrepareStartupMessageTask();
        meanwhile = [] { Communicator().ShutdownMessageTask(); };
        Move("Run", [] { KLVMsgMessageTask().Run(0); });
        EXPECT_EQ(100u, slept);
        Move("Stop", [] { Communicator().ShutdownMessageTask(); });
        Do("Retrieve", [&] { Communicator().IRetrieveMessages(&texts, m_messages); });
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
                std::optional<Exempt> exempt(std::in_place);
                PlainPeer peer(m_address.port);
                exempt.reset();
                Accept();
                exempt.emplace();
                resets ? peer.Reset() : peer.Close();
            }
            Cycle();
            Expect(resets == (m_accepted.GetSocket() == nullptr), "lost");
            Expect(!m_accepted.IsActiveInCurrentThreads(), "closed");
            KLVMsgChannelQueryByLabel label("accepted");
            Do("Remove", [&] { Communicator().RemoveConnection(&label, true); });
        }
        Do("ShutDown", [&] { Registry().ShutDownConnection(m_client.connection); });
        Connect();
        auto* const own = new KLVMsgCommSocket(Address());
        own->descriptor = -7;
        int added = 0;
        Do("Add", [&] { added = Registry().AddConnection(own); });
        EXPECT_EQ(1, added);
        Registry().RemoveConnection(-7);
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
    while (Survives({n})) {
        ++n;
    }
    EXPECT_LT(100, n);
}

TEST(Torture, AnySystemCallMayFail) {
    std::signal(SIGPIPE, SIG_IGN);
    const std::pair<std::string, std::vector<int>> calls[] = {
        {"getaddrinfo", {ENOENT, ENOMEM}},
        {"socket", {EMFILE, ENOBUFS}},
        {"bind", {EADDRINUSE, EACCES}},
        {"listen", {EADDRINUSE}},
        {"getsockname", {ENOBUFS}},
        {"accept", {EAGAIN, ECONNABORTED, EINTR, EMFILE, ENOBUFS, EPERM, EPROTO, ENETDOWN}},
        {"connect", {ECONNREFUSED, ETIMEDOUT, EINTR, ENETUNREACH, EADDRNOTAVAIL, EAGAIN}},
        {"setsockopt", {ENOPROTOOPT, ENOMEM}},
        {"send", {EAGAIN, EINTR, ECONNRESET, EPIPE, ENOBUFS, ENOTCONN, ETIMEDOUT, ENETDOWN}},
        {"recv", {EAGAIN, EINTR, ECONNRESET, ENOTCONN, ETIMEDOUT, ENOMEM, ENETRESET}},
        {"shutdown", {ENOTCONN, EINVAL, ENOBUFS}},
        {"close", {EINTR, EIO}},
        {theWait, {EINTR, ENOMEM, EBADF}},
    };
    testing::internal::CaptureStderr();
    for (const auto& [call, errors] : calls) {
        for (const int error : errors) {
            int n = 1;
            while (Survives({n, call, error})) {
                ++n;
            }
            EXPECT_LT(1, n) << call << " is never made";
        }
    }
    testing::internal::GetCapturedStderr();
}
