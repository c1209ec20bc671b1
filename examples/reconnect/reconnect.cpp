// A session whose peer is replaced while it works: a watcher asks a thermometer for readings; the
// thermometer ends after a few, and another one takes its place.
#include <KLVBasUtlsleep.h>

#include "Talk.h"

static const char usage[] = R"(usage: reconnect [--timeout SECONDS]
       reconnect [--timeout SECONDS] measure PORT
       reconnect [--timeout SECONDS] watch PORT

The first form runs two thermometers, one after the other on the same port, and a watcher, as
processes of their own. The other two are for terminals: a thermometer gives three readings on
127.0.0.1 and ends; the watcher waits for thermometers until it has had six.

  --timeout SECONDS   give up when a peer has been silent for so long (20)
  --help, --version

Exits with 0 when all readings have come, each once and in order; with 1 when not, or when something
fails; with 2 after a wrong command line.
)";

static const int readingsOfOne = 3;
static const int readingsOfAll = 6;

// The watcher asks with the number of the reading that it wants, and gets it back with a
// temperature.
class Reading : public KLVMsgFramedMessage {
public:
    explicit Reading(int wanted = 0, double measured = 0) : number(wanted), celsius(measured) {}

    bool Encode(std::string& bytes) const override {
        bytes = std::to_string(number) + " " + std::to_string(celsius);
        return true;
    }
    bool Decode(std::string_view bytes) override {
        return std::sscanf(std::string(bytes).c_str(), "%d %lf", &number, &celsius) == 2;
    }
    KLVMsgSocketMessage* NewInstance() override { return new Reading; }
    KLVString GetMessageType() const override { return "Reading"; }

    int number;
    double celsius;
};

// Tells its port to the reader of the pipe, if there is one. The port may still be that of the one
// before it.
static int Measure(int port, int portPipe) {
    Talk session{Reading()};
    KLVMsgOutcome served = session.Serve(KLVMsgSocketAddress("127.0.0.1", port), &port);
    for (int tries = 10 * TimeLimit::seconds; served.error == EADDRINUSE && tries > 0; --tries) {
        KLVBasUtlsleep(100);
        served = session.Serve(KLVMsgSocketAddress("127.0.0.1", port), &port);
    }
    Check(served);
    Check(session.Start());
    if (portPipe != -1 && write(portPipe, &port, sizeof port) != sizeof port) {
        throw std::runtime_error("nobody asks for the port");
    }
    for (int given = 0; given < readingsOfOne; ++given) {
        const auto asked = session.Receive<Reading>(Limit());
        Check(asked);
        Check(session.Send(asked.peer, Reading(asked->number, 20 + asked->number / 10.0), Limit()));
    }
    std::printf("a thermometer ends\n");
    return 0;  // the session ends, and what it has sent arrives
}

// A question, or its answer, may be lost with the thermometer: it is asked again until it is
// answered. What was answered twice is passed over.
static int Watch(int port) {
    Talk session{Reading()};
    Check(session.Keep({"127.0.0.1", port}, "thermometer"));
    Check(session.Start());
    for (int number = 1; number <= readingsOfAll;) {
        Check(session.Send("thermometer", Reading(number), Limit()), "no thermometer comes");
        const auto answer = session.Receive<Reading>(std::chrono::milliseconds(500));
        if (!answer) {
            std::printf("asking again\n");
        } else if (answer->number == number) {
            std::printf("reading %d: %.1f degrees\n", number++, answer->celsius);
        }
    }
    return 0;
}

// The processes part before there is a session: its thread and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port =
        children.StartServer("first thermometer", [](int pipe) { return Measure(0, pipe); });
    if (port != 0) {
        children.Start("watcher", [port] { return Watch(port); });
        children.Start("second thermometer", [port] { return Measure(port, -1); });
    }
    return children.Await() && port != 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    const CommandLine line("reconnect", usage, argc, argv);
    return RunRole("reconnect", [&line] {
        if (line.Calls("", 0)) {
            return RunAll();
        }
        if (line.Calls("measure", 1)) {
            return Measure(line.Number(line.Word(1), 0, 65535), -1);
        }
        if (line.Calls("watch", 1)) {
            return Watch(line.Number(line.Word(1), 1, 65535));
        }
        line.Refuse("no such role");
    });
}
