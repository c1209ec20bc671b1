// Messages between two processes, one way and there and back: the library beside a bare loop of the
// same system calls and beside messaging libraries.
//
// Every contender has two processes of its own, since the threads that some of them start would
// make the system calls of the others dearer.
#include <algorithm>
#include <list>

#include "Exchange.h"
#include "Process.h"

namespace bench {
namespace {

const std::vector<Contender>& Contenders() {
    static const std::vector<Contender> all = {
        {"library", &MakeLibraryEndpoint}, {"bare", &MakeBareEndpoint},
#ifdef BENCH_ZEROMQ
        {"ZeroMQ", &MakeZeroMqEndpoint},
#endif
#ifdef BENCH_NNG
        {"nng", &MakeNngEndpoint},
#endif
#ifdef BENCH_ASIO
        {"Asio", &MakeAsioEndpoint},
#endif
    };
    return all;
}

// The last message of each turn, which wakes a receiver that waits for the rest of the others.
constexpr int trailerSize = streamMark;

// The same bytes in both processes.
const char* Body() {
    static char* const body = [] {
        char* const made = new char[largestBody];
        for (int i = 0; i < largestBody; ++i) {
            made[i] = static_cast<char>(i * 7 + i / 251);
        }
        return made;
    }();
    return body;
}

void CheckBody(const char* body, int size) {
    const auto last = static_cast<std::size_t>(size - 1);
    Require(body[0] == Body()[0] && body[last] == Body()[last], "body");
    Require(!smoke || std::memcmp(body, Body(), last) == 0, "whole body");
}

// What the ends of an exchange do next, and how long a message took them: in the middle and at 99 %
// of all, or on the average of a stream.
struct Command {
    int size;
    int count;
};

struct Times {
    double middle;
    double p99;
};

void SendTrailer(Endpoint& endpoint) {
    endpoint.Send(Body(), trailerSize);
    endpoint.Flush();
}

// A contender in the process that connects. One way it sends, with a trailer before the first turn
// and after each; otherwise it answers.
[[noreturn]] void FarEnd(Process& near, const Contender& contender, Tuning tuning) {
    const std::unique_ptr<Endpoint> endpoint = contender.make(tuning);
    endpoint->Connect(near.Hear<int>());
    if (tuning == Tuning::OneWay) {
        SendTrailer(*endpoint);
    }
    for (;;) {
        const auto command = near.Hear<Command>();
        for (int i = 0; i < command.count; ++i) {
            if (tuning != Tuning::OneWay) {
                CheckBody(endpoint->Receive(command.size), command.size);
            }
            endpoint->Send(Body(), command.size);
        }
        if (tuning == Tuning::OneWay) {
            SendTrailer(*endpoint);
        }
    }
}

// The trailer of the turn before is read first, that of this turn is left for the next one.
Times Stream(Endpoint& endpoint, Process& far, Command command) {
    const double start = Now();
    far.Tell(command);
    CheckBody(endpoint.Receive(trailerSize), trailerSize);
    for (int i = 0; i < command.count; ++i) {
        CheckBody(endpoint.Receive(command.size), command.size);
    }
    const double average = (Now() - start) / command.count;
    return {average, average};
}

Times PingPong(Endpoint& endpoint, Process& far, Command command) {
    far.Tell(command);
    std::vector<double> times;
    for (int i = 0; i < command.count; ++i) {
        const double start = Now();
        endpoint.Send(Body(), command.size);
        const char* const body = endpoint.Receive(command.size);
        times.push_back(Now() - start);
        CheckBody(body, command.size);
    }
    return {Median(times), Quantile(times, 0.99)};
}

// A contender in the process that listens and takes the times.
[[noreturn]] void NearEnd(Process& bench, const Contender& contender, Tuning tuning) {
    Process far([&](Process& near) { FarEnd(near, contender, tuning); });
    const std::unique_ptr<Endpoint> endpoint = contender.make(tuning);
    far.Tell(endpoint->Listen());
    endpoint->Accept();
    const auto takeTurn = tuning == Tuning::OneWay ? &Stream : &PingPong;
    for (;;) {
        bench.Tell(takeTurn(*endpoint, far, bench.Hear<Command>()));
    }
}

Times TakeTurn(Process& near, int size, int count) {
    near.Tell(Command{size, count});
    return near.Hear<Times>();
}

// How many messages take a contender about 40 ms.
int CountForTurn(Process& near, int size) {
    const int probe = size < (1 << 16) ? 1000 : 40;
    return std::clamp(static_cast<int>(40e6 / TakeTurn(near, size, probe).middle), 20, 40000);
}

// Two new processes for each contender.
void Exchange(benchmark::State& state, Tuning tuning, int size) {
    const bool oneWay = tuning == Tuning::OneWay;
    Comparison comparison(oneWay ? std::vector<std::string>{"message"}
                                 : std::vector<std::string>{"median", "p99"});
    std::list<Process> nears;
    for (const Contender& contender : Contenders()) {
        Process& near =
            nears.emplace_back([&](Process& bench) { NearEnd(bench, contender, tuning); });
        const int full = oneWay && !smoke ? CountForTurn(near, size) : 1000;
        const int count = smoke ? 20 : full;
        comparison.Add(contender.name, [&near, size, count] {
            const Times times = TakeTurn(near, size, count);
            return std::vector<double>{times.middle, times.p99};
        });
    }
    comparison.Run(state);
}

void RegisterAll() {
    const auto add = [](const std::string& name, Tuning tuning, int size, int rounds,
                        int repetitions) {
        const auto body = [=](benchmark::State& state) { Exchange(state, tuning, size); };
        Register(name + "/" + std::to_string(size), rounds, body, repetitions);
    };
    // How the kernel cuts a stream, and where it runs the processes, differs from one pair of them
    // to the next: many pairs, and few rounds of each.
    for (const int size : {16, 1 << 10, 1 << 16, largestBody}) {
        add("one_way", Tuning::OneWay, size, size < (1 << 16) ? 4 : 8, 25);
    }
    for (const int size : {16, 1 << 10}) {
        add("there_and_back", Tuning::ThereAndBack, size, 10, 3);
    }
    for (const int size : {16, 1 << 10}) {
        add("there_and_back_marked", Tuning::ThereAndBackMarked, size, 10, 3);
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::Main(argc, argv, &bench::RegisterAll); }
