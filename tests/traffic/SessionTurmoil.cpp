// Sixteen threads that do everything with sessions at once, at random: connect, send, post, receive,
// label, disconnect, end. Each message arrives once, in order, or its fate was told. Usage:
// session_turmoil SECONDS [SEED]
#include <chrono>
#include <cstdlib>
#include <deque>
#include <future>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>

#include "Sessions.h"

namespace {

std::atomic<bool> over{false};
unsigned int seed = 0;

void Require(bool holds, const std::string& what) {
    if (!holds) {
        std::cerr << "session_turmoil: " << what << " (seed " << seed << ")\n";
        std::_Exit(1);
    }
}

unsigned int Random(unsigned int limit) {
    static std::atomic<unsigned int> threads{0};
    thread_local std::mt19937 generator(seed + threads++);
    return static_cast<unsigned int>(generator() % limit);
}

// The messages over one connection: what the sender was told of each, and whether it has arrived.
struct Flow {
    std::string told;  // d: done, p: posted, l: too late, n: not sent
    std::string arrived;
    bool wasCut = false;  // what was posted may be lost
};
std::mutex mutex;
std::deque<Flow> flows;

std::size_t NewFlow() {
    const std::lock_guard<std::mutex> lock(mutex);
    flows.emplace_back();
    return flows.size() - 1;
}

void Cut(std::size_t flow) {
    const std::lock_guard<std::mutex> lock(mutex);
    flows[flow].wasCut = true;
}

void Arrive(const std::string& text) {
    const std::size_t flow = std::stoul(text), number = std::stoul(text.substr(text.find(' ')));
    const std::lock_guard<std::mutex> lock(mutex);
    std::string& arrived = flows[flow].arrived;
    Require(arrived.size() <= number, "twice, or out of order: " + text.substr(0, 30));
    arrived.resize(number, '-');
    arrived += '+';
}

// What a connection has sent when it is broken off arrives if it is read within seconds, so the
// receiver is never far behind.
Session* receiver = nullptr;

// Sends one message in one of the ways, and notes what it was told.
void SendOne(KLVMsgSession& session, const std::string& label, std::size_t flow) {
    while (receiver->Counts().messagesInInbox > 2000) {
        std::this_thread::sleep_for(1ms);
    }
    std::unique_lock<std::mutex> lock(mutex);
    const std::size_t number = flows[flow].told.size();
    lock.unlock();
    const Word word(std::to_string(flow) + " " + std::to_string(number) + " " +
                    std::string(Random(20) == 0 ? Random(200000) : Random(300), 'x'));
    const unsigned int way = Random(4);
    const KLVMsgOutcome done = way < 2    ? session.Post(label, word)
                               : way == 2 ? session.Send(label, word, std::chrono::milliseconds(0))
                                          : session.Send(label, word, ever);
    Require(done.status != KLVMsgOutcome::kFailed && done.status != KLVMsgOutcome::kPeerGone,
            "falsely told: " + done.text);
    lock.lock();
    flows[flow].told += done.status == KLVMsgOutcome::kTooLate ? 'l'
                        : !done                                ? 'n'
                        : way < 2                              ? 'p'
                                                               : 'd';
}

// Connects, sends, receives some of the echoes, and breaks off, again and again.
void Talk(Session& client, int port, int thread) {
    std::string label = std::to_string(thread);
    std::size_t flow = 0;
    while (!over) {
        if (client.Peers(label).empty()) {
            Require(bool(client.Connect(At(port), label, ever)), "cannot connect");
            flow = NewFlow();
        }
        for (unsigned int left = Random(50); left != 0; --left) {
            SendOne(client, label, flow);
        }
        if (Random(3) == 0) {
            SendOne(client, label, flow);
            client.Receive<Other>(std::chrono::milliseconds(Random(20)), label);
        }
        client.ReceiveAll<Other>(0ms, label);
        if (Random(3) == 0) {
            const std::string next = label + "'";
            Require(bool(client.SetLabel(client.Peers(label).front(), next)), "cannot be labelled");
            label = label.size() > 20 ? std::to_string(thread) : next;
            Cut(flow);
            client.Disconnect(next);
            client.ReceiveAll<Other>(0ms, next);
        }
    }
}

// Sessions that come, send, and end in order: nothing of theirs is lost.
void ComeAndEnd(int port) {
    while (!over) {
        Session session;
        const std::size_t flow = NewFlow();
        Require(bool(session.ConnectAgain(At(port), "server", ever)), "cannot connect again");
        for (unsigned int left = Random(100); left != 0; --left) {
            SendOne(session, "server", flow);
        }
        Require(bool(session.End(ever)), "cannot end");
    }
}

void Echo(Session& server) {
    while (const auto word = server.Receive<Word>(ever)) {
        Arrive(word->text);
        server.Post(word.peer, Other(word->text.substr(0, 30)));
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
        session.Descriptor();
        session.StopServing(port);
    }
}

void Run(int seconds) {
    KLVMsgSessionOptions options;
    options.queueLimit = 1 << 20;
    Session server, client(options);
    receiver = &server;
    auto echo = std::async(std::launch::async, [&] { Echo(server); });
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < 10; ++thread) {
        threads.push_back(
            std::async(std::launch::async, Talk, std::ref(client), server.port, thread));
    }
    for (int thread = 0; thread < 3; ++thread) {
        threads.push_back(std::async(std::launch::async, ComeAndEnd, server.port));
    }
    threads.push_back(std::async(std::launch::async, [&] { AskAround(server); }));
    threads.push_back(std::async(std::launch::async, [&] { AskAround(client); }));
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    over = true;
    threads.clear();
    Require(bool(client.End(ever)), "the client cannot end");
    Require(Eventually([&] {
                const KLVMsgCounts counts = server.Counts();
                return counts.connections + counts.messagesInInbox == 0;
            }),
            "the server keeps something");
    server.End(ever);
    echo.wait();
    std::size_t count = 0;
    for (Flow& flow : flows) {
        flow.arrived.resize(flow.told.size(), '-');
        for (std::size_t i = 0; i < flow.told.size(); ++i) {
            const bool came = flow.arrived[i] == '+';
            count += came ? 1 : 0;
            Require(!came || flow.told[i] != 'n', "arrived, though it was not sent");
            Require(came || flow.told[i] != 'd',
                    "lost, though it was sent: " + flow.told + " " + flow.arrived);
            Require(came || flow.told[i] != 'p' || flow.wasCut, "lost, though it was posted");
        }
    }
    std::cout << "session_turmoil: " << count << " messages over " << flows.size()
              << " connections, each once (seed " << seed << ")\n";
}

}  // namespace

int main(int argc, char** argv) {
    seed = argc > 2 ? static_cast<unsigned int>(std::atoi(argv[2])) : std::random_device()();
    Run(argc > 1 ? std::atoi(argv[1]) : 1);
}
