// Bodies that cereal serializes: a station's process sends its measurements, a class with
// containers in it, and a process that collects them answers with a table of means.
#include <KLVMsgCerealMessage.h>

#include <cereal/types/map.hpp>
#include <cereal/types/string.hpp>
#include <cereal/types/vector.hpp>
#include <numeric>

#include "Talk.h"

static const char usage[] = R"(usage: cereal [--timeout SECONDS]
       cereal [--timeout SECONDS] collect
       cereal [--timeout SECONDS] measure PORT

The first form runs a collector and a station as processes of their own. The other two are for two
terminals: the collector tells its port on 127.0.0.1 and serves one station, which prints the means.

  --timeout SECONDS   give up when the peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when the means have come; with 1 when not, or when something fails; with 2 after a
wrong command line.
)";

struct Measurements {
    std::string station;
    std::map<std::string, std::vector<double>> samples;  // by quantity

    template <class Archive>
    void serialize(Archive& archive) {
        archive(station, samples);
    }
};

using Means = std::map<std::string, double>;
using MeasurementsMessage = KLVMsgCerealMessage<Measurements>;
using MeansMessage = KLVMsgCerealMessage<Means>;

static Means MeansOf(const Measurements& measured) {
    Means means;
    for (const auto& [quantity, samples] : measured.samples) {
        if (!samples.empty()) {
            means[quantity] = std::accumulate(samples.begin(), samples.end(), 0.0) /
                              static_cast<double>(samples.size());
        }
    }
    return means;
}

// Tells its port to the reader of the pipe, if there is one.
static int Collect(int portPipe) {
    Talk talk{MeasurementsMessage("Measurements")};
    talk.ServeAndTell("collecting on", portPipe);
    const auto measured = talk.Receive<MeasurementsMessage>(Limit());
    Check(measured, "gave up: no measurements have come");
    std::printf("measured by %s\n", Printable(measured->content.station).c_str());
    Check(talk.Send(measured.peer, MeansMessage("Means", MeansOf(measured->content)), Limit()),
          "gave up", "lost the station");
    return 0;
}

static int Measure(int port) {
    Talk talk{MeansMessage("Means")};
    talk.ConnectAndStart(port, "collector");
    const Measurements measured = {
        "the roof", {{"temperature", {19.5, 20.0, 21.0, 21.5}}, {"humidity", {0.5, 0.25}}}};
    Check(talk.Send("collector", MeasurementsMessage("Measurements", measured), Limit()), "gave up",
          "lost the collector");
    const auto means = talk.Receive<MeansMessage>(Limit());
    Check(means, "gave up: no means have come", "lost the collector");
    for (const auto& [quantity, mean] : means->content) {
        std::printf("%s: %g\n", Printable(quantity).c_str(), mean);
    }
    return 0;
}

static int RunBoth() {
    Children children;
    const int port = children.StartServer("cereal collector", Collect);
    if (port != 0) {
        children.Start("cereal station", [port] { return Measure(port); });
    }
    return children.Await() && port != 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    const CommandLine line("cereal", usage, argc, argv);
    return RunRole("cereal", [&line] {
        if (line.Calls("", 0)) {
            return RunBoth();
        }
        if (line.Calls("collect", 0)) {
            return Collect(-1);
        }
        if (line.Calls("measure", 1)) {
            return Measure(line.Number(line.Word(1), 1, 65535));
        }
        line.Refuse("no such role");
    });
}
