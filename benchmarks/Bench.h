// What the benchmark programs share: the clock, checks, and rounds of contenders that take turns.
#pragma once

#include <KLVMsgCommModules.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace bench {

// One short round of everything: for checking results, not for times.
inline bool smoke = false;

inline int Rounds(int full) { return smoke ? 1 : full; }

// A failed check ends the program with an error; nothing that was measured counts then.
inline void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "check failed: %s\n", what);
        std::_Exit(1);
    }
}

// The system's monotonic clock, in nanoseconds: the same one in every process.
inline double Now() {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::nanoseconds(since).count());
}

// The value below which a share of `values` lies.
inline double Quantile(const std::vector<double>& values, double share) {
    Require(!values.empty(), "a quantile needs values");
    std::vector<double> ordered(values);
    std::sort(ordered.begin(), ordered.end());
    const auto position = static_cast<std::size_t>(share * static_cast<double>(ordered.size()));
    return ordered[std::min(position, ordered.size() - 1)];
}

inline double Median(const std::vector<double>& values) { return Quantile(values, 0.5); }

// Contenders that run by turns, in a new random order each time, so that a machine that drifts
// favours none. The first one is the subject, the others are what it is compared with.
class Comparison {
public:
    // One turn: a time for each quantity, in nanoseconds for one operation.
    using Turn = std::function<std::vector<double>()>;

    explicit Comparison(std::vector<std::string> quantities) : m_quantities(quantities) {}

    void Add(const std::string& name, Turn turn) { m_contenders.push_back({name, turn, {}}); }

    // Takes the turns of every iteration, after one that does not count if there are several.
    // Reports for each quantity the contenders' median times and, over the iterations, the median
    // of the time of each other contender divided by the subject's: above 1 the subject is the
    // faster one.
    void Run(benchmark::State& state) {
        if (state.max_iterations > 1) {
            TakeTurns();
        }
        for (Contender& contender : m_contenders) {
            contender.times.clear();
        }
        for ([[maybe_unused]] auto _ : state) {
            const double start = Now();
            TakeTurns();
            state.SetIterationTime((Now() - start) / 1e9);
        }
        for (std::size_t quantity = 0; quantity < m_quantities.size(); ++quantity) {
            Report(state, quantity);
        }
    }

private:
    struct Contender {
        std::string name;
        Turn turn;
        std::vector<std::vector<double>> times;  // by iteration, then by quantity
    };

    void TakeTurns() {
        std::vector<Contender*> order;
        for (Contender& contender : m_contenders) {
            order.push_back(&contender);
        }
        std::shuffle(order.begin(), order.end(), m_random);
        for (Contender* contender : order) {
            contender->times.push_back(contender->turn());
        }
    }

    void Report(benchmark::State& state, std::size_t quantity) const {
        const auto& subject = m_contenders.front().times;
        for (const Contender& contender : m_contenders) {
            std::vector<double> times;
            std::vector<double> ratios;
            for (std::size_t i = 0; i < subject.size(); ++i) {
                times.push_back(contender.times[i][quantity]);
                ratios.push_back(contender.times[i][quantity] / subject[i][quantity]);
            }
            const std::string label = m_quantities[quantity] + ":" + contender.name;
            state.counters["ns:" + label] = Median(times);
            if (&contender != &m_contenders.front()) {
                state.counters["ratio:" + label] = Median(ratios);
            }
        }
    }

    std::vector<std::string> m_quantities;
    std::vector<Contender> m_contenders;
    std::mt19937 m_random{20};
};

// Registers a benchmark that runs a comparison: `rounds` iterations, and that several times over.
template <class Body>
void Register(const std::string& name, int rounds, Body body, int repetitions = 3) {
    auto* const made = benchmark::RegisterBenchmark(name.c_str(), body);
    made->UseManualTime()->Iterations(Rounds(rounds))->Repetitions(Rounds(repetitions));
    made->Unit(benchmark::kMillisecond);
    if (!smoke) {
        made->ReportAggregatesOnly(true);
    }
}

// The main program: `--smoke`, and the options of Google Benchmark.
inline int Main(int argc, char** argv, void (*registerAll)()) {
    char** const end = std::remove_if(argv, argv + argc,
                                      [](char* arg) { return std::strcmp(arg, "--smoke") == 0; });
    smoke = end != argv + argc;
    argc = static_cast<int>(end - argv);
    benchmark::Initialize(&argc, argv);
    registerAll();
    Require(benchmark::RunSpecifiedBenchmarks() != 0, "no benchmark was run");
    return 0;
}

inline KLVMsgSocketCommunicator& Communicator() {
    return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
}

inline KLVMsgConnectionServicesUtils& Registry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

}  // namespace bench
