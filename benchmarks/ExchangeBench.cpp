// Messages between two processes, one way and there and back: the library beside a bare loop of the
// same system calls and beside messaging libraries.
//
// Every contender has a process of its own at the far end, made before anything starts a thread.
#include <sys/prctl.h>

#include <csignal>

#include "Exchange.h"

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

// What the far end is to do next.
struct Command {
    int size;
    int count;
};

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

// A connection to a process at its other end, which follows commands.
class FarEnd {
public:
    FarEnd(const Contender& contender, Tuning tuning) : m_contender(contender), m_tuning(tuning) {
        int ends[2];
        Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
        m_control = ends[0];
        Body();
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(ends[0]);
            m_control = ends[1];
            Serve();
        }
        close(ends[1]);
    }

    // Called when all far ends have been made.
    void Open() {
        m_endpoint = m_contender.make(m_tuning);
        const int port = m_endpoint->Listen();
        Tell(port);
        m_endpoint->Accept();
    }

    // Nanoseconds for one of `count` messages. The trailer of the turn before is read first, that of
    // this turn is left for the next one.
    double Stream(int size, int count) {
        const double start = Now();
        Tell(Command{size, count});
        CheckBody(m_endpoint->Receive(trailerSize), trailerSize);
        for (int i = 0; i < count; ++i) {
            CheckBody(m_endpoint->Receive(size), size);
        }
        return (Now() - start) / count;
    }

    // The time of each of `count` messages there and back.
    std::vector<double> PingPong(int size, int count) {
        Tell(Command{size, count});
        std::vector<double> times;
        for (int i = 0; i < count; ++i) {
            const double start = Now();
            m_endpoint->Send(Body(), size);
            const char* const body = m_endpoint->Receive(size);
            times.push_back(Now() - start);
            CheckBody(body, size);
        }
        return times;
    }

private:
    template <class T>
    void Tell(const T& what) {
        Require(write(m_control, &what, sizeof what) == sizeof what, "far end");
    }

    template <class T>
    bool Hear(T& what) {
        return read(m_control, &what, sizeof what) == sizeof what;
    }

    void SendTrailer() {
        if (m_tuning == Tuning::OneWay) {
            m_endpoint->Send(Body(), trailerSize);
            m_endpoint->Flush();
        }
    }

    // The far end's process.
    [[noreturn]] void Serve() {
        int port = 0;
        Require(Hear(port), "port");
        m_endpoint = m_contender.make(m_tuning);
        m_endpoint->Connect(port);
        SendTrailer();
        for (Command command = {}; Hear(command);) {
            for (int i = 0; i < command.count; ++i) {
                if (m_tuning != Tuning::OneWay) {
                    CheckBody(m_endpoint->Receive(command.size), command.size);
                }
                m_endpoint->Send(Body(), command.size);
            }
            SendTrailer();
        }
        std::_Exit(0);
    }

    Contender m_contender;
    Tuning m_tuning;
    int m_control = -1;
    std::unique_ptr<Endpoint> m_endpoint;
};

constexpr Tuning tunings[] = {Tuning::OneWay, Tuning::ThereAndBack, Tuning::ThereAndBackMarked};

std::vector<FarEnd>& FarEnds(Tuning tuning) {
    static std::vector<FarEnd> farEnds[std::size(tunings)];
    return farEnds[static_cast<std::size_t>(tuning)];
}

// How many messages take a contender about 40 ms.
int CountForTurn(FarEnd& farEnd, int size) {
    const int probe = size < (1 << 16) ? 1000 : 40;
    return smoke ? 20 : std::clamp(static_cast<int>(40e6 / farEnd.Stream(size, probe)), 20, 40000);
}

void OneWay(benchmark::State& state, int size) {
    Comparison comparison({"message"});
    for (std::size_t i = 0; i < Contenders().size(); ++i) {
        FarEnd& farEnd = FarEnds(Tuning::OneWay)[i];
        const int count = CountForTurn(farEnd, size);
        comparison.Add(Contenders()[i].name, [&farEnd, size, count] {
            return std::vector<double>{farEnd.Stream(size, count)};
        });
    }
    comparison.Run(state);
}

void ThereAndBack(benchmark::State& state, Tuning tuning, int size) {
    Comparison comparison({"median", "p99"});
    for (std::size_t i = 0; i < Contenders().size(); ++i) {
        FarEnd& farEnd = FarEnds(tuning)[i];
        comparison.Add(Contenders()[i].name, [&farEnd, size] {
            const std::vector<double> times = farEnd.PingPong(size, smoke ? 20 : 1000);
            return std::vector<double>{Median(times), Quantile(times, 0.99)};
        });
    }
    comparison.Run(state);
}

void RegisterAll() {
    for (const Tuning tuning : tunings) {
        FarEnds(tuning).reserve(Contenders().size());
        for (const Contender& contender : Contenders()) {
            FarEnds(tuning).emplace_back(contender, tuning);
        }
    }
    for (const Tuning tuning : tunings) {
        for (FarEnd& farEnd : FarEnds(tuning)) {
            farEnd.Open();
        }
    }
    for (const int size : {16, 1 << 10, 1 << 16, largestBody}) {
        Register("one_way/" + std::to_string(size), 20,
                 [size](benchmark::State& state) { OneWay(state, size); });
    }
    for (const Tuning tuning : {Tuning::ThereAndBack, Tuning::ThereAndBackMarked}) {
        const std::string name =
            tuning == Tuning::ThereAndBack ? "there_and_back/" : "there_and_back_marked/";
        for (const int size : {16, 1 << 10}) {
            Register(name + std::to_string(size), 15, [tuning, size](benchmark::State& state) {
                ThereAndBack(state, tuning, size);
            });
        }
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::Main(argc, argv, &bench::RegisterAll); }
