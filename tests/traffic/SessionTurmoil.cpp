// Sixteen threads that do everything with sessions at once, at random: connect, send, post, ask,
// receive, label, disconnect, end. Each message arrives once, in order, or its fate was told.
// Usage: session_turmoil SECONDS [SEED]
#include <chrono>
#include <deque>
#include <future>
#include <iostream>
#include <mutex>
#include <thread>

#include "Sessions.h"
#include "Turmoil.h"

namespace {

// The messages over one connection: what the sender was told of each, and whether it has arrived.
struct Flow {
    std::string told;  // d: done, p: posted, l: too late, n: not sent
    std::string arrived;
    std::atomic<bool> wasCut{false};  // what was posted may be lost
};
std::mutex mutex;  // of `flows` and of what has arrived; what was told belongs to the sender
std::deque<Flow> flows;

Flow& NewFlow(std::size_t& number) {
    const std::lock_guard<std::mutex> lock(mutex);
    number = flows.size();
    return flows.emplace_back();
}

// What a connection has sent when it is broken off arrives if it is read within seconds, so the
// receiver is never far behind.
Session* receiver = nullptr;

// One connection's sender.
struct Sender {
    Sender(KLVMsgSession& by, std::string to) : session(&by), label(std::move(to)) {}

    // Sends messages in one of the ways, and notes what it was told.
    void Send(unsigned int messages) {
        for (; messages != 0; --messages) {
            while (receiver->Counts().messagesInInbox > 2000) {
                std::this_thread::sleep_for(1ms);
            }
            const Word word(std::to_string(number) + " " + std::to_string(flow.told.size()) + " " +
                            std::string(Random(20) == 0 ? Random(200000) : Random(300), 'x'));
            const unsigned int way = Random(4);
            const KLVMsgOutcome done =
                way < 2 ? session->Post(label, word)
                        : session->Send(label, word, way == 2 ? KLVMsgTimeLimit(0ms) : ever);
            Require(
                done.status != KLVMsgOutcome::kFailed && done.status != KLVMsgOutcome::kPeerGone,
                "falsely told: " + done.text);
            const bool isLate = done.status == KLVMsgOutcome::kTooLate;
            flow.told += isLate ? 'l' : !done ? 'n' : way < 2 ? 'p' : 'd';
        }
    }

    KLVMsgSession* session;
    std::string label;
    std::size_t number = 0;
    Flow& flow = NewFlow(number);
};

// Asks, and mostly gives up about when the answer comes.
void Ask(Session& client, const std::string& label) {
    const Quiz quiz(label + std::to_string(Random(1000)));
    const auto answer =
        client.Ask<Quiz>(label, quiz, Random(4) == 0 ? ever : KLVMsgTimeLimit(1ms * Random(3)));
    Require(answer
                ? answer->text == quiz.text
                : answer.status == KLVMsgOutcome::kTooLate || answer.status == KLVMsgOutcome::kFull,
            "falsely answered: " + answer.KLVMsgOutcome::text);
}

void AnswerAll(Session& server) {
    while (const auto quiz = server.Receive<Quiz>(ever)) {
        server.Answer(quiz, *quiz);
    }
}

// Connects, sends, asks, receives some of the echoes, and breaks off, again and again.
void Talk(Session& client, int port, int thread) {
    while (!over) {
        Sender sender(client, std::to_string(thread));
        Require(bool(client.Connect(At(port), sender.label, ever)), "cannot connect");
        do {
            sender.Send(Random(50));
            client.ReceiveAll<Other>(0ms, sender.label);
            Ask(client, sender.label);
            sender.Send(1);
            if (sender.flow.told.back() == 'd') {
                Require(bool(client.Receive<Other>(ever, sender.label)), "no echo");
            }
        } while (!over && Random(3) != 0);
        const std::string next = sender.label + "'";
        Require(bool(client.SetLabel(client.Peers(sender.label).front(), next)),
                "cannot be labelled");
        sender.flow.wasCut = true;
        client.Disconnect(next);
    }
}

// Sessions that come, send, and end in order: nothing of theirs is lost.
void ComeAndEnd(int port) {
    while (!over) {
        Session session;
        Require(bool(session.ConnectAgain(At(port), "server", ever)), "cannot connect again");
        Sender(session, "server").Send(Random(100));
        Require(bool(session.End(ever)), "cannot end");
    }
}

void Echo(Session& server) {
    while (const auto word = server.Receive<Word>(ever)) {
        const std::string& text = word->text;
        const std::size_t flow = std::stoul(text), number = std::stoul(text.substr(text.find(' ')));
        std::unique_lock<std::mutex> lock(mutex);
        std::string& arrived = flows[flow].arrived;
        lock.unlock();
        Require(arrived.size() <= number, "twice, or out of order: " + text.substr(0, 30));
        arrived.resize(number, '-');
        arrived += '+';
        server.Post(word.peer, Other(text.substr(0, 30)));
    }
}

void AskAround(Session& session) {
    while (!over) {
        int port = 0;
        session.Serve(anyPort, &port);
        session.Counts();
        session.Peers(KLVMsgPeers::All());
        session.NextEvent(std::chrono::milliseconds(Random(3)));
        session.WaitUntilGone("0", 1ms);
        session.StopServing(port);
    }
}

void Run(int seconds) {
    KLVMsgSessionOptions options;
    options.queueLimit = 1 << 20;
    Session server, client(options);
    receiver = &server;
    auto echo = std::async(std::launch::async, [&] { Echo(server); });
    auto answering = std::async(std::launch::async, [&] { AnswerAll(server); });
    std::vector<std::future<void>> threads;
    const auto start = [&](auto... all) {
        threads.push_back(std::async(std::launch::async, all...));
    };
    for (int thread = 0; thread < 10; ++thread) {
        start(Talk, std::ref(client), server.port, thread);
    }
    for (int thread = 0; thread < 3; ++thread) {
        start(ComeAndEnd, server.port);
    }
    start(AskAround, std::ref(server));
    start(AskAround, std::ref(client));
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    over = true;
    threads.clear();
    Require(bool(client.End(ever)), "the client cannot end");
    Require(Eventually([&] { return server.Counts().connections == 0; }) && server.Holds(0),
            "the server keeps something");
    server.End(ever);
    echo.wait();
    answering.wait();
    for (Flow& flow : flows) {
        flow.arrived.resize(flow.told.size(), '-');
        for (std::size_t i = 0; i < flow.told.size(); ++i) {
            const bool came = flow.arrived[i] == '+';
            const char told = flow.told[i];
            Require(came ? told != 'n' : told != 'd' && (told != 'p' || flow.wasCut),
                    "lost, or falsely arrived: " + flow.told + " " + flow.arrived);
        }
    }
    std::cout << "session_turmoil: " << flows.size() << " connections (seed " << seed << ")\n";
}

}  // namespace

int main(int argc, char** argv) { Start(Run, argc, argv); }
