// A gateway and those who talk to it, protected by TLS: each has a certificate of one authority.
// The gateway logs who comes, goes or is turned away, and answers what it is asked. Certificates
// for a try are made by certificates.sh.
#include <KLVMsgTls.h>

#include "Talk.h"

static const char usage[] = R"(usage: secure [--timeout SECONDS] gateway FOLDER NAME PORT
       secure [--timeout SECONDS] ask FOLDER NAME HOST PORT TEXT
The folder has the files NAME.pem and NAME.key, and authority.pem, to which the certificate of every
peer must lead. The gateway tells its port on 127.0.0.1 (with port 0 the system chooses it), prints
what happens, answers each text, and ends when nothing has happened for SECONDS (20; 0: never). Who
asks prints the gateway's names and its answer. Exits with 1 when something fails.
)";

struct Question : Text {
    explicit Question(const std::string& value = "") : Text(value) {}
    KLVMsgSocketMessage* NewInstance() override { return new Question; }
    KLVString GetMessageType() const override { return "Question"; }
};

struct Answer : Text {
    explicit Answer(const std::string& value = "") : Text(value) {}
    KLVMsgSocketMessage* NewInstance() override { return new Answer; }
    KLVString GetMessageType() const override { return "Answer"; }
};

static KLVMsgTls Certificates(const std::string& folder, const std::string& name) {
    const std::string own = folder + "/" + name;
    return KLVMsgTls({own + ".pem", own + ".key", folder + "/authority.pem"});
}

static int Gateway(const KLVMsgTls& certificates, int port) {
    Talk talk{Question()};
    talk.Handle<Question>([&](const KLVMsgReceived<Question>& asked) {
        talk.Post(asked.peer, Answer("I have heard: " + asked->text));
    });
    talk.HandleEvents([](const KLVMsgEvent& event) {  // what a log shows
        std::printf("%s\n", Printable(event.what).c_str());
        std::fflush(stdout);
    });
    Check(talk.Serve({"127.0.0.1", port}, &port, certificates));
    Check(talk.Start());
    std::printf("serving on 127.0.0.1, port %d\n", port);
    std::fflush(stdout);
    while (talk.Dispatch(Limit())) {
    }
    return 0;
}

static int Ask(const KLVMsgTls& certificates, const KLVMsgSocketAddress& gateway,
               const std::string& text) {
    Talk talk{Answer()};
    Check(talk.Connect(gateway, "gateway", Limit(), certificates));
    Check(talk.Start());
    std::printf("%s\n", Printable(talk.NextEvent(Limit()).what).c_str());
    Check(talk.Send("gateway", Question(text), Limit()));
    const auto answer = talk.Receive<Answer>(Limit());
    Check(answer, "gave up: no answer from the gateway", "lost the gateway");
    std::printf("%s\n", Printable(answer->text).c_str());
    talk.Disconnect("gateway");
    return 0;
}

int main(int argc, char** argv) {
    const CommandLine line("secure", usage, argc, argv);
    return RunRole("secure", [&line] {
        if (line.Calls("gateway", 3)) {
            return Gateway(Certificates(line.Word(1), line.Word(2)),
                           line.Number(line.Word(3), 0, 65535));
        }
        if (line.Calls("ask", 5)) {
            const int port = line.Number(line.Word(4), 1, 65535);
            return Ask(Certificates(line.Word(1), line.Word(2)), {line.Word(3).c_str(), port},
                       line.Word(5));
        }
        line.Refuse("no such role");
    });
}
