#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <tuple>

#include "Program.h"
#include "Roles.h"
#include "Session.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* const entranceLabel = "entrance";
const char* const clearLine = "\r\x1b[K";

class Hub {
public:
    explicit Hub(const Options& options)
        : m_expected(options.clients), m_totalBytes(options.totalBytes) {
        // Blocked before the message task starts, which inherits it: they interrupt no wait of it.
        sigemptyset(&m_stopSignals);
        sigaddset(&m_stopSignals, SIGINT);
        sigaddset(&m_stopSignals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &m_stopSignals, nullptr);

        const KLVMsgSocketAddress address(options.host.c_str(), options.port);
        const KLVMsgChannel entrance = Serve(address, 64, entranceLabel);
        const int port = entrance.GetSocket()->address.port;
        m_session.Start();
        std::printf("listening on %s, port %d\n", Printable(options.host).c_str(), port);
        std::fflush(stdout);
    }

    int Run() {
        while (!m_stopped && m_served + m_lost < m_expected) {
            // Who stops in the middle of a message holds the library's locks, and so this loop.
            TimeLimit::Restart("exchange hub: gave up: a client has stopped amid a message\n");
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
            if (!hello->complete || hello->files == 0 || !IsFree(hello->name)) {
                Farewell refusal;
                refusal.reason = "the name is taken or none, or there are no files";
                Communicator().SendSocketMessage(channel, &refusal);  // waits until it is written
                continue;
            }
            channel.SetLabel(hello->name.c_str());
            m_clients[hello->name] = {channel, hello->files, {}};
            m_files += hello->files;
            if (m_start == Clock::time_point()) {
                m_start = Clock::now();
            }
        }
    }

    // A name becomes a label, which is all up to a zero byte, and must be nobody else's.
    bool IsFree(const std::string& name) const {
        return !name.empty() && name.size() <= maximalNameBytes &&
               name.find('\0') == std::string::npos && name != entranceLabel &&
               m_clients.count(name) == 0;
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
                std::fprintf(stderr, "%sexchange hub: lost %s%s\n", m_terminal ? clearLine : "",
                             Printable(name).c_str(), ErrorOn(client.channel).c_str());
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

    // On a terminal one line that is written over; elsewhere a line a second, when there is news.
    void ShowProgress(bool atEnd) {
        const Clock::time_point now = Clock::now();
        const auto state = std::make_tuple(m_bytes, m_reported, m_files);
        if ((!atEnd && now < m_nextProgress) || (!m_terminal && state == m_shown)) {
            return;
        }
        m_nextProgress = now + std::chrono::milliseconds(m_terminal ? 100 : 1000);
        m_shown = state;
        std::string line = Progress(now);
        if (!m_terminal && line == m_line) {
            return;
        }
        m_line = line;
        winsize size = {};
        if (m_terminal && ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1) {
            line = line.substr(0, size.ws_col - 1U);  // a line that wraps could not be written over
        }
        std::fprintf(stderr, "%s%s%s", m_terminal ? clearLine : "", line.c_str(),
                     m_terminal && !atEnd ? "" : "\n");
    }

    // The share is one of the bytes where their total is known, and of the files otherwise.
    std::string Progress(Clock::time_point now) const {
        const std::chrono::duration<double> seconds = now - m_start;
        const auto share = [](std::uint64_t part, std::uint64_t whole) {
            const double ratio = static_cast<double>(part) / static_cast<double>(whole);
            return " (" + std::to_string(static_cast<int>(100 * std::min(1.0, ratio))) + " %)";
        };
        std::string line = "hub: " + Mebibytes(static_cast<double>(m_bytes));
        if (m_totalBytes != 0) {
            line += " of " + Mebibytes(static_cast<double>(m_totalBytes)) + " MiB" +
                    share(m_bytes, m_totalBytes);
        } else {
            line += " MiB";
        }
        line += ", " + Mebibytes(static_cast<double>(m_bytes) / std::max(seconds.count(), 0.001)) +
                " MiB/s, " + std::to_string(m_reported) + " of " + std::to_string(m_files) +
                " files";
        return line + (m_totalBytes == 0 && m_files != 0 ? share(m_reported, m_files) : "");
    }

    static std::string Mebibytes(double bytes) {
        char text[32];
        std::snprintf(text, sizeof text, "%.1f", bytes / (1 << 20));
        return text;
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
    int m_expected;
    int m_served = 0;
    int m_lost = 0;
    std::uint64_t m_totalBytes;  // 0: not known
    std::uint64_t m_bytes = 0;
    std::uint64_t m_reported = 0;  // files
    std::uint64_t m_files = 0;     // announced by the clients so far

    const bool m_terminal = isatty(STDERR_FILENO) == 1;
    Clock::time_point m_start;  // when the first client came
    Clock::time_point m_nextProgress = Clock::now() + std::chrono::seconds(1);
    std::tuple<std::uint64_t, std::uint64_t, std::uint64_t> m_shown;  // all zero: nothing yet
    std::string m_line;
};

}  // namespace

int RunHub(const Options& options) { return Hub(options).Run(); }
