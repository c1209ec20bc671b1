#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <set>
#include <tuple>

#include "Messages.h"
#include "Outcome.h"
#include "Roles.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* const clearLine = "\r\x1b[K";

class Hub {
public:
    explicit Hub(const Options& options)
        : m_link(NewLink(options.by, "exchange hub", "a client has stopped amid a message")),
          m_way(options.by == By::kTask ? "message task" : "session"),
          m_expected(options.clients),
          m_totalBytes(options.totalBytes) {
        // Blocked before there is a second thread: only Run asks for them.
        sigemptyset(&m_stopSignals);
        sigaddset(&m_stopSignals, SIGINT);
        sigaddset(&m_stopSignals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &m_stopSignals, nullptr);

        const int port = m_link->Serve({options.host.c_str(), options.port});
        m_link->Start();
        std::printf("listening on %s, port %d\n", Printable(options.host).c_str(), port);
        std::fflush(stdout);
    }

    int Run() {
        while (!m_stopped && m_served + m_lost < m_expected) {
            const std::set<std::string> gone = Gone();  // before the last look at what they said
            Receive();
            Welcome();
            CountLost(gone);
            ShowProgress(false);
            const timespec noPause = {};
            m_stopped = sigtimedwait(&m_stopSignals, nullptr, &noPause) > 0;
        }
        ShowProgress(true);
        SayFarewell();
        SayWhatMoved();
        return m_served == m_expected ? 0 : 1;
    }

private:
    struct Client {
        std::uint64_t filesLeft = 0;
        Clock::time_point heard;  // when its last message came
        TextStatistics current;   // of the file that is arriving
    };

    // A connection gets its label when the client has told its name.
    void Welcome() {
        while (const auto hello = m_link->Receive<Hello>(std::chrono::seconds(0))) {
            ++m_heard;
            if (!hello->complete || hello->files == 0 || !IsFree(hello->name)) {
                auto refusal = std::make_unique<Farewell>();
                refusal->reason = "the name is taken or none, or there are no files";
                m_link->Post(hello.peer, std::move(refusal));
                ++m_said;
                continue;
            }
            m_link->SetLabel(hello.peer, hello->name);
            m_clients[hello->name] = {hello->files, Clock::now(), {}};
            m_files += hello->files;
            if (m_start == Clock::time_point()) {
                m_start = Clock::now();
            }
        }
    }

    bool IsFree(const std::string& name) const {
        return !name.empty() && name.size() <= maximalNameBytes && m_clients.count(name) == 0;
    }

    // Waits a little, and takes all that has come. A chunk comes behind its sender's hello.
    void Receive() {
        std::chrono::milliseconds limit(20);
        while (const auto chunk = m_link->Receive<Chunk>(limit)) {
            ++m_heard;
            Welcome();
            const auto sender = m_clients.find(m_link->LabelOf(chunk.peer));
            if (chunk->complete && sender != m_clients.end() && sender->second.filesLeft != 0) {
                m_bytes += chunk->data.size();
                sender->second.heard = Clock::now();
                sender->second.current.Add(chunk->data);
                Answer(sender->first, sender->second, chunk->last != 0);
            }
            limit = std::chrono::milliseconds(0);
            ShowProgress(false);
        }
    }

    void Answer(const std::string& name, Client& client, bool fileEnds) {
        ++m_said;
        if (!fileEnds) {
            auto receipt = std::make_unique<Receipt>();
            receipt->bytes = client.current.bytes;
            m_link->Post(name, std::move(receipt));
            return;
        }
        auto report = std::make_unique<Report>();
        report->found = client.current;
        m_link->Post(name, std::move(report));
        client.current = TextStatistics();
        ++m_reported;
        m_served += --client.filesLeft == 0 ? 1 : 0;
    }

    // A client stays until the farewell.
    std::set<std::string> Gone() {
        const std::set<std::string> present = m_link->Present();
        std::set<std::string> gone;
        for (const auto& [name, client] : m_clients) {
            if (present.count(name) == 0) {
                gone.insert(name);
            }
        }
        return gone;
    }

    // Lost are those who have files to come, and have gone or fallen silent.
    void CountLost(const std::set<std::string>& gone) {
        for (auto& [name, client] : m_clients) {
            const bool hasGone = gone.count(name) != 0;
            const bool isSilent = Clock::now() - client.heard > Limit().Duration();
            if (client.filesLeft != 0 && (hasGone || isSilent)) {
                const std::string cause = hasGone ? m_link->CauseOf(name) : ": no word from it";
                std::fprintf(stderr, "%sexchange hub: lost %s%s\n", m_terminal ? clearLine : "",
                             Printable(name).c_str(), cause.c_str());
                client.filesLeft = 0;
                ++m_lost;
            }
        }
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

    // One message for all. A client that does not leave then is cut off.
    void SayFarewell() {
        auto farewell = std::make_unique<Farewell>();
        farewell->reason = m_stopped ? "the hub was stopped" : "all others have been served";
        m_end = Clock::now();
        m_said += m_link->Present().size();
        m_link->End(std::move(farewell));
    }

    void SayWhatMoved() const {
        const std::chrono::duration<double> took = m_end - std::min(m_start, m_end);
        std::printf(
            "moved by the %s: %s MiB of files in %.1f s, clients: %zu, messages: %llu there and "
            "%llu back\n",
            m_way, Mebibytes(static_cast<double>(m_bytes)).c_str(), took.count(), m_clients.size(),
            static_cast<unsigned long long>(m_heard), static_cast<unsigned long long>(m_said));
    }

    const std::unique_ptr<Link> m_link;
    const char* const m_way;
    std::map<std::string, Client> m_clients;  // by name, which is the label of the connection
    sigset_t m_stopSignals = {};
    bool m_stopped = false;
    int m_expected;
    int m_served = 0;
    int m_lost = 0;
    std::uint64_t m_totalBytes;  // 0: not known
    std::uint64_t m_bytes = 0;
    std::uint64_t m_heard = 0;  // messages
    std::uint64_t m_said = 0;
    std::uint64_t m_reported = 0;  // files
    std::uint64_t m_files = 0;     // announced by the clients so far

    const bool m_terminal = isatty(STDERR_FILENO) == 1;
    Clock::time_point m_start;  // when the first client came
    Clock::time_point m_end;
    Clock::time_point m_nextProgress = Clock::now() + std::chrono::seconds(1);
    std::tuple<std::uint64_t, std::uint64_t, std::uint64_t> m_shown;  // all zero: nothing yet
    std::string m_line;
};

}  // namespace

int RunHub(const Options& options) { return Hub(options).Run(); }
