// A publisher that waits for no subscriber, is told of the one that does not keep up, and drops it
// by its own choice. The other subscriber misses nothing.
#include <map>
#include <set>

#include "Talk.h"

static const char usage[] = R"(usage: slow [--timeout SECONDS]
       slow [--timeout SECONDS] publish
       slow [--timeout SECONDS] subscribe PORT brisk|slow

The first form runs a publisher and two subscribers as processes of their own. The other two are for
terminals: the publisher tells its port on 127.0.0.1, waits for two subscribers, sends them numbered
items of 64 KiB until it has dropped one who takes none for a second, and then the last one. The
slow subscriber reads one item and nothing for the next four seconds.

  --timeout SECONDS   give up when a peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when the brisk one has had every item and the slow one was dropped; with 1 when not, or
when something fails; with 2 after a wrong command line.
)";

static const int subscriberCount = 2;
static const std::size_t itemSize = 65536;
static const char last[] = "that was all";

struct Subscribe : Text {
    explicit Subscribe(const std::string& name = "") : Text(name) {}
    KLVMsgSocketMessage* NewInstance() override { return new Subscribe; }
    KLVString GetMessageType() const override { return "Subscribe"; }
};

// A number, from 0 on, and dots up to the item's size; or the last words.
struct Item : Text {
    explicit Item(const std::string& words = "") : Text(words) {}
    explicit Item(int number) : Text(std::to_string(number)) { text.resize(itemSize, '.'); }
    KLVMsgSocketMessage* NewInstance() override { return new Item; }
    KLVString GetMessageType() const override { return "Item"; }
};

class Publisher {
public:
    explicit Publisher(int portPipe) : m_talk(Options(), Subscribe()) {
        m_talk.ServeAndTell("publishing on", portPipe);
        for (int count = 0; count < subscriberCount; ++count) {
            const auto request = m_talk.Receive<Subscribe>(Limit());
            Check(request, "gave up: not all subscribers have come");
            m_talk.SetLabel(request.peer, "news");
            m_names[request.peer] = Printable(request->text);
        }
    }

    // Until one was dropped.
    void Publish() {
        const auto deadline = Limit().Deadline();
        while (m_talk.Peers("news").size() == subscriberCount) {
            const KLVMsgOutcome posted = m_talk.Post("news", Item(m_number++));
            LookAtEvents();
            // Full: those with room have it. A pause is all that the others get.
            usleep(posted.status == KLVMsgOutcome::kFull ? 20000 : 1000);
            if (KLVMsgTimeLimit::Clock::now() >= deadline) {
                throw std::runtime_error("gave up: every subscriber keeps up");
            }
        }
    }

    // The last words, for whom there is room in the end.
    void End() {
        Check(m_talk.Send("news", Item(last), Limit()), "gave up: a subscriber does not read");
        Check(m_talk.End(Limit()), "gave up: a subscriber does not leave");
        std::printf("published %d items\n", m_number);
    }

private:
    using Clock = KLVMsgTimeLimit::Clock;

    static KLVMsgSessionOptions Options() {
        KLVMsgSessionOptions options;
        options.queueLimit = 16 * itemSize;  // of one subscriber: what it may be behind
        options.stall = std::chrono::milliseconds(500);
        return options;
    }

    void LookAtEvents() {
        std::set<KLVMsgPeer> leftOut;
        while (const KLVMsgEvent event = m_talk.NextEvent(std::chrono::seconds(0))) {
            if (event.kind == KLVMsgEvent::kLeftOut) {
                leftOut.insert(event.peer);
            } else if (event.kind == KLVMsgEvent::kStalls) {
                std::printf("the %s subscriber stalls\n", m_names[event.peer].c_str());
            }
        }
        for (const auto& [peer, name] : m_names) {
            if (leftOut.count(peer) == 0) {
                m_leftOutSince.erase(peer);
                continue;
            }
            const auto [since, isNew] = m_leftOutSince.emplace(peer, Clock::now());
            if (!isNew && Clock::now() - since->second > std::chrono::seconds(1)) {
                const KLVMsgCounts counts = m_talk.Counts(peer);
                std::printf("the %s subscriber is dropped, %llu messages behind\n", name.c_str(),
                            static_cast<unsigned long long>(counts.messagesQueued));
                m_talk.Disconnect(peer);
                m_leftOutSince.erase(since);
            }
        }
    }

    Talk m_talk;
    int m_number = 0;
    std::map<KLVMsgPeer, std::string> m_names;
    std::map<KLVMsgPeer, Clock::time_point> m_leftOutSince;
};

// Tells its port to the reader of the pipe, if there is one.
static int Publish(int portPipe) {
    Publisher publisher(portPipe);
    publisher.Publish();
    publisher.End();
    return 0;
}

static KLVMsgSessionOptions ReaderOptions() {
    KLVMsgSessionOptions options = Talk::Options();
    options.inboxLimit = 4 * itemSize;  // what is not asked for holds the publisher's bytes back
    return options;
}

static int Read(int port, const std::string& name) {
    Talk talk{ReaderOptions(), Item()};
    talk.ConnectAndStart(port, "publisher");
    Check(talk.Send("publisher", Subscribe(name), Limit()));
    bool isWhole = true;
    for (int number = 0;; ++number) {
        const auto item = talk.Receive<Item>(Limit());
        if (item.status == KLVMsgOutcome::kPeerGone) {
            std::printf("the %s subscriber was dropped after %d items\n", name.c_str(), number);
            return name == "slow" ? 0 : 1;
        }
        Check(item, "gave up: nothing from the publisher");
        if (item->text == last) {
            std::printf("the %s subscriber has had %d items\n", name.c_str(), number);
            return isWhole && name == "brisk" ? 0 : 1;
        }
        isWhole = isWhole && item->text == Item(number).text;
        if (name == "slow" && number == 0) {
            sleep(4);
        }
    }
}

// The processes part before there is a session: its thread and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port = children.StartServer("publisher", Publish);
    if (port != 0) {
        children.Start("brisk subscriber", [port] { return Read(port, "brisk"); });
        children.Start("slow subscriber", [port] { return Read(port, "slow"); });
    }
    return children.Await() && port != 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    const CommandLine line("slow", usage, argc, argv);
    return RunRole("slow", [&line] {
        if (line.Calls("", 0)) {
            return RunAll();
        }
        if (line.Calls("publish", 0)) {
            return Publish(-1);
        }
        if (line.Calls("subscribe", 2)) {
            if (line.Word(2) != "brisk" && line.Word(2) != "slow") {
                line.Refuse("a subscriber is brisk or slow");
            }
            return Read(line.Number(line.Word(1), 1, 65535), line.Word(2));
        }
        line.Refuse("no such role");
    });
}
