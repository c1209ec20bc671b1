// A session between two processes, beside messaging libraries with their default queues: there and
// back, one way over one connection and over a hundred, and doing nothing. Messages have 16 bytes.
//
// Each measurement has two new processes. One line of JSON for each; scripts/session_bench.py runs
// this several times and takes the medians.
#include <sys/resource.h>

#include <cmath>
#include <thread>

#include "Process.h"
#include "Talker.h"

namespace bench {
namespace {

struct Contender {
    const char* name;
    std::unique_ptr<Talker> (*make)(Use);
    bool collects;  // what comes while nobody asks
};

const Contender contenders[] = {
    {"session", &MakeSessionTalker, true},
#ifdef BENCH_ZEROMQ
    {"ZeroMQ", &MakeZeroMqTalker, false},
#endif
#ifdef BENCH_NNG
    {"nng", &MakeNngTalker, false},
#endif
};

void Print(const Contender& contender, const char* what, double value) {
    std::printf("{\"contender\": \"%s\", \"what\": \"%s\", \"value\": %.6g}\n", contender.name,
                what, value);
    std::fflush(stdout);
}

// The client of the other process: sends when it is told how many.
struct Order {
    int connections;
    int count;
};

[[noreturn]] void FarEnd(Process& near, const Contender& contender, Use use) {
    const std::unique_ptr<Talker> talker = contender.make(use);
    const int port = near.Hear<int>();
    const auto order = near.Hear<Order>();
    talker->Connect(port, order.connections);
    for (int i = 0; i < order.connections; ++i) {
        talker->Send({static_cast<std::uint64_t>(i), 0});
    }
    near.Hear<char>();  // the server has heard of all
    std::vector<double> times;
    for (int i = 0; i < order.count; ++i) {
        const auto number = static_cast<std::uint64_t>(i);
        const auto connections = static_cast<std::uint64_t>(order.connections);
        const double start = Now();
        talker->Send({number % connections, 1 + number / connections});
        if (use == Use::ThereAndBack) {
            Require(talker->Receive().number == 1 + number, "the answer");
            times.push_back(Now() - start);
        }
    }
    near.Tell(times.empty() ? 0 : Median(times));
    near.Tell(times.empty() ? 0 : Quantile(times, 0.99));
    for (;;) {
        pause();
    }
}

// The server of this process, connected to a client in another one.
struct Meeting {
    Meeting(const Contender& contender, Use use, Order order)
        : far([&](Process& near) { FarEnd(near, contender, use); }),
          talker(contender.make(use)),
          latest(static_cast<std::size_t>(order.connections)) {
        far.Tell(talker->Listen());
        far.Tell(order);
        for (int i = 0; i < order.connections; ++i) {
            talker->Receive();
        }
    }

    void Begin() { far.Tell(char{0}); }

    // Each connection's messages come once and in order.
    void Check(const Item& item) {
        Require(item.number == ++latest[item.connection], "the next message");
    }

    Process far;
    std::unique_ptr<Talker> talker;
    std::vector<std::uint64_t> latest;
};

// Does the work in a process of its own, and returns the number it tells.
template <class Work>
double Apart(Work work) {
    Process process([&](Process& bench) {
        work(bench);
        for (;;) {
            pause();
        }
    });
    return process.Hear<double>();
}

void ThereAndBack(const Contender& contender) {
    const int count = smoke ? 20 : 10000;
    Process process([&](Process& bench) {
        Meeting meeting(contender, Use::ThereAndBack, {1, count});
        meeting.Begin();
        for (int i = 0; i < count; ++i) {
            meeting.talker->Answer(meeting.talker->Receive());
        }
        bench.Tell(meeting.far.Hear<double>());
        bench.Tell(meeting.far.Hear<double>());
        pause();
        std::_Exit(0);
    });
    Print(contender, "there and back, median, ms", process.Hear<double>() / 1e6);
    Print(contender, "there and back, 99 %, ms", process.Hear<double>() / 1e6);
}

void OneWay(const Contender& contender, int connections, bool together) {
    const int count = smoke ? 1000 : 3000000;
    const double rate = Apart([&](Process& bench) {
        Meeting meeting(contender, Use::OneWay, {connections, count});
        const double start = Now();
        meeting.Begin();
        for (int i = 0; i < count; ++i) {
            Item item = {};
            while (together && !meeting.talker->ReceiveIfThere(item)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            meeting.Check(together ? item : meeting.talker->Receive());
        }
        bench.Tell(count / ((Now() - start) / 1e9));
    });
    const std::string what = std::string("one way, ") + (together ? "together" : "one by one") +
                             ", connections: " + std::to_string(connections) + ", messages/s";
    Print(contender, what.c_str(), rate);
}

double ProcessorTime() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void Idle(const Contender& contender) {
    const int seconds = smoke ? 0 : 4;
    const double share = Apart([&](Process& bench) {
        Meeting meeting(contender, Use::OneWay, {1, 0});
        const double before = ProcessorTime();
        const double start = Now();
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        bench.Tell(100 * (ProcessorTime() - before) / ((Now() - start) / 1e9));
    });
    Print(contender, "idle, % of a core", share);
}

void RunAll() {
    for (const Contender& contender : contenders) {
        ThereAndBack(contender);
        for (const int connections : {1, 100}) {
            OneWay(contender, connections, false);
            if (contender.collects) {
                OneWay(contender, connections, true);
            }
        }
        Idle(contender);
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    bench::smoke = argc > 1 && std::string(argv[1]) == "--smoke";
    bench::RunAll();
}
