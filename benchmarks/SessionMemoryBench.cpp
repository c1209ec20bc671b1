// What a session keeps in memory: by itself, and for each connection on which nothing happens any
// more.
//
// Resident memory of a process before and after, in bytes; the system's own, for its sockets, is
// not in it. One line of JSON for each figure, as benchsession has them.
#include <KLVMsgSession.h>

#include <algorithm>
#include <fstream>

#include "Process.h"

namespace bench {
namespace {

class Message : public KLVMsgFramedMessage {
public:
    bool Encode(std::string& bytes) const override {
        bytes.assign(16, 'x');
        return true;
    }
    bool Decode(std::string_view bytes) override { return bytes.size() == 16; }
    KLVMsgSocketMessage* NewInstance() override { return new Message; }
    KLVString GetMessageType() const override { return "BenchMessage"; }
};

constexpr std::chrono::seconds kLimit{60};

int Connections() { return smoke ? 10 : 1000; }

double Resident() {
    std::ifstream file("/proc/self/smaps_rollup");
    double kibibytes = 0;
    for (std::string line; std::getline(file, line);) {
        if (std::sscanf(line.c_str(), "Rss: %lf kB", &kibibytes) == 1) {
            return kibibytes * 1024;
        }
    }
    Require(false, "resident memory");
    return 0;
}

// Both ends of each connection have sent a message and received one.
void ConnectAndGreet(KLVMsgSession& session, int port, int count) {
    for (int i = 0; i < count; ++i) {
        Require(session.Connect({"127.0.0.1", port}, "server") &&
                    session.Post(session.Peers("server").back(), Message()) &&
                    session.Receive<Message>(kLimit),
                "greeting");
    }
}

void AnswerGreetings(KLVMsgSession& session, int count) {
    for (int i = 0; i < count; ++i) {
        const auto greeting = session.Receive<Message>(kLimit);
        Require(greeting && session.Post(greeting.peer, Message()), "answering");
    }
}

struct Sizes {
    double session;
    double connection;
};

// Connects to this process's server first once and then as often as is measured.
[[noreturn]] void BeClients(Process& server) {
    KLVMsgSession session;
    Require(session.Register(Message()) && session.Start(), "the clients' session");
    const int port = server.Hear<int>();
    ConnectAndGreet(session, port, 1);
    const double before = Resident();
    server.Hear<char>();
    ConnectAndGreet(session, port, Connections());
    server.Tell((Resident() - before) / Connections());
    for (;;) {
        pause();
    }
}

void Measure(Process& main) {
    Process clients(&BeClients);
    Resident();  // the first time it brings the code that asks
    const double atFirst = Resident();
    KLVMsgSession session;
    int port = 0;
    Require(
        session.Register(Message()) && session.Serve({"127.0.0.1", 0}, &port) && session.Start(),
        "the server's session");
    clients.Tell(port);
    AnswerGreetings(session, 1);
    const double before = Resident();
    clients.Tell(char{0});
    AnswerGreetings(session, Connections());
    const double ofServer = (Resident() - before) / Connections();
    main.Tell(Sizes{before - atFirst, std::max(ofServer, clients.Hear<double>())});
    pause();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    bench::smoke = argc > 1 && std::string(argv[1]) == "--smoke";
    bench::Process measured(&bench::Measure);
    const auto sizes = measured.Hear<bench::Sizes>();
    for (const auto& [what, value] :
         {std::pair("memory of a session", sizes.session),
          std::pair("memory of an idle connection", sizes.connection)}) {
        std::printf("{\"what\": \"%s\", \"who\": \"session\", \"value\": %.6g}\n", what, value);
    }
}
