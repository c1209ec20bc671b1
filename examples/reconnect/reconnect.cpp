// A session whose peer is replaced while it works: a watcher asks a thermometer for readings; the
// thermometer ends after a few, and another one takes its place.
#include "Talk.h"

static const char usage[] =
    R"(usage: reconnect [--timeout SECONDS] [measure PORT | watch PORT]
Two thermometers, one after the other on the same port, and a watcher; or one of them. A thermometer
gives three readings on 127.0.0.1 and ends; the watcher waits for thermometers until it has had six.
Exits with 0 when all have come; 1 when a peer is silent for SECONDS (20); 2 if called wrongly.
)";

// The question has the number of the reading that is wanted, the answer the temperature.
struct Reading : CallText {
    explicit Reading(const std::string& words = "") : CallText(words) {}
    KLVMsgSocketMessage* NewInstance() override { return new Reading; }
    KLVString GetMessageType() const override { return "Reading"; }
};

// The port may still be that of the one before it. Who reads the pipe, if there is one, is told.
static int Measure(int port, int portPipe) {
    Talk talk{Reading()};
    KLVMsgOutcome served = talk.Serve({"127.0.0.1", port}, &port);
    for (int tries = 10 * TimeLimit::seconds; served.error == EADDRINUSE && tries > 0; --tries) {
        usleep(100000);
        served = talk.Serve({"127.0.0.1", port});
    }
    Check(served ? talk.Start() : served);
    if (portPipe != -1 && write(portPipe, &port, sizeof port) != sizeof port) {
        throw std::runtime_error("nobody asks for the port");
    }
    for (int given = 0; given < 3; ++given) {
        const auto asked = talk.Receive<Reading>(Limit());
        Check(asked);
        Check(talk.Answer(asked, Reading("20." + asked->text)));
    }
    std::printf("a thermometer ends\n");
    return 0;  // the session ends, and what it has sent arrives
}

// A question may be lost with the thermometer, and fails at once while there is none.
static int Watch(int port) {
    Talk talk{Reading()};
    Check(talk.Keep({"127.0.0.1", port}, "thermometer"));
    Check(talk.Start());
    for (int number = 1; number <= 6;) {
        Check(talk.WaitUntilThere("thermometer", Limit()), "gave up: no thermometer comes");
        const Reading wanted(std::to_string(number));
        const auto reading = talk.Ask<Reading>("thermometer", wanted, std::chrono::seconds(1));
        if (reading) {
            std::printf("reading %d: %s degrees\n", number++, Printable(reading->text).c_str());
        } else {
            std::printf("asking again, as %s\n", reading.KLVMsgOutcome::text.c_str());
        }
    }
    return 0;
}

// The processes part before there is a session: its thread and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port =
        children.StartServer("a thermometer", [](int pipe) { return Measure(0, pipe); });
    if (port != 0) {
        children.Start("watcher", [port] { return Watch(port); });
        children.Start("the next thermometer", [port] { return Measure(port, -1); });
    }
    return children.Await() && port != 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    const CommandLine line("reconnect", usage, argc, argv);
    const auto port = [&] { return line.Number(line.Word(1), 0, 65535); };
    return RunRole("reconnect", [&] {
        return line.Calls("", 0)          ? RunAll()
               : line.Calls("measure", 1) ? Measure(port(), -1)
               : line.Calls("watch", 1)   ? Watch(port())
                                          : (line.Refuse("no such role"), 2);
    });
}
