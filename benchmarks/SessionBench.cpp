// A session between two processes, beside messaging libraries with their default settings and, for
// long messages, beside a loop over plain sockets: one way, there and back, asking, and doing
// nothing.
//
// Contenders take turns in random order, and each turn has two new processes. One line of JSON for
// each figure of each turn; scripts/session_bench.py makes the ratios.
#include <sys/resource.h>

#include <algorithm>
#include <ctime>
#include <optional>

#include "Meeting.h"
#ifdef BENCH_TLS
#include "Certificates.h"
#endif

namespace bench {
namespace {

struct Peer {
    const char* name;
    MakeTalker* make;
};

const std::vector<Peer> peers = {
#ifdef BENCH_ZEROMQ
    {"ZeroMQ", &MakeZeroMqTalker},
#endif
#ifdef BENCH_NNG
    {"nng", &MakeNngTalker},
#endif
};

void Print(const std::string& what, const std::string& who, double value) {
    std::printf("{\"what\": \"%s\", \"who\": \"%s\", \"value\": %.6g}\n", what.c_str(), who.c_str(),
                value);
    std::fflush(stdout);
}

void LeaveOut(const char* what, const char* why) {
    std::fprintf(stderr, "left out: %s: %s\n", what, why);
}

// One turn of everybody, several times over.
template <class Measure>
void TakeTurns(int turns, std::vector<Talk> talks, Measure measure) {
    static std::mt19937 random(20);
    for (int turn = 0; turn < Rounds(turns); ++turn) {
        std::shuffle(talks.begin(), talks.end(), random);
        for (const Talk& talk : talks) {
            measure(talk);
        }
    }
}

Talk SessionTalk(const std::string& who, const Manner& manner) {
    return {who, &MakeSessionTalker, manner};
}

void AddPeers(std::vector<Talk>& talks, const Manner& manner, int connections = 1) {
    for (const Peer& peer : peers) {
        talks.push_back({peer.name, peer.make, manner, connections});
    }
}

// One way -----------------------------------------------------------------------------------------

// Sends round its connections until the time is over, and then the last one on each.
void SendOnAndOn(Talker& talker, std::size_t connections, std::size_t lane) {
    const double end = Now() + (smoke ? 0 : 1e9);
    for (std::uint64_t number = 1;; ++number) {
        const bool isLast = number % 64 == 0 && Now() >= end;
        for (std::size_t i = 0; i < connections; ++i) {
            talker.Send(i, {lane + i, number | (isLast ? Meeting::kLast : 0)});
        }
        if (isLast) {
            return;
        }
    }
}

void SendOneWay(Process&, const Talk& talk, Talker& talker) {
    std::vector<std::thread> others;
    for (int i = 1; i < talk.threads; ++i) {
        others.emplace_back([&talker, i] { SendOnAndOn(talker, 1, static_cast<std::size_t>(i)); });
    }
    SendOnAndOn(talker, static_cast<std::size_t>(talk.connections), 0);
    for (std::thread& other : others) {
        other.join();
    }
}

// Messages a second, from the first one sent to the last one received.
double Rate(const Talk& talk, Meeting::Clients clients) {
    Meeting meeting(talk, clients);
    std::vector<Stamp> stamps;
    double count = 0;
    const double start = Now();
    meeting.Begin();
    for (int lanes = std::max(talk.connections, talk.threads); lanes > 0;) {
        stamps.clear();
        meeting.Server().Receive(stamps);
        for (const Stamp& stamp : stamps) {
            meeting.Check(stamp);
            lanes -= (stamp.number & Meeting::kLast) != 0 ? 1 : 0;
        }
        count += static_cast<double>(stamps.size());
    }
    return count / ((Now() - start) / 1e9);
}

void OneWay(const std::string& what, const std::vector<Talk>& talks) {
    TakeTurns(3, talks, [&](const Talk& talk) {
        Print(what, talk.who, Apart<double>([&] { return Rate(talk, &SendOneWay); }));
    });
}

void OneWayShort(int connections) {
    Manner manner;
    std::vector<Talk> talks;
    AddPeers(talks, manner, connections);
    talks.push_back(SessionTalk("session", manner));
    manner.together = true;
    talks.push_back(SessionTalk("session, together", manner));
    for (Talk& talk : talks) {
        talk.connections = connections;
    }
    if (connections == 1) {
        talks.push_back(SessionTalk("session, together, 16 threads", manner));
        talks.back().threads = 16;
    }
    OneWay("one way, 16 B, connections: " + std::to_string(connections), talks);
}

void OneWayOverWire() {
    const Wire wire;
    if (!wire.IsThere()) {
        LeaveOut("one way, MTU 1,500", "takes root, network namespaces and iproute2");
        return;
    }
    Manner manner;
    std::vector<Talk> talks;
    AddPeers(talks, manner);
    for (const bool wholeHeaders : {true, false}) {
        for (const bool together : {false, true}) {
            manner.wholeHeaders = wholeHeaders;
            manner.together = together;
            talks.push_back(SessionTalk(std::string("session") + (together ? ", together" : "") +
                                            (wholeHeaders ? "" : ", wholeHeaders off"),
                                        manner));
        }
    }
    for (Talk& talk : talks) {
        talk.wire = &wire;
    }
    OneWay("one way, 16 B, MTU 1,500", talks);
}

void OneWayLong(std::size_t size) {
    Manner manner;
    manner.size = size;
    std::vector<Talk> talks = {SessionTalk("session", manner)};
    AddPeers(talks, manner);
    if (size >= 65536) {
        talks.push_back({"by hand", &MakeHandTalker, manner});
    }
    OneWay("one way, " + std::to_string(size >> 10) + " KiB", talks);
}

// There and back ----------------------------------------------------------------------------------

struct RoundTrip {  // in microseconds
    double median;
    double high;  // 99 % are below
};

const int firstTrips = 500;  // do not count

int Trips() { return smoke ? firstTrips + 10 : firstTrips + 5000; }

void AskAgainAndAgain(Process& server, const Talk&, Talker& talker) {
    std::vector<double> times;
    std::vector<Stamp> stamps;
    for (int i = 1; i <= Trips(); ++i) {
        const double start = Now();
        talker.Send(0, {0, static_cast<std::uint64_t>(i)});
        stamps.clear();
        talker.Receive(stamps);
        Require(stamps[0].number == static_cast<std::uint64_t>(i), "the answer");
        if (i > firstTrips) {
            times.push_back((Now() - start) / 1e3);
        }
    }
    server.Tell(RoundTrip{Median(times), Quantile(times, 0.99)});
}

RoundTrip TimeThereAndBack(const Talk& talk) {
    Meeting meeting(talk, &AskAgainAndAgain);
    std::vector<Stamp> stamps;
    meeting.Begin();
    for (int i = 0; i < Trips(); ++i) {
        stamps.clear();
        meeting.Server().Receive(stamps);
        meeting.Check(stamps[0]);
        meeting.Server().Answer(stamps[0]);
    }
    return meeting.Far().Hear<RoundTrip>();
}

// As many descriptors as the system lets this process have.
bool RaiseDescriptors(rlim_t wanted) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= wanted;
}

void ThereAndBack() {
    Manner manner;
    manner.use = Use::kThereAndBack;
    std::vector<Talk> talks = {SessionTalk("session", manner)};
    AddPeers(talks, manner);
    for (const int idle : {1000, 5000}) {
        if (RaiseDescriptors(static_cast<rlim_t>(idle) + 100)) {
            talks.push_back(
                SessionTalk("session, idle connections: " + std::to_string(idle), manner));
            talks.back().connections = 1 + (smoke ? idle / 100 : idle);
        } else {
            LeaveOut("there and back beside idle connections", "too few descriptors");
        }
    }
    manner.waiting = smoke ? 16 : 256;
    talks.push_back(SessionTalk("session, 256 threads waiting", manner));
    TakeTurns(5, talks, [](const Talk& talk) {
        const auto time = Apart<RoundTrip>([&] { return TimeThereAndBack(talk); });
        Print("there and back, 16 B, median", talk.who, time.median);
        Print("there and back, 16 B, 99 %", talk.who, time.high);
    });
}

// Asking ------------------------------------------------------------------------------------------

void AskOnAndOn(Process&, const Talk& talk, Talker& talker) {
    std::vector<std::thread> askers;
    askers.reserve(static_cast<std::size_t>(talk.threads));
    for (int i = 0; i < talk.threads; ++i) {
        askers.emplace_back([&talker, i] { SendOnAndOn(talker, 1, static_cast<std::size_t>(i)); });
    }
    for (std::thread& asker : askers) {
        asker.join();
    }
}

void TimeQuestions(Process& server, const Talk&, Talker& talker) {
    std::vector<double> times;
    for (int i = 1; i <= Trips(); ++i) {
        const double start = Now();
        talker.Send(0, {0, static_cast<std::uint64_t>(i)});
        if (i > firstTrips) {
            times.push_back((Now() - start) / 1e3);
        }
    }
    server.Tell(Median(times));
}

double TimeOfQuestion(const Talk& talk) {
    Meeting meeting(talk, &TimeQuestions);
    std::vector<Stamp> stamps;
    meeting.Begin();
    for (int i = 0; i < Trips(); ++i) {
        meeting.Server().Receive(stamps);
    }
    return meeting.Far().Hear<double>();
}

// Askers of a session share a connection; of the others each has what it needs for itself.
void Asking() {
    Manner manner;
    manner.use = Use::kAsking;
    for (const int askers : {1, 64}) {
        std::vector<Talk> talks = {SessionTalk("session", manner)};
        AddPeers(talks, manner, askers);
        for (Talk& talk : talks) {
            talk.threads = askers;
        }
        TakeTurns(3, talks, [&](const Talk& talk) {
            const bool isOne = askers == 1;
            Print(isOne ? "asking, 16 B, median" : "asking, 16 B, 64 askers", talk.who,
                  Apart<double>(
                      [&] { return isOne ? TimeOfQuestion(talk) : Rate(talk, &AskOnAndOn); }));
        });
    }
}

// TLS ---------------------------------------------------------------------------------------------

#ifdef BENCH_TLS
void Tls() {
    const PemFolder folder;
    const Identity authority;
    const Identity peer(&authority, "IP:127.0.0.1");
    const KLVMsgTlsOptions options = folder.Peer("peer", {&peer}, authority);
    for (const std::size_t size : {sizeof(Stamp), std::size_t{64} << 10}) {
        Manner manner;
        manner.size = size;
        manner.tls = &options;
        std::vector<Talk> talks = {SessionTalk("session", manner),
                                   {"by hand", &MakeHandTlsTalker, manner}};
        manner.together = true;
        talks.push_back(SessionTalk("session, together", manner));
        manner.tls = nullptr;
        talks.push_back(SessionTalk("session, plain", manner));
        const bool isShort = size == sizeof(Stamp);
        OneWay(isShort ? "one way over TLS, 16 B" : "one way over TLS, 64 KiB", talks);
    }
    Manner manner;
    manner.use = Use::kThereAndBack;
    std::vector<Talk> talks = {SessionTalk("session, plain", manner)};
    manner.tls = &options;
    talks.push_back(SessionTalk("session", manner));
    TakeTurns(5, talks, [](const Talk& talk) {
        Print("there and back over TLS, 16 B, median", talk.who,
              Apart<RoundTrip>([&] { return TimeThereAndBack(talk); }).median);
    });
}
#else
void Tls() { LeaveOut("TLS", "OpenSSL was not there"); }
#endif

// Idle --------------------------------------------------------------------------------------------

double ProcessorTime() {
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// What a server with one connection uses, in percent.
double ShareOfCore(const Talk& talk) {
    Meeting meeting(talk, [](Process&, const Talk&, Talker&) {});
    std::this_thread::sleep_for(std::chrono::milliseconds(smoke ? 0 : 500));
    const double before = ProcessorTime();
    const double start = Now();
    std::this_thread::sleep_for(std::chrono::milliseconds(smoke ? 1 : 5000));
    return 100 * (ProcessorTime() - before) / (Now() - start);
}

void Idle() {
    std::vector<Talk> talks = {SessionTalk("session", {})};
    AddPeers(talks, {});
    TakeTurns(1, talks, [](const Talk& talk) {
        Print("idle", talk.who, Apart<double>([&] { return ShareOfCore(talk); }));
    });
}

void RunAll() {
    OneWayShort(1);
    OneWayShort(100);
    OneWayOverWire();
    for (const std::size_t kibibytes : {1U, 64U, 1024U}) {
        OneWayLong(kibibytes << 10);
    }
    ThereAndBack();
    Asking();
    Tls();
    Idle();
}

}  // namespace
}  // namespace bench

// With the name of a part, that alone.
int main(int argc, char** argv) {
    const std::string argument = argc > 1 ? argv[1] : "";
    bench::smoke = argument == "--smoke";
    argument == "asking" ? bench::Asking() : argument == "tls" ? bench::Tls() : bench::RunAll();
}
