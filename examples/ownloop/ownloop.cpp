// A program with a loop of its own: one thread waits with epoll for a timer and for what the
// session has, and never inside the session. What a program of windows or of many descriptors
// needs.
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <cstdint>

#include "Talk.h"

static const char usage[] = R"(usage: ownloop [--timeout SECONDS]
       ownloop [--timeout SECONDS] count
       ownloop [--timeout SECONDS] ask PORT

The first form runs a counter and two who ask it, as processes of their own. The other two are for
terminals: the counter counts up every 10 ms, tells its port on 127.0.0.1, answers whoever asks
how far it has come, and ends when two who asked have left again; who asks does so three times.

  --timeout SECONDS   give up when a peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when every answer was larger than the one before it; with 1 when not, or when something
fails; with 2 after a wrong command line.
)";

static const int askerCount = 2;
static const int questionCount = 3;

// Asks with an empty text, and gets the count.
struct Count : Text {
    explicit Count(const std::string& count = "") : Text(count) {}
    KLVMsgSocketMessage* NewInstance() override { return new Count; }
    KLVString GetMessageType() const override { return "Count"; }
};

static int Checked(int descriptor, const char* what) {
    if (descriptor == -1) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
    return descriptor;
}

class Counter {
public:
    explicit Counter(int portPipe)
        : m_timer(Checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC), "no timer")),
          m_loop(Checked(epoll_create1(EPOLL_CLOEXEC), "no epoll")) {
        const itimerspec everyTenMilliseconds = {{0, 10000000}, {0, 10000000}};
        Checked(timerfd_settime(m_timer, 0, &everyTenMilliseconds, nullptr), "no timer");
        WaitFor(m_timer);
        WaitFor(m_talk.Descriptor());
        m_talk.ServeAndTell("counting on", portPipe);
    }
    ~Counter() {
        close(m_loop);
        close(m_timer);
    }
    Counter(const Counter&) = delete;
    Counter& operator=(const Counter&) = delete;

    // Until all have asked and gone.
    void Run() {
        while (m_gone < askerCount) {
            epoll_event happened[2];
            const int count = epoll_wait(m_loop, happened, 2, -1);
            for (int i = 0; i < count; ++i) {
                happened[i].data.fd == m_timer ? Tick() : Talked();
            }
            if (KLVMsgTimeLimit::Clock::now() >= m_deadline) {
                throw std::runtime_error("gave up: not all have come and gone");
            }
        }
    }

private:
    void WaitFor(int descriptor) {
        epoll_event wanted = {};
        wanted.events = EPOLLIN;
        wanted.data.fd = descriptor;
        Checked(epoll_ctl(m_loop, EPOLL_CTL_ADD, descriptor, &wanted), "no epoll");
    }

    void Tick() {
        std::uint64_t times = 0;
        m_count += read(m_timer, &times, sizeof times) == sizeof times ? times : 0;
    }

    // Takes what is there and waits for nothing. The descriptor stays readable as long as anything
    // is left: messages of each class that may come, and events.
    void Talked() {
        using namespace std::chrono_literals;
        while (const auto asked = m_talk.Receive<Count>(0ms)) {
            m_talk.Post(asked.peer, Count(std::to_string(m_count)));
        }
        while (const KLVMsgEvent event = m_talk.NextEvent(0ms)) {
            std::printf("%s\n", Printable(event.what).c_str());
            m_gone += event.kind == KLVMsgEvent::kGone ? 1 : 0;
        }
        m_deadline = Limit().Deadline();
    }

    Talk m_talk{Count()};
    const int m_timer;
    const int m_loop;
    std::uint64_t m_count = 0;
    int m_gone = 0;
    KLVMsgTimeLimit::Clock::time_point m_deadline = Limit().Deadline();
};

static int Ask(int port) {
    Talk talk{Count()};
    talk.ConnectAndStart(port, "counter");
    long long last = -1;
    for (int question = 0; question < questionCount; ++question) {
        Check(talk.Send("counter", Count(), Limit()));
        const auto answer = talk.Receive<Count>(Limit());
        Check(answer, "gave up: no answer from the counter", "lost the counter");
        const long long count = std::strtoll(answer->text.c_str(), nullptr, 10);
        std::printf("it has come to %lld\n", count);
        if (count <= last) {
            throw std::runtime_error("it does not count up");
        }
        last = count;
        usleep(50000);
    }
    return 0;
}

// Tells its port to the reader of the pipe, if there is one.
static int Serve(int portPipe) {
    Counter(portPipe).Run();
    return 0;
}

// The processes part before there is a session: its thread and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port = children.StartServer("counter", Serve);
    for (int number = 1; port != 0 && number <= askerCount; ++number) {
        children.Start("asker " + std::to_string(number), [port] { return Ask(port); });
    }
    return children.Await() && port != 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    const CommandLine line("ownloop", usage, argc, argv);
    return RunRole("ownloop", [&line] {
        if (line.Calls("", 0)) {
            return RunAll();
        }
        if (line.Calls("count", 0)) {
            return Serve(-1);
        }
        if (line.Calls("ask", 1)) {
            return Ask(line.Number(line.Word(1), 1, 65535));
        }
        line.Refuse("no such role");
    });
}
