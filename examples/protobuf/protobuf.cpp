// Bodies of Protocol Buffers: a buyer's process sends an order, a shop's process answers with the
// invoice. Neither writes or reads a byte by hand.
#include <KLVMsgProtobufMessage.h>

#include "Talk.h"
#include "order.pb.h"

static const char usage[] = R"(usage: protobuf [--timeout SECONDS]
       protobuf [--timeout SECONDS] shop
       protobuf [--timeout SECONDS] buy PORT

The first form runs a shop and a buyer as processes of their own. The other two are for two
terminals: the shop tells its port on 127.0.0.1 and serves one buyer, who prints the invoice.

  --timeout SECONDS   give up when the peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when the invoice has come; with 1 when not, or when something fails; with 2 after a
wrong command line.
)";

using Order = KLVMsgProtobufMessage<shop::Order>;
using Invoice = KLVMsgProtobufMessage<shop::Invoice>;

static shop::Invoice Priced(const shop::Order& order) {
    shop::Invoice invoice;
    for (const shop::Order::Item& item : order.items()) {
        const std::uint64_t cents = 5 * item.name().size() * item.count();
        invoice.add_lines(std::to_string(item.count()) + " x " + item.name() + ": " +
                          std::to_string(cents) + " cents");
        invoice.set_cents(invoice.cents() + cents);
    }
    return invoice;
}

// Tells its port to the reader of the pipe, if there is one.
static int Shop(int portPipe) {
    Talk talk{Order()};
    talk.ServeAndTell("the shop is open on", portPipe);
    const auto order = talk.Receive<Order>(Limit());
    Check(order, "gave up: no order has come");
    Check(talk.Send(order.peer, Invoice(Priced(order->content)), Limit()), "gave up",
          "lost the buyer");
    return 0;
}

static int Buy(int port) {
    Talk talk{Invoice()};
    talk.ConnectAndStart(port, "shop");
    Order order;
    for (const auto& [name, count] : {std::pair("bolt", 100), std::pair("washer", 200)}) {
        shop::Order::Item* const item = order.content.add_items();
        item->set_name(name);
        item->set_count(static_cast<std::uint32_t>(count));
    }
    Check(talk.Send("shop", order, Limit()), "gave up", "lost the shop");
    const auto invoice = talk.Receive<Invoice>(Limit());
    Check(invoice, "gave up: no invoice has come", "lost the shop");
    for (const std::string& line : invoice->content.lines()) {
        std::printf("%s\n", Printable(line).c_str());
    }
    std::printf("to pay: %llu cents\n", static_cast<unsigned long long>(invoice->content.cents()));
    return 0;
}

static int RunBoth() {
    Children children;
    const int port = children.StartServer("protobuf shop", Shop);
    if (port != 0) {
        children.Start("protobuf buyer", [port] { return Buy(port); });
    }
    return children.Await() && port != 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    const CommandLine line("protobuf", usage, argc, argv);
    return RunRole("protobuf", [&line] {
        if (line.Calls("", 0)) {
            return RunBoth();
        }
        if (line.Calls("shop", 0)) {
            return Shop(-1);
        }
        if (line.Calls("buy", 1)) {
            return Buy(line.Number(line.Word(1), 1, 65535));
        }
        line.Refuse("no such role");
    });
}
