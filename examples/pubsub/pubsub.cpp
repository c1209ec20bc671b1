// A publisher and its subscribers, each a process of its own. A subscriber tells its topic; the
// publisher makes that the label of the connection, and from then on one send to the label reaches
// all who asked for the topic.
#include <clocale>

#include "Library.h"
#include "Program.h"

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

// A short text in a body of fixed size, filled up with zero bytes.
class Text : public KLVMsgSocketMessage {
public:
    explicit Text(const char* type, const std::string& value = "") : text(value), m_type(type) {}

    int WriteMessage(KLVMsgOutputStream* stream) override {
        char body[bodySize] = {};
        text.copy(body, bodySize);
        int count = 0;
        stream->write(body, bodySize, count);
        whole = count == bodySize;
        return whole;
    }

    int ReadMessage(KLVMsgInputStream* stream) override {
        char body[bodySize] = {};
        int done = 0;
        for (int count = 1; done < bodySize && count > 0; done += count) {
            count = 0;
            stream->read(body + done, bodySize - done, count);
        }
        whole = done == bodySize;
        text.assign(body, strnlen(body, bodySize));  // one that fills the body has no zero byte
        return whole;
    }

    KLVMsgSocketMessage* NewInstance() override { return new Text(m_type); }
    KLVString GetMessageType() const override { return m_type; }

    static const int bodySize = 32;
    std::string text;
    bool whole = false;  // a message whose body did not come to its end is received all the same

private:
    const char* m_type;
};

static int Subscribe(int port, const std::string& topic) {
    Text item("News");
    Library library;
    library.Register(item);
    TimeLimit::Restart("pubsub: gave up: the publisher does not accept\n");
    KLVMsgChannel publisher = Connect(KLVMsgSocketAddress("127.0.0.1", port), "publisher");
    library.Start();
    Text request("Subscribe", topic);
    TimeLimit::Restart("pubsub: gave up: no news from the publisher\n");
    Communicator().SendSocketMessage("publisher", &request);

    std::string expected;
    for (const std::string& each : news) {
        expected += each.rfind(topic, 0) == 0 || each == news.back() ? each + "; " : "";
    }
    std::string received;
    while (received.size() < expected.size()) {
        KLVBasUtlsleep(20);
        const bool connected = publisher.IsActiveInCurrentThreads();  // before the last look
        const auto messages = Take<Text>("News");
        for (const auto& [channel, message] : messages) {
            if (!message->whole) {
                throw std::runtime_error("lost the publisher in the middle of a message");
            }
            received += message->text + "; ";
            TimeLimit::Restart("pubsub: gave up: no more news from the publisher\n");
        }
        if (messages.empty() && !connected) {
            throw std::runtime_error("lost the publisher");
        }
    }
    std::printf("a subscriber of %s has read: %s\n", Printable(topic).c_str(),
                Printable(received).c_str());
    return received == expected ? 0 : 1;
}

// Gives each who subscribes its topic as the label, until there are enough.
static std::vector<KLVMsgChannel> AwaitSubscribers() {
    const char* const missing = "pubsub: gave up: not all subscribers have come\n";
    TimeLimit::Restart(missing);
    std::vector<KLVMsgChannel> subscribers;
    while (subscribers.size() < topics.size()) {
        KLVBasUtlsleep(20);
        for (auto& [channel, request] : Take<Text>("Subscribe")) {
            if (request->whole) {
                channel.SetLabel(request->text.c_str());
                subscribers.push_back(channel);
                TimeLimit::Restart(missing);
            }
        }
    }
    return subscribers;
}

// Tells its port to the reader of the pipe, if there is one.
static int Publish(int portPipe) {
    Text subscribe("Subscribe");
    Library library;
    library.Register(subscribe);
    const KLVMsgChannel entrance = Serve(KLVMsgSocketAddress("127.0.0.1", 0), 16, "entrance");
    const int port = entrance.GetSocket()->address.port;
    library.Start();
    std::printf("publishing on 127.0.0.1, port %d\n", port);
    std::fflush(stdout);
    if (portPipe != -1 && write(portPipe, &port, sizeof port) != sizeof port) {
        throw std::runtime_error("nobody asks for the port");
    }
    std::vector<KLVMsgChannel> subscribers = AwaitSubscribers();
    for (const std::string& item : news) {
        Text message("News", item);
        KLVMsgChannelQueryByLabel topic(item.substr(0, item.find(':')).c_str());
        // The last one goes to all.
        Communicator().SendSocketMessage(item == news.back() ? nullptr : &topic, &message);
    }
    TimeLimit::Restart("pubsub: gave up: a subscriber does not leave\n");
    for (KLVMsgChannel& subscriber : subscribers) {  // closing now could overtake the news
        while (subscriber.IsActiveInCurrentThreads()) {
            KLVBasUtlsleep(20);
        }
    }
    return 0;
}

// The processes part before the library is used: its threads and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port = children.StartServer("pubsub publisher", Publish);
    for (std::size_t number = 0; port != 0 && number < topics.size(); ++number) {
        children.Start("pubsub subscriber " + std::to_string(number + 1),
                       [=] { return Subscribe(port, topics[number]); });
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
            return Subscribe(line.Number(line.Word(1), 1, 65535), line.Word(2));
        }
        line.Refuse("no such role");
    });
}
