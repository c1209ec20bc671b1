#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "Program.h"
#include "Roles.h"

namespace {

class Launcher {
public:
    explicit Launcher(const Options& options) : m_options(options) {}
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    // Nothing is left behind when starting a process has failed.
    ~Launcher() {
        m_failed = m_failed || !m_running.empty();
        WaitForAll();
        for (std::FILE* const file : {m_hub, m_rows}) {
            if (file != nullptr) {
                std::fclose(file);
            }
        }
    }

    int Run() {
        const std::string port = StartHub();
        if (port.empty()) {
            WaitForAll();  // it has said why
            return 1;
        }
        // Rows go to a file without a name: unlike a pipe it never fills up and holds a client.
        m_rows = std::tmpfile();
        Require(m_rows != nullptr && fcntl(fileno(m_rows), F_SETFD, FD_CLOEXEC) != -1, errno);
        for (std::size_t i = 0; i < static_cast<std::size_t>(m_options.clients); ++i) {
            StartClient(i, port);
        }
        WaitForAll();
        PrintTable();
        std::fputs(ReadLine(m_hub).c_str(), stdout);
        return m_failed ? 1 : 0;
    }

private:
    static void Require(bool done, int error) {
        if (!done) {
            throw std::runtime_error(std::string("cannot start a process: ") +
                                     std::strerror(error));
        }
    }

    // Starts this program again in another role, with its standard output on `output`.
    void Start(const std::string& name, std::vector<std::string> arguments, int output) {
        std::vector<char*> pointers;
        pointers.reserve(arguments.size() + 1);
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        const pid_t process = ForkTied();
        if (process == 0) {
            dup2(output, STDOUT_FILENO);
            execv("/proc/self/exe", pointers.data());
            std::perror("exchange");
            _exit(1);
        }
        m_running[process] = name;
    }

    // Returns the port, which stands at the end of the hub's first line, or nothing when the hub
    // has ended without one.
    std::string StartHub() {
        int ends[2];
        Require(pipe2(ends, O_CLOEXEC) == 0, errno);
        Start("hub",
              {"exchange", "hub", "--host", m_options.host, "--port",
               std::to_string(m_options.port), "--clients", std::to_string(m_options.clients),
               "--timeout", std::to_string(TimeLimit::seconds), "--total",
               std::to_string(TotalBytes()), "--by", Way()},
              ends[1]);
        close(ends[1]);
        m_hub = fdopen(ends[0], "r");
        Require(m_hub != nullptr, errno);
        const std::string line = ReadLine(m_hub);
        const std::size_t port = line.rfind(' ') + 1;
        return line.substr(port, line.find('\n') - port);
    }

    std::string Way() const { return m_options.by == By::kTask ? "task" : "session"; }

    // With its end, or nothing where there is none.
    static std::string ReadLine(std::FILE* file) {
        std::string line;
        for (int c = 0; (c = std::fgetc(file)) != EOF;) {
            line += static_cast<char>(c);
            if (c == '\n') {
                return line;
            }
        }
        return "";
    }

    // The files are dealt out like cards, and from the start again to clients that would have none.
    std::size_t Cards() const {
        return std::max(m_options.files.size(), static_cast<std::size_t>(m_options.clients));
    }

    // As far as it is known before the files are read.
    std::uintmax_t TotalBytes() const {
        std::uintmax_t total = 0;
        for (std::size_t card = 0; card < Cards(); ++card) {
            std::error_code ignored;  // what is no regular file has no size
            const std::string& path = m_options.files[card % m_options.files.size()];
            const std::uintmax_t size = std::filesystem::file_size(path, ignored);
            total += ignored ? 0 : size;
        }
        return total;
    }

    void StartClient(std::size_t index, const std::string& port) {
        const std::string name = "client-" + std::to_string(index + 1);
        std::vector<std::string> arguments = {"exchange",  "client",
                                              "--host",    m_options.host,
                                              "--port",    port,
                                              "--name",    name,
                                              "--chunk",   std::to_string(m_options.chunkKiB),
                                              "--timeout", std::to_string(TimeLimit::seconds),
                                              "--by",      Way(),
                                              "--"};
        const std::size_t clients = static_cast<std::size_t>(m_options.clients);
        for (std::size_t card = index; card < Cards(); card += clients) {
            arguments.push_back(m_options.files[card % m_options.files.size()]);
        }
        Start(name, std::move(arguments), fileno(m_rows));
    }

    // The first failure ends the run: the hub, when it is still there, says farewell to all.
    void WaitForAll() {
        while (!m_running.empty()) {
            for (const auto& [process, name] : m_running) {
                if (m_failed && name == "hub") {
                    kill(process, SIGTERM);
                }
            }
            int status = 0;
            const pid_t process = waitpid(-1, &status, 0);
            if (process > 0 && WIFSIGNALED(status)) {
                std::fprintf(stderr, "exchange: %s was killed by signal %d\n",
                             m_running[process].c_str(), WTERMSIG(status));
            }
            m_failed = m_failed || status != 0;
            m_running.erase(process);
        }
    }

    void PrintTable() {
        std::rewind(m_rows);
        std::vector<std::string> rows;
        for (std::string row; !(row = ReadLine(m_rows)).empty();) {
            rows.push_back(row);
        }
        // By the number in the client's name; each client's rows stay in their order.
        const auto number = [](const std::string& row) {
            return std::atoi(row.c_str() + std::strlen("client-"));
        };
        std::stable_sort(rows.begin(), rows.end(),
                         [&](const auto& a, const auto& b) { return number(a) < number(b); });
        std::puts("client           bytes      lines      words   crc-32  verdict    file");
        for (const std::string& row : rows) {
            std::fputs(row.c_str(), stdout);
        }
        std::puts(m_failed ? "FAILED: not every file was agreed on"
                           : "hub and clients agree on every file");
    }

    const Options& m_options;
    std::map<pid_t, std::string> m_running;  // the name of each process
    std::FILE* m_hub = nullptr;              // the end of the hub's standard output
    std::FILE* m_rows = nullptr;             // what the clients have printed
    bool m_failed = false;
};

}  // namespace

int RunLauncher(const Options& options) {
    RequireReadable(options.files);
    return Launcher(options).Run();
}
