// A gateway: who comes from another network is not admitted; who does not know the word, or sends
// orders without having said it, is thrown out; customers are served meanwhile.
#include <KLVMsgNetwork.h>
#include <poll.h>

#include "Talk.h"

using namespace std::chrono_literals;

static const char usage[] =
    R"(usage: gateway [--timeout SECONDS] [serve NETWORK | login PORT WORD | flood PORT]
A gateway, a customer, one with a wrong word and one who floods; or one of them. It tells its port
on 127.0.0.1, admits whom the NETWORK contains, and ends when it has had three orders and thrown two
peers out. Exits with 0 then, or when a peer was served; 1 when it was not, or when nothing happens
for SECONDS (20; 0: for ever); 2 after a wrong command.
)";

struct Login : Text {  // the word
    explicit Login(const std::string& word = "") : Text(word) {}
    KLVMsgSocketMessage* NewInstance() override { return new Login; }
    KLVString GetMessageType() const override { return "Login"; }
};
struct Welcome : Text {  // says that orders may come
    explicit Welcome(const std::string& name = "") : Text(name) {}
    KLVMsgSocketMessage* NewInstance() override { return new Welcome; }
    KLVString GetMessageType() const override { return "Welcome"; }
};
struct Order : Text {
    explicit Order(const std::string& what = "") : Text(what) {}
    KLVMsgSocketMessage* NewInstance() override { return new Order; }
    KLVString GetMessageType() const override { return "Order"; }
};

static int Serve(const std::string& from, int portPipe) {
    KLVMsgSessionOptions options = Talk::Options();
    options.inboxLimit = 65536;  // of one who floods no more is read
    Talk talk(options, Login(), Order());
    const KLVMsgNetwork ours(from);
    talk.ServeAndTell("serving on", portPipe, 0,
                      [&](const KLVMsgPeerInfo& info) { return ours.Contains(info); });
    int orders = 0, thrown = 0;
    for (pollfd any = {talk.Descriptor(), POLLIN, 0}; orders < 3 || thrown < 2;) {
        if (poll(&any, 1, TimeLimit::seconds == 0 ? -1 : 1000 * TimeLimit::seconds) == 0) {
            throw std::runtime_error("gave up: nobody comes");
        }
        while (const auto login = talk.Receive<Login>(0s)) {
            if (login->text == "sesame") {
                talk.SetLabel(login.peer, "customer");
                talk.Post(login.peer, Welcome());
            } else {
                talk.Disconnect(login.peer);
            }
        }
        while (const auto order = talk.Receive<Order>(0s)) {
            if (talk.Info(order.peer).Label() == "customer") {
                std::printf("order %d: %s\n", ++orders, Printable(order->text).c_str());
            } else {
                talk.Disconnect(order.peer);
            }
        }
        for (KLVMsgEvent event; (event = talk.NextEvent(0s));) {
            thrown += event.cause == KLVMsgEvent::kShutDownHere ? 1 : 0;
            std::printf("%s\n", event.what.c_str());
        }
        std::fflush(stdout);
    }
    return 0;
}

static int LogIn(int port, const std::string& word) {
    Talk talk{Welcome()};
    talk.ConnectAndStart(port, "gateway");
    talk.Post("gateway", Login(word));
    Check(talk.Receive<Welcome>(Limit()), "gave up: no answer", "the gateway has closed");
    for (const char* what : {"a nail", "a screw", "a bolt"}) {
        Check(talk.Send("gateway", Order(what), Limit()));
    }
    return 0;
}

static int Flood(int port) {
    Talk talk;
    talk.ConnectAndStart(port, "gateway");
    for (const Order order(std::string(1000, 'x'));;) {
        Check(talk.Send("gateway", order, Limit()), "gave up", "the gateway has closed");
    }
}

// The processes part before there is a session: its thread and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port =
        children.StartServer("gateway", [](int pipe) { return Serve("127.0.0.0/8", pipe); });
    const auto isThrownOut = [](const auto& peer) { return RunRole("gateway", peer) == 1 ? 0 : 1; };
    if (port != 0) {
        children.Start("one who floods", [=] { return isThrownOut([=] { return Flood(port); }); });
        children.Start("a stranger", [=] { return isThrownOut([=] { return LogIn(port, "?"); }); });
        children.Start("a customer", [=] { return LogIn(port, "sesame"); });
    }
    return children.Await() ? 0 : 1;
}

int main(int argc, char** argv) {
    const CommandLine line("gateway", usage, argc, argv);
    const auto port = [&] { return line.Number(line.Word(1), 1, 65535); };
    return RunRole("gateway", [&] {
        return line.Calls("", 0)        ? RunAll()
               : line.Calls("serve", 1) ? Serve(line.Word(1), -1)
               : line.Calls("login", 2) ? LogIn(port(), line.Word(2))
               : line.Calls("flood", 1) ? Flood(port())
                                        : (line.Refuse("no such role"), 2);
    });
}
