#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <stdexcept>

#include "Roles.h"
#include "Session.h"

namespace {

using Clock = std::chrono::steady_clock;

class Hub {
public:
    explicit Hub(const Options& options) : m_expected(options.clients) {
        // Blocked before the message task starts, which inherits it: they interrupt no wait of it.
        sigemptyset(&m_stopSignals);
        sigaddset(&m_stopSignals, SIGINT);
        sigaddset(&m_stopSignals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &m_stopSignals, nullptr);

        const KLVMsgSocketAddress address("127.0.0.1", options.port);
        const KLVMsgChannel entrance(Registry().StartServer(address, 64), "entrance");
        Communicator().AddConnection(entrance, true);
        // A socket whose bind has failed is registered all the same, and keeps the cause.
        if (!KLVMsgChannel(entrance).IsActiveInCurrentThreads()) {
            throw std::runtime_error("cannot listen on port " + std::to_string(options.port) +
                                     ErrorOn(entrance));
        }
        m_session.Start();
        std::printf("listening on port %d\n", entrance.GetSocket()->address.port);
        std::fflush(stdout);
    }

    int Run() {
        while (!m_stopped && m_served + m_lost < m_expected) {
            m_session.DropWritten();
            Welcome();
            Receive();
            FindLost();
            ShowProgress(false);
            const timespec pause = {0, 20000000};
            m_stopped = sigtimedwait(&m_stopSignals, nullptr, &pause) > 0;
        }
        ShowProgress(true);
        SayFarewell();
        return m_served == m_expected ? 0 : 1;
    }

private:
    struct Client {
        KLVMsgChannel channel;
        std::uint64_t filesLeft = 0;
        TextStatistics current;  // of the file that is arriving
    };

    // A connection gets its label when the client has told its name.
    void Welcome() {
        for (auto& [channel, hello] : m_session.Take<Hello>()) {
            if (!hello->complete || hello->name.empty() || m_clients.count(hello->name) != 0) {
                Farewell refusal;
                refusal.reason = "the name is empty or taken";
                Communicator().SendSocketMessage(channel, &refusal);  // waits until it is written
                continue;
            }
            channel.SetLabel(hello->name.c_str());
            m_clients[hello->name] = {channel, hello->files, {}};
            m_files += hello->files;
        }
    }

    void Receive() {
        for (const auto& [channel, chunk] : m_session.Take<Chunk>()) {
            const auto sender = m_clients.find(channel.GetLabel().Text());
            if (chunk->complete && sender != m_clients.end() && sender->second.filesLeft != 0) {
                m_bytes += chunk->data.size();
                sender->second.current.Add(chunk->data);
                Answer(sender->first.c_str(), sender->second, chunk->last != 0);
            }
        }
    }

    void Answer(const char* label, Client& client, bool fileEnds) {
        if (!fileEnds) {
            auto receipt = std::make_unique<Receipt>();
            receipt->bytes = client.current.bytes;
            m_session.Post(label, std::move(receipt));
            return;
        }
        auto report = std::make_unique<Report>();
        report->found = client.current;
        m_session.Post(label, std::move(report));
        client.current = TextStatistics();
        ++m_reported;
        m_served += --client.filesLeft == 0 ? 1 : 0;
    }

    // A client stays until the farewell: one that has gone before, with files to come, is lost. Its
    // connection number may belong to somebody else by now, but then it has another label.
    void FindLost() {
        for (auto& [name, client] : m_clients) {
            const KLVString label(name.c_str());
            const bool here =
                client.channel.IsActiveInCurrentThreads() && client.channel.GetLabel() == label;
            if (client.filesLeft != 0 && !here) {
                std::fprintf(stderr, "exchange hub: lost %s%s\n", name.c_str(),
                             ErrorOn(client.channel).c_str());
                KLVMsgChannelQueryByLabel query(label);
                Communicator().RemoveConnection(&query, false);
                client.filesLeft = 0;
                ++m_lost;
            }
        }
    }

    // The cause, where the registry still knows of the connection.
    static std::string ErrorOn(const KLVMsgChannel& channel) {
        int code = 0;
        KLVString text;
        Communicator().GetErrorsOnChannel(channel, code, text);
        return code == 0 ? "" : std::string(": ") + text.Text();
    }

    // On a terminal one line that is written over, elsewhere a line a second.
    void ShowProgress(bool atEnd) {
        const bool terminal = isatty(STDERR_FILENO) == 1;
        if (atEnd || Clock::now() >= m_nextProgress) {
            m_nextProgress = Clock::now() + std::chrono::milliseconds(terminal ? 100 : 1000);
            std::fprintf(stderr, "%shub: %d of %d files, %.1f MiB%s", terminal ? "\r" : "",
                         m_reported, static_cast<int>(m_files),
                         static_cast<double>(m_bytes) / (1 << 20), terminal && !atEnd ? "" : "\n");
        }
    }

    // One message for all channels. Then the hub waits for the clients to leave: closing first
    // could overtake what they have not read. One that does not leave is cut off after a while.
    void SayFarewell() {
        Farewell farewell;
        farewell.reason = m_stopped ? "the hub was stopped" : "all others have been served";
        KLVMsgChannelQuery* const everybody = nullptr;
        Communicator().SendSocketMessage(everybody, &farewell);
        const Clock::time_point limit = Clock::now() + std::chrono::seconds(5);
        for (auto& [name, client] : m_clients) {
            while (client.channel.IsActiveInCurrentThreads() && Clock::now() < limit) {
                KLVBasUtlsleep(20);
            }
        }
    }

    Session m_session;
    std::map<std::string, Client> m_clients;  // by name, which is the label of the channel
    sigset_t m_stopSignals = {};
    bool m_stopped = false;
    Clock::time_point m_nextProgress = Clock::now() + std::chrono::seconds(1);
    int m_expected;
    int m_served = 0;
    int m_lost = 0;
    int m_reported = 0;
    std::uint64_t m_files = 0;  // announced by the clients so far
    std::uint64_t m_bytes = 0;
};

}  // namespace

int RunHub(const Options& options) { return Hub(options).Run(); }
