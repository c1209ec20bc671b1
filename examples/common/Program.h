// What the examples have in common as programs. Each of them asks for a time limit wherever it
// waits for somebody else, and leaves no process behind.
#pragma once

#include <fcntl.h>
#include <getopt.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

inline void AppendCode(const char* prefix, unsigned char byte, std::string& text) {
    char code[8];
    std::snprintf(code, sizeof code, "%s%02x", prefix, static_cast<unsigned int>(byte));
    text += code;
}

// A text of others, fit for a terminal: what does not print, and the backslash, stands as \xNN. The
// letters of other languages pass where the locale knows them (setlocale).
inline std::string Printable(const std::string& text) {
    std::string result;
    std::mbstate_t state = {};
    for (std::size_t at = 0; at < text.size();) {
        wchar_t character = 0;
        std::size_t length = std::mbrtowc(&character, text.data() + at, text.size() - at, &state);
        if (length == 0 || length > text.size()) {  // a zero byte, or no character
            length = 1;
            character = 0;
            state = {};
        }
        if (std::iswprint(static_cast<std::wint_t>(character)) != 0 && character != L'\\') {
            result.append(text, at, length);
        } else {
            for (std::size_t i = at; i < at + length; ++i) {
                AppendCode("\\x", static_cast<unsigned char>(text[i]), result);
            }
        }
        at += length;
    }
    return result;
}

// Prints the version of the library that a program belongs to.
inline void PrintVersion(const char* program) { std::printf("%s %s\n", program, EXAMPLES_VERSION); }

// The time limit. It holds wherever the process waits, also in the middle of a message, where a
// peer that has stopped holds the library's locks.
struct TimeLimit {
    static inline int seconds = 20;  // 0: none

    // From now on the process ends with the text, which must stay valid, and the exit code when the
    // seconds are over before the next call.
    static void Restart(const char* text, int exitCode = 1) {
        s_text = text;
        s_exitCode = exitCode;
        std::signal(SIGALRM, [](int) {
            const char* const word = s_text;
            (void)!write(STDERR_FILENO, word, std::strlen(word));
            _exit(s_exitCode);
        });
        alarm(static_cast<unsigned int>(seconds));
    }
    static void End() { alarm(0); }

private:
    static inline const char* volatile s_text = "";
    static inline volatile int s_exitCode = 1;
};

// A command line of the form PROGRAM [--timeout SECONDS] [ROLE [WORD]...].
class CommandLine {
public:
    // Answers --help and --version and sets the time limit.
    CommandLine(const char* program, const char* usage, int argc, char** argv)
        : m_program(program) {
        static const option known[] = {{"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, 'v'},
                                       {"timeout", required_argument, nullptr, 't'},
                                       {nullptr, 0, nullptr, 0}};
        for (int found; (found = getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
            switch (found) {
                case 'h':
                    std::fputs(usage, stdout);
                    std::exit(0);
                case 'v':
                    PrintVersion(program);
                    std::exit(0);
                case 't':
                    TimeLimit::seconds = Number(optarg, 0, 1000000);
                    break;
                default:
                    std::exit(2);  // getopt_long has said why
            }
        }
        m_words.assign(argv + optind, argv + argc);
    }

    // True when the role is called, with so many words behind it.
    bool Calls(const std::string& role, std::size_t words) const {
        return role.empty() ? m_words.empty() : m_words.size() == 1 + words && m_words[0] == role;
    }

    // The words behind the role, from 1.
    const std::string& Word(std::size_t position) const { return m_words[position]; }

    int Number(const std::string& text, int lowest, int highest) const {
        char* end = nullptr;
        errno = 0;
        const long number = std::strtol(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || errno != 0 || number < lowest || number > highest) {
            Refuse(text + " is not a number from " + std::to_string(lowest) + " to " +
                   std::to_string(highest));
        }
        return static_cast<int>(number);
    }

    [[noreturn]] void Refuse(const std::string& reason) const {
        std::fprintf(stderr, "%s: %s; see %s --help\n", m_program, Printable(reason).c_str(),
                     m_program);
        std::exit(2);
    }

private:
    const char* m_program;
    std::vector<std::string> m_words;
};

// Runs a role of a program. What it throws is told, and makes the exit code 1.
template <class Role>
int RunRole(const std::string& name, Role role) {
    try {
        return role();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", Printable(name).c_str(), Printable(error.what()).c_str());
        return 1;
    }
}

// Starts a process, which is killed when this one ends, however that happens, and returns its
// number; 0 in the new process.
inline pid_t ForkTied() {
    std::fflush(nullptr);  // what is buffered would be printed by both
    const pid_t parent = getpid();
    const pid_t process = fork();
    if (process == -1) {
        throw std::runtime_error(std::string("cannot start a process: ") + std::strerror(errno));
    }
    // A parent that was gone before it was asked for sends no signal.
    if (process == 0 && (prctl(PR_SET_PDEATHSIG, SIGKILL) == -1 || getppid() != parent)) {
        _exit(1);
    }
    return process;
}

// The roles of a program as processes of their own.
class Children {
public:
    Children() = default;
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;
    ~Children() { Await(true); }

    template <class Role>
    void Start(const std::string& name, Role role) {
        const pid_t process = ForkTied();
        if (process == 0) {
            std::exit(RunRole(name, role));
        }
        m_running[process] = name;
    }

    // Starts a role that is given a pipe and writes its port to it. Returns the port, or 0 when the
    // role has ended without one, and has said why.
    template <class Role>
    int StartServer(const std::string& name, Role role) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == -1) {
            throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
        }
        Start(name, [&] { return role(ends[1]); });
        close(ends[1]);
        int port = 0;
        const bool told = read(ends[0], &port, sizeof port) == sizeof port;
        close(ends[0]);
        return told ? port : 0;
    }

    // Waits until all have ended; the first failure ends the others too. True when there was none.
    bool Await(bool failed = false) {
        while (!m_running.empty()) {
            if (failed) {
                for (const auto& [process, name] : m_running) {
                    kill(process, SIGKILL);
                }
            }
            int status = 0;
            const pid_t process = wait(&status);
            if (!failed && WIFSIGNALED(status)) {
                std::fprintf(stderr, "%s was killed by signal %d\n", m_running[process].c_str(),
                             WTERMSIG(status));
            }
            failed = failed || status != 0;
            m_running.erase(process);
        }
        return !failed;
    }

private:
    std::map<pid_t, std::string> m_running;  // the name of each process
};
