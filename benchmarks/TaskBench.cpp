// The message task between two processes: how long a message takes from queuing to the inbox,
// beside what the task's fixed wait and sleep imply, and what an idle task costs.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <ctime>
#include <deque>
#include <memory>
#include <thread>

#include "Sockets.h"

namespace bench {
namespace {

constexpr double waitMs = 20;
constexpr double sleepMs = 100;
constexpr double cycleMs = waitMs + sleepMs;
constexpr int mostSamples = 20000;

// What the processes share.
struct Shared {
    std::atomic<int> taken;
    double latencyMs[mostSamples];
    double idlePercent;
};

Shared& SharedMemory() {
    static void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Require(memory != MAP_FAILED, "shared memory");
    return *static_cast<Shared*>(memory);
}

// Its body is the time at which it was queued. Reading it, on the way to the inbox, takes the time.
class Stamp : public KLVMsgSocketMessage {
public:
    explicit Stamp(double atTime) : at(atTime) {}

    int WriteMessage(KLVMsgOutputStream* stream) override {
        int count = 0;
        stream->write(&at, sizeof at, count);
        return count;
    }

    int ReadMessage(KLVMsgInputStream* stream) override {
        int count = 0;
        stream->read(&at, sizeof at, count);
        Require(count == sizeof at, "stamp");
        const int place = SharedMemory().taken++;
        Require(place < mostSamples, "room for samples");
        SharedMemory().latencyMs[place] = (Now() - at) / 1e6;
        return count;
    }

    KLVMsgSocketMessage* NewInstance() override { return new Stamp(0); }
    KLVString GetMessageType() const override { return KLVString(typeName); }

    double at;
};

// A communicator with its task on a thread, for the rest of the process.
class RunningTask {
public:
    RunningTask() {
        static Stamp prototype(0);
        Communicator().RegisterMessagePrototype(typeName, &prototype);
        Communicator().SetDefaultInputStream(&m_input);
        Communicator().SetDefaultOutputStream(&m_output);
        Communicator().PrepareStartupMessageTask();
        m_thread = std::make_unique<KLVBasAtiThread>(m_task);
    }

    ~RunningTask() { Communicator().ShutdownMessageTask(); }

private:
    KLVMsgSimpleInputStream m_input;
    KLVMsgBufferedOutputStream m_output{1 << 16};
    KLVMsgMessageTask m_task;
    std::unique_ptr<KLVBasAtiThread> m_thread;  // its end is waited for first
};

void SleepMs(double milliseconds) {
    std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(milliseconds));
}

int Serve() {
    const auto* const server = Registry().StartServer(KLVMsgSocketAddress("127.0.0.1", 0), 16);
    Communicator().AddConnection(KLVMsgChannel(Registry().GetSocket(server->descriptor), ""), true);
    return server->address.port;
}

KLVMsgChannel ConnectTo(int port) {
    const KLVMsgSocketAddress address("127.0.0.1", port);
    KLVMsgCommSocket* const socket = Registry().ConnectToServer(address, address);
    Require(socket != nullptr, "connection of a task");
    const KLVMsgChannel channel(Registry().GetSocket(socket->descriptor), "");
    Communicator().AddConnection(channel, true);
    return channel;
}

// Forks; the child does `work` and ends.
template <class Work>
pid_t InChild(Work work) {
    const pid_t child = fork();
    Require(child != -1, "fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        work();
        std::_Exit(0);
    }
    return child;
}

// Pauses between messages are long enough that no message waits for another one.
template <class Random>
double Pause(Random& random) {
    return std::uniform_real_distribution<double>(150, 350)(random);
}

// A process that sends, with one of its own that receives and ends with it.
void SendAndReceive(int messages, unsigned seed) {
    int ports[2];
    Require(pipe(ports) == 0, "pipe");
    InChild([&ports] {
        const int port = Serve();
        const RunningTask task;
        Require(write(ports[1], &port, sizeof port) == sizeof port, "port");
        for (;;) {
            pause();
        }
    });
    int port = 0;
    Require(read(ports[0], &port, sizeof port) == sizeof port, "port");
    std::mt19937 random(seed);
    SleepMs(std::uniform_real_distribution<double>(0, cycleMs)(random));
    const KLVMsgChannel channel = ConnectTo(port);
    const RunningTask task;
    std::deque<Stamp> sent;
    for (int i = 0; i < messages; ++i) {
        SleepMs(Pause(random));
        sent.emplace_back(Now());
        unsigned int id = 0;
        Communicator().ISendSocketMessage(channel, &sent.back(), id);
    }
    SleepMs(3 * cycleMs);
}

// How much longer sleeps take than they were asked to, in milliseconds: tens of microseconds, but
// both tasks have the same period, so it is these that decide who comes first.
std::vector<double> MeasureOvershoots() {
    std::vector<double> overshoots;
    for (int i = 0; i < (smoke ? 5 : 300); ++i) {
        const double start = Now();
        KLVBasUtlsleep(static_cast<unsigned>(waitMs));
        overshoots.push_back((Now() - start) / 1e6 - waitMs);
    }
    return overshoots;
}

// A pair of tasks in which nothing takes time but the waits and the sleeps.
class ImpliedPair {
public:
    ImpliedPair(const std::vector<double>& overshoots, std::mt19937& random)
        : m_overshoots(overshoots), m_random(random) {
        m_sendersWait = std::uniform_real_distribution<double>(0, cycleMs)(m_random);
        m_receiversWait = std::uniform_real_distribution<double>(0, cycleMs)(m_random);
        m_sendersWaitEnd = m_sendersWait + Lasting(waitMs);
        m_receiversWaitEnd = m_receiversWait + Lasting(waitMs);
    }

