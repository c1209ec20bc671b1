// A publisher that waits for no subscriber, is told of the one that does not keep up, and drops it
// by its own choice. The other subscriber misses nothing.
#include "Roles.h"
#include "Talk.h"

static const char usage[] = R"(usage: slow [--timeout SECONDS]
       slow [--timeout SECONDS] publish
       slow [--timeout SECONDS] read PORT brisk|slow

The first form runs all. The publisher tells its port on 127.0.0.1, and sends two subscribers items
of 64 KiB until it has dropped one who takes nothing for half a second, as the slow one does.

  --timeout SECONDS   give up when a peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when the brisk one has had every item; with 1 when not; with 2 if called wrongly.
)";

static const std::size_t itemSize = 65536;
static const char last[] = "that was all";

// A number and dots up to the item's size, or the last words; from a subscriber, its name.
struct Item : Text {
    explicit Item(const std::string& words = "") : Text(words) {}
    explicit Item(int number) : Text(std::to_string(number)) { text.resize(itemSize, '.'); }
    KLVMsgSocketMessage* NewInstance() override { return new Item; }
    KLVString GetMessageType() const override { return "Item"; }
};

static int Publish(int portPipe) {
    KLVMsgSessionOptions options;
    options.queueLimit = 16 * itemSize;  // what one subscriber may be behind
    options.stall = std::chrono::milliseconds(500);
    Talk talk(options, Item());
    talk.ServeAndTell("publishing on", portPipe);
    for (int count = 0; count < 2; ++count) {
        const auto name = talk.Receive<Item>(Limit());
        Check(name, "gave up: not all subscribers have come");
        talk.SetLabel(name.peer, name->text);
    }
    const auto all = KLVMsgPeers::All();
    int number = 0;
    while (talk.Peers(all).size() == 2) {
        usleep(talk.Post(all, Item(number++)) ? 1000 : 20000);  // full: those with room have it
        while (const KLVMsgEvent event = talk.NextEvent(std::chrono::seconds(0))) {
            if (event.kind == KLVMsgEvent::kStalls) {
                std::printf("the %s subscriber is dropped, %d messages behind\n",
                            Printable(event.label).c_str(),
                            int(talk.Counts(event.peer).messagesQueued));
                talk.Disconnect(event.peer);
            }
        }
    }
    Check(talk.Send(all, Item(last), Limit()), "gave up: a subscriber does not read");
    std::printf("published %d items\n", number);
    return talk.End(Limit()) ? 0 : 1;
}

static int Read(int port, const std::string& name) {
    KLVMsgSessionOptions options = Talk::Options();
    options.inboxLimit = 4 * itemSize;  // what is not asked for holds the publisher's bytes back
    Talk talk{options, Item()};
    talk.ConnectAndStart(port, "publisher");
    Check(talk.Send("publisher", Item(name), Limit()));
    for (int number = 0;; ++number) {
        const auto item = talk.Receive<Item>(Limit());
        if (!item || item->text != Item(number).text) {
            std::printf("the %s subscriber %s %d items\n", Printable(name).c_str(),
                        item ? "has had" : "was dropped after", number);
            return item ? item->text != last || name != "brisk" : name == "brisk";
        }
        sleep(name == "slow" && number == 0 ? 4 : 0);
    }
}

int main(int argc, char** argv) {
    return RunRoles("slow", usage, argc, argv,
                    {"publish", Publish, "read", Read, {"brisk", "slow"}});
}
