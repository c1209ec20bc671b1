// A gateway that admits one network, and throws out who sends orders without having said the word.
#include <KLVMsgNetwork.h>

#include "Roles.h"
#include "Talk.h"

static const char usage[] = R"(usage: gateway [--timeout SECONDS] [serve | visit PORT WORD]
A gateway, a customer ("sesame"), one with a wrong word, one who sends orders without ("flood"); or
one of them. The gateway admits 127.0.0.0/16, and ends when it has had three orders and thrown two
peers out. Exits with 1 when nothing happens for SECONDS (20; 0: for ever), 2 if called wrongly.
)";

struct Login : Text {  // the word
    explicit Login(const std::string& word = "") : Text(word) {}
    KLVMsgSocketMessage* NewInstance() override { return new Login; }
    KLVString GetMessageType() const override { return "Login"; }
};
struct Welcome : Text {  // says that orders may come
    Welcome() : Text("") {}
    KLVMsgSocketMessage* NewInstance() override { return new Welcome; }
    KLVString GetMessageType() const override { return "Welcome"; }
};
struct Order : Text {
    explicit Order(const std::string& what = "") : Text(what) {}
    KLVMsgSocketMessage* NewInstance() override { return new Order; }
    KLVString GetMessageType() const override { return "Order"; }
};

static int Serve(int portPipe) {
    KLVMsgSessionOptions options = Talk::Options();
    options.inboxLimit = 65536;  // of one who floods no more is read
    Talk talk(options, Login(), Order());
    int orders = 0, thrown = 0;
    talk.Handle<Login>([&](const KLVMsgReceived<Login>& login) {
        const bool isRight = login->text == "sesame" && talk.SetLabel(login.peer, "customer");
        isRight ? talk.Post(login.peer, Welcome()) : talk.Disconnect(login.peer);
    });
    talk.Handle<Order>([&](const KLVMsgReceived<Order>& order) {
        if (talk.Info(order.peer).Label() == "customer") {
            std::printf("order %d: %s\n", ++orders, Printable(order->text).c_str());
        } else {
            talk.Disconnect(order.peer);
        }
    });
    talk.HandleEvents([&](const KLVMsgEvent& event) {
        thrown += event.cause == KLVMsgEvent::kShutDownHere;
        std::printf("%s\n", Printable(event.what).c_str());
    });
    const KLVMsgNetwork ours("127.0.0.0/16");
    talk.ServeAndTell("serving on", portPipe, 0, [&](auto& info) { return ours.Contains(info); });
    while (orders < 3 || thrown < 2) {
        Check(talk.Dispatch(Limit()), "gave up: nobody comes");
        std::fflush(stdout);
    }
    return 0;
}

static int Visit(int port, const std::string& word) {
    Talk talk{Welcome()};
    talk.ConnectAndStart(port, "gateway");
    KLVMsgOutcome done = word == "flood" ? KLVMsgOutcome() : talk.Post("gateway", Login(word));
    while (done && word == "flood") {
        done = talk.Send("gateway", Order(std::string(1000, 'x')), Limit());
    }
    done = done ? talk.Receive<Welcome>(Limit()) : done;
    if (word != "sesame") {
        return done.status == KLVMsgOutcome::kPeerGone ? 0 : 1;
    }
    Check(done, "gave up: no answer", "the gateway has closed");
    for (const char* what : {"a nail", "a screw", "a bolt"}) {
        Check(talk.Send("gateway", Order(what), Limit()));
    }
    return 0;
}

int main(int argc, char** argv) {
    return RunRoles("gateway", usage, argc, argv,
                    {"serve", Serve, "visit", Visit, {"flood", "a wrong word", "sesame"}});
}
