// A service that is asked for prices, and clients that ask again when no answer comes in time.
#include "Roles.h"
#include "Talk.h"

static const char usage[] = R"(usage: service [--timeout SECONDS]
       service [--timeout SECONDS] serve
       service [--timeout SECONDS] ask PORT ARTICLE

The first form runs a service and a client as processes of their own. The service tells its port
on 127.0.0.1, leaves the first question that it is asked, and ends when those who have asked have
left; a client asks for the price of an article, up to three times.

  --timeout SECONDS   give up when a peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when every question was answered in the end; with 1 when not, or when something fails;
with 2 after a wrong command line.
)";

struct Price : CallText {
    explicit Price(const std::string& article = "") : CallText(article) {}
    KLVMsgSocketMessage* NewInstance() override { return new Price; }
    KLVString GetMessageType() const override { return "Price"; }
};

struct Offer : CallText {
    explicit Offer(const std::string& words = "") : CallText(words) {}
    KLVMsgSocketMessage* NewInstance() override { return new Offer; }
    KLVString GetMessageType() const override { return "Offer"; }
};

// Tells its port to the reader of the pipe, if there is one.
static int Serve(int portPipe) {
    Talk talk{Price()};
    bool isFirst = true;
    talk.Handle<Price>([&](const KLVMsgReceived<Price>& asked) {
        if (!std::exchange(isFirst, false)) {
            talk.Answer(asked, Offer(std::to_string(asked->text.size()) + " cents"));
        }
    });
    const int port = talk.ServeAndTell("serving on", portPipe);
    KLVMsgOutcome served = talk.Dispatch(Limit());
    talk.StopServing(port);  // once they have left there is nobody to wait for
    while (served) {
        served = talk.Dispatch(Limit());
    }
    Check(served.status == KLVMsgOutcome::kPeerGone ? KLVMsgOutcome() : served,
          "gave up: no question");
    return 0;
}

// A question that was not answered in time may have come all the same: what is asked for again may
// be done twice, so that it is to make no difference.
static int Ask(int port, const std::string& article) {
    Talk talk{Offer()};
    talk.ConnectAndStart(port, "service");
    KLVMsgReceived<Offer> offer;
    for (int times = 0; times < 3; ++times) {
        offer = talk.Ask<Offer>("service", Price(article), std::chrono::milliseconds(500));
        if (offer.status != KLVMsgOutcome::kTooLate) {
            break;
        }
        std::printf("no answer in time\n");
    }
    Check(offer, "gave up: no answer from the service", "lost the service");
    std::printf("%s: %s\n", Printable(article).c_str(), Printable(offer->text).c_str());
    return 0;
}

int main(int argc, char** argv) {
    return RunRoles("service", usage, argc, argv, {"serve", Serve, "ask", Ask, {"bolt"}});
}