    // A message leaves at the end of the wait in which it was queued, which also keeps its sender
    // from going on, or of the next one.
    double NextLatency() {
        m_now += Pause(m_random);
        const double queued = m_now;
        while (m_sendersWaitEnd < queued) {
            StartCycle(m_sendersWait, m_sendersWaitEnd, m_sendersWaitEnd);
        }
        const double arrived = m_sendersWaitEnd;
        m_now = m_sendersWait < queued ? arrived : queued;
        while (m_receiversWaitEnd < arrived) {
            StartCycle(m_receiversWait, m_receiversWaitEnd, m_receiversWaitEnd);
        }
        const double read = std::max(m_receiversWait, arrived);
        StartCycle(m_receiversWait, m_receiversWaitEnd, read);
        return read - queued;
    }

private:
    double Lasting(double milliseconds) {
        return milliseconds + m_overshoots[m_random() % m_overshoots.size()];
    }

    // The wait that follows when the one before has ended at `ended`.
    void StartCycle(double& wait, double& waitEnd, double ended) {
        wait = ended + Lasting(sleepMs);
        waitEnd = wait + Lasting(waitMs);
    }

    const std::vector<double>& m_overshoots;
    std::mt19937& m_random;
    double m_now = 0;
    double m_sendersWait;
    double m_sendersWaitEnd;
    double m_receiversWait;
    double m_receiversWaitEnd;
};

std::vector<double> ImpliedLatencies(const std::vector<double>& overshoots, int messages) {
    std::mt19937 random(5);
    std::vector<double> latencies;
    for (int pair = 0; pair < 2000; ++pair) {
        ImpliedPair implied(overshoots, random);
        for (int i = 0; i < messages; ++i) {
            latencies.push_back(implied.NextLatency());
        }
    }
    return latencies;
}

// Runs pairs of processes to their end; returns the overshoots that were measured meanwhile.
std::vector<double> RunPairs(int pairs, int messages) {
    std::vector<pid_t> children;
    for (int i = 0; i < pairs; ++i) {
        const auto seed = static_cast<unsigned>(i);
        children.push_back(InChild([messages, seed] { SendAndReceive(messages, seed); }));
    }
    std::vector<double> overshoots = MeasureOvershoots();
    for (const pid_t child : children) {
        int status = -1;
        Require(waitpid(child, &status, 0) == child && status == 0, "a sender's end");
    }
    return overshoots;
}

void Latency(benchmark::State& state) {
    const int pairs = smoke ? 2 : 24;
    const int messages = smoke ? 3 : 100;
    SharedMemory().taken = 0;
    std::vector<double> overshoots;
    for ([[maybe_unused]] auto _ : state) {
        const double start = Now();
        for (const double overshoot : RunPairs(pairs, messages)) {
            overshoots.push_back(overshoot);
        }
        state.SetIterationTime((Now() - start) / 1e9);
    }
    const int sent = pairs * messages;
    Require(SharedMemory().taken == sent, "every message arrived once");

    const double* const first = SharedMemory().latencyMs;
    const std::vector<double> measured(first, first + sent);
    const std::vector<double> implied = ImpliedLatencies(overshoots, messages);
    state.counters["ms:overshoot"] = Median(overshoots);
    for (const int percent : {1, 5, 10, 20, 30, 40, 50, 60, 70, 80, 90, 95, 99}) {
        const std::string suffix = (percent < 10 ? "0" : "") + std::to_string(percent);
        state.counters["ms:measured:" + suffix] = Quantile(measured, percent / 100.0);
        state.counters["ms:implied:" + suffix] = Quantile(implied, percent / 100.0);
    }
}

double ProcessSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

void Idle(benchmark::State& state) {
    const double seconds = smoke ? 0.3 : 10;
    for ([[maybe_unused]] auto _ : state) {
        const pid_t child = InChild([seconds] {
            ConnectTo(Serve());
            const RunningTask task;
            SleepMs(3 * cycleMs);
            const double before = ProcessSeconds();
            SleepMs(seconds * 1000);
            SharedMemory().idlePercent = (ProcessSeconds() - before) / seconds * 100;
        });
        int status = -1;
        Require(waitpid(child, &status, 0) == child && status == 0, "the idle task's end");
        state.SetIterationTime(seconds);
    }
    state.counters["percent:idle"] = SharedMemory().idlePercent;
}

void RegisterAll() {
    Register("task/latency", 1, &Latency, 1);
    Register("task/idle", 1, &Idle, 1);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::Main(argc, argv, &bench::RegisterAll); }
