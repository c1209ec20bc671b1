// A publisher and its subscribers, each a process of its own. A subscriber tells its topic; the
// publisher makes that the label of the connection, and from then on one send to the label reaches
// all who asked for the topic.
#include <clocale>

#include "Talk.h"

static const char usage[] = R"(usage: pubsub [--timeout SECONDS]
       pubsub [--timeout SECONDS] publish
       pubsub [--timeout SECONDS] subscribe PORT TOPIC

The first form runs a publisher and four subscribers as processes of their own. The other two are
for two terminals: the publisher tells its port on 127.0.0.1, waits for four subscribers and sends
them the news of weather and sport, each the news of its topic.

  --timeout SECONDS   give up when a peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when each subscriber has read the news of its topic, in order, and no other; with 1
when not, or when something fails; with 2 after a wrong command line.
)";

static const std::vector<std::string> topics = {"weather", "sport", "weather", "sport"};
static const std::vector<std::string> news = {"weather: rain", "sport: 2:1", "weather: sun",
                                              "sport: 0:0", "that was all"};

struct Subscribe : Text {
    explicit Subscribe(const std::string& topic = "") : Text(topic) {}
    KLVMsgSocketMessage* NewInstance() override { return new Subscribe; }
    KLVString GetMessageType() const override { return "Subscribe"; }
};

struct News : Text {
    explicit News(const std::string& item = "") : Text(item) {}
    KLVMsgSocketMessage* NewInstance() override { return new News; }
    KLVString GetMessageType() const override { return "News"; }
};

static int Read(int port, const std::string& topic) {
    std::string expected;
    for (const std::string& each : news) {
        expected += each.rfind(topic, 0) == 0 || each == news.back() ? each + "; " : "";
    }
    Talk talk{News()};
    talk.ConnectAndStart(port, "publisher");
    Check(talk.Send("publisher", Subscribe(topic), Limit()));
    std::string received;
    while (received.size() < expected.size()) {
        const auto item = talk.Receive<News>(Limit());
        Check(item, "gave up: no news from the publisher", "lost the publisher");
        received += item->text + "; ";
    }
    std::printf("a subscriber of %s has read: %s\n", Printable(topic).c_str(),
                Printable(received).c_str());
    return received == expected ? 0 : 1;
}

// Tells its port to the reader of the pipe, if there is one.
static int Publish(int portPipe) {
    Talk talk{Subscribe()};
    talk.ServeAndTell("publishing on", portPipe);
    for (std::size_t count = 0; count < topics.size(); ++count) {
        const auto request = talk.Receive<Subscribe>(Limit());
        Check(request, "gave up: not all subscribers have come");
        talk.SetLabel(request.peer, request->text);
    }
    for (const std::string& item : news) {
        const std::string topic = item.substr(0, item.find(':'));
        const bool last = item == news.back();
        talk.Post(last ? KLVMsgPeers::All() : KLVMsgPeers(topic), News(item));
    }
    Check(talk.End(Limit()), "gave up: a subscriber does not leave");
    return 0;
}

// The processes part before there is a session: its thread and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port = children.StartServer("pubsub publisher", Publish);
    for (std::size_t number = 0; port != 0 && number < topics.size(); ++number) {
        children.Start("pubsub subscriber " + std::to_string(number + 1),
                       [=] { return Read(port, topics[number]); });
    }
    return children.Await() ? 0 : 1;
}

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");  // for what others have written
    const CommandLine line("pubsub", usage, argc, argv);
    return RunRole("pubsub", [&line] {
        if (line.Calls("", 0)) {
            return RunAll();
        }
        if (line.Calls("publish", 0)) {
            return Publish(-1);
        }
        if (line.Calls("subscribe", 2)) {
            return Read(line.Number(line.Word(1), 1, 65535), line.Word(2));
        }
        line.Refuse("no such role");
    });
}
