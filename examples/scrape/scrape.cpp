// A service whose counts Prometheus scrapes over HTTP, and which logs what happens to its
// connections.
#include <httplib.h>

#include <KLVMsgMetrics.h>

#include <thread>

#include "Roles.h"
#include "Talk.h"

static const char usage[] = R"(usage: scrape [--timeout SECONDS]
       scrape [--timeout SECONDS] serve
       scrape [--timeout SECONDS] ask PORT TEXT

The first form runs a service and a client. The service tells its port on 127.0.0.1 and that of
http://127.0.0.1:PORT/metrics, answers whoever asks with the same text, and ends when those who have
asked have left. A client asks for the text once.

  --timeout SECONDS   give up when a peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when the question was answered; with 1 when not, or when something fails; with 2 after
a wrong command line.
)";

struct Echo : CallText {
    explicit Echo(const std::string& words = "") : CallText(words) {}
    KLVMsgSocketMessage* NewInstance() override { return new Echo; }
    KLVString GetMessageType() const override { return "Echo"; }
};

static int Serve(int portPipe) {
    Talk talk{Echo()};
    // Called by the loop, which waits for it: a log that may hang gets a thread of its own.
    Check(talk.Observe([](const KLVMsgEvent& event) {
        std::fprintf(stderr, "scrape: %s\n", Printable(event.what).c_str());
    }));
    Check(talk.Handle<Echo>(
        [&](const KLVMsgReceived<Echo>& asked) { talk.Answer(asked, Echo(asked->text)); }));
    httplib::Server web;
    web.Get("/metrics", [&](const httplib::Request&, httplib::Response& response) {
        response.set_content(KLVMsgMetricsText(talk, "the \"echo\""), "text/plain; version=0.0.4");
    });
    const int port = talk.ServeAndTell("serving on", portPipe);
    std::printf("metrics on 127.0.0.1, port %d\n", web.bind_to_any_port("127.0.0.1"));
    std::fflush(stdout);
    std::thread serving([&] { web.listen_after_bind(); });
    KLVMsgOutcome served = talk.Dispatch(Limit());
    talk.StopServing(port);  // once they have left there is nobody to wait for
    while (served) {
        served = talk.Dispatch(Limit());
    }
    web.stop();
    serving.join();
    return served.status == KLVMsgOutcome::kPeerGone ? 0 : 1;
}

static int Ask(int port, const std::string& text) {
    Talk talk{Echo()};
    talk.ConnectAndStart(port, "service");
    const auto answer = talk.Ask<Echo>("service", Echo(text), Limit());
    Check(answer, "gave up: no answer from the service", "lost the service");
    return answer->text == text ? 0 : 1;
}

int main(int argc, char** argv) {
    return RunRoles("scrape", usage, argc, argv, {"serve", Serve, "ask", Ask, {"hello"}});
}
