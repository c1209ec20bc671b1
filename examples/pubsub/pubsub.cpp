// A publisher and four subscribers, each a process of its own. A subscriber tells its topic; the
// publisher makes that the label of the connection, and from then on one send to the label reaches
// all who asked for the topic. Exits with 0 when each subscriber has read the news of its topic, in
// order, and no other.
#include <KLVMsgCommModules.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

static const std::vector<std::string> topics = {"weather", "sport", "weather", "sport"};
static const std::vector<std::string> news = {"weather: rain", "sport: 2:1", "weather: sun",
                                              "sport: 0:0", "that was all"};

using Registry = KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>;
using Communicator = KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>;

// A short text in a body of fixed size, filled up with zero bytes.
class Text : public KLVMsgSocketMessage {
public:
    explicit Text(const char* type, const std::string& value = "") : m_type(type) {
        value.copy(text, sizeof text - 1);
    }

    int WriteMessage(KLVMsgOutputStream* stream) override {
        int count = 0;
        stream->write(text, sizeof text, count);
        return count;
    }

    int ReadMessage(KLVMsgInputStream* stream) override {
        for (int done = 0, count = 1; done < int{sizeof text} && count > 0; done += count) {
            count = 0;
            stream->read(text + done, int{sizeof text} - done, count);
        }
        return 1;
    }

    KLVMsgSocketMessage* NewInstance() override { return new Text(m_type); }
    KLVString GetMessageType() const override { return m_type; }

    char text[32] = {};

private:
    const char* m_type;
};

// Runs a role with the library started up, and shuts it down.
static int WithLibrary(int (*role)(int, int), int pipeEnd, int number) {
    alarm(60);  // ends a process whose peer never answers
    int modules = 0;
    KLVMsgCommModules_initialize(modules);
    Registry::Instance();
    KLVMsgSimpleInputStream input;
    KLVMsgBufferedOutputStream output(65536);
    Communicator::Instance()->SetDefaultInputStream(&input);
    Communicator::Instance()->SetDefaultOutputStream(&output);
    Text subscribe("Subscribe"), item("News");
    Communicator::Instance()->RegisterMessagePrototype("Subscribe", &subscribe);
    Communicator::Instance()->RegisterMessagePrototype("News", &item);
    Communicator::Instance()->PrepareStartupMessageTask();
    KLVMsgMessageTask task;
    KLVBasAtiThread thread(task);
    const int result = role(pipeEnd, number);
    Communicator::Instance()->ShutdownMessageTask();
    thread.Join();
    Communicator::Finalize();
    Registry::Finalize();
    KLVMsgCommModules_finalize(modules);
    return result;
}

static int Subscribe(int portPipe, int number) {
    int port = 0;
    if (read(portPipe, &port, sizeof port) != sizeof port) {
        return 1;
    }
    const std::string& topic = topics[static_cast<std::size_t>(number)];
    auto* const socket =
        Registry::Instance()->ConnectToServer({}, KLVMsgSocketAddress("127.0.0.1", port));
    Communicator::Instance()->AddConnection(KLVMsgChannel(socket, "publisher"), true);
    Text request("Subscribe", topic);
    Communicator::Instance()->SendSocketMessage("publisher", &request);
    std::string expected, received;
    for (const std::string& item : news) {
        expected += item.rfind(topic, 0) == 0 || item == news.back() ? item + "; " : "";
    }
    KLVMsgMessageQueryByType query("News");
    while (received.size() < expected.size()) {
        KLVBasVector<KLVMsgSocketMessage*> messages;
        Communicator::Instance()->RetrieveMessages(&query, messages);
        for (std::size_t i = messages.Size(); i-- > 0;) {  // the newest comes first
            received += static_cast<Text*>(messages[i])->text + std::string("; ");
            delete messages[i];
        }
    }
    std::printf("subscriber %d has read: %s\n", number, received.c_str());
    std::fflush(stdout);
    return received == expected ? 0 : 1;
}

static int Publish(int portPipe, int) {
    KLVMsgServerSocket* const server = Registry::Instance()->StartServer({"127.0.0.1", 0}, 16);
    Communicator::Instance()->AddConnection(KLVMsgChannel(server, "entrance"), true);
    const std::vector<int> ports(topics.size(), server->address.port);  // one for each to read
    if (write(portPipe, ports.data(), ports.size() * sizeof(int)) == -1) {
        return 1;
    }
    KLVMsgMessageQueryByType query("Subscribe");
    KLVBasVector<KLVMsgChannelMsgStruct> requests;
    while (requests.Size() < topics.size()) {
        KLVBasUtlsleep(20);
        Communicator::Instance()->IRetrieveMessagesWithChannel(&query, requests);
    }
    for (std::size_t i = 0; i < requests.Size(); ++i) {
        requests[i].channel.SetLabel(static_cast<Text*>(requests[i].message)->text);
        delete requests[i].message;
    }
    for (const std::string& item : news) {
        Text message("News", item);
        KLVMsgChannelQueryByLabel topic(item.substr(0, item.find(':')).c_str());
        // The last one goes to all.
        Communicator::Instance()->SendSocketMessage(item == news.back() ? nullptr : &topic,
                                                    &message);
    }
    int failures = 0;
    for (int status = 0; wait(&status) > 0;) {  // closing now could overtake the news
        failures += status != 0;
    }
    std::printf("%d of %zu subscribers failed\n", failures, topics.size());
    return failures;
}

int main() {
    int portPipe[2];
    if (pipe(portPipe) == -1) {
        return 1;
    }
    // The processes part before the library is used: its threads and sockets are not inherited.
    for (int number = 0; number < static_cast<int>(topics.size()); ++number) {
        if (fork() == 0) {
            return WithLibrary(Subscribe, portPipe[0], number);
        }
    }
    return WithLibrary(Publish, portPipe[1], 0);
}
