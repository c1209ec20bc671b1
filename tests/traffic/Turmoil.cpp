// Eight threads that use every part of one process's messaging at once, while peers come, go,
// reset, stall and stay. What the peers that stay have sent and been sent is accounted for, and a
// thread with sockets of its own sees whether anybody touches them. Usage: turmoil SECONDS [SEED]
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <future>
#include <iostream>
#include <thread>

#include "Support.h"
#include "Turmoil.h"

// In place of the base library's: nobody sleeps for long, the message task least of all.
void KLVBasUtlsleep(unsigned milliseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(milliseconds));
}

namespace {

void Pause(unsigned int most) {
    std::this_thread::sleep_for(std::chrono::milliseconds(Random(most + 1)));
}

// Numbered texts of one sender to one receiver: each arrives once, in its order.
struct Flow {
    std::string Next() { return label + " " + std::to_string(sent++); }
    void Arrive(const std::string& text) {
        Require(text == label + " " + std::to_string(arrived++), "unexpected: " + text);
    }
    const std::string label;
    std::atomic<int> sent{0}, arrived{0};
};

// A peer that stays, known here under the label that both flows have.
struct SteadyPeer {
    SteadyPeer(int port, const char* label) : peer(port), to{label}, from{label} {}
    PlainPeer peer;
    Flow to, from;
};
std::deque<SteadyPeer> steady;

void Await(unsigned int id) {
    while (Communicator().QueryPendingStatus(id)) {
        Pause(1);
    }
}

// Sends to the peers that stay, in two forms.
void SendToSteady() {
    for (std::size_t n = 0; !over; ++n) {
        Flow& flow = steady[n % steady.size()].to;
        TextMessage message("Steady", flow.Next());
        if (n % 2 == 0) {
            Communicator().SendSocketMessage(flow.label.c_str(), &message);
        } else {
            const std::vector<KLVMsgChannel> channels = Known(flow.label.c_str());
            Require(channels.size() == 1, flow.label + " is not known once");
            Await(Send(channels[0], &message));
        }
    }
}

void Retrieve() {
    std::vector<std::string> texts = Take("Steady");
    for (; !texts.empty(); texts.pop_back()) {
        steady[static_cast<std::size_t>(texts.back()[0] - '0')].from.Arrive(texts.back());
    }
    Take("Passing");
}

// What such a peer does: sends texts, and reads those that it is sent.
void Stay(SteadyPeer& self) {
    const auto reader = std::async(std::launch::async, [&self] {
        const std::size_t headerSize = HeaderBytes("Steady").size() + 4;
        for (std::string header; !(header = self.peer.Receive(headerSize)).empty();) {
            unsigned int length = 0;
            std::memcpy(&length, header.data() + headerSize - 4, sizeof length);
            self.to.Arrive(self.peer.Receive(length));
        }
    });
    for (; !over; Pause(4)) {
        self.peer.Send(TextBytes("Steady", self.from.Next()));
    }
}

void Leave(PlainPeer& peer) { Random(2) == 0 ? peer.Close() : peer.Reset(); }
// Peers that come, send something whole or broken, and go in every way.
void ComeAndGo(int port) {
    while (!over) {
        PlainPeer peer(port);
        const std::string bytes = TextBytes("Passing", std::string(Random(2000), 'x'));
        peer.Send(bytes.substr(0, Random(2) == 0 ? Random(bytes.size()) : bytes.size()));
        Pause(Random(10) == 0 ? 200 : 2);  // stalls, in the middle or not
        Leave(peer);
    }
}

// Connects to a server outside, sends, and ends the connection in every way.
void ConnectAndEnd(const char* label) {
    const Listener outside;
    TextMessage message("Passing", "hello");
    const std::string bytes = TextBytes("Passing", "from outside");
    while (!over) {
        KLVMsgCommSocket* const socket =
            Registry().ConnectToServer(KLVMsgSocketAddress(), outside.address);
        Require(socket != nullptr, "cannot connect");
        PlainPeer peer(outside);
        KLVMsgChannel channel(socket, label);
        const bool stays = Random(2) == 0;
        Communicator().AddConnection(channel, !stays || Random(2) == 0);
        const unsigned int id = Send(channel, &message);
        peer.Send(bytes.substr(0, stays ? bytes.size() : Random(bytes.size())));
        if (!stays) {
            Pause(5);  // until it has gone it holds everybody up
            Leave(peer);
        }
        Pause(5);
        KLVMsgChannelQueryByLabel query(label);
        const unsigned int end = Random(3);
        if (end == 0) {
            Communicator().RemoveConnection(&query, true);
        } else if (end == 1 && stays) {  // else it may be somebody else's
            channel.Shutdown();
        }           // or it is left dead or alive; the next connection may get its number
        Await(id);  // the message is ours until then
    }
}

// Shuts a server down and starts it on the same port.
void Restart() {
    for (int port = 0; !over;) {
        KLVMsgServerSocket* const server =
            Registry().StartServer(KLVMsgSocketAddress("127.0.0.9", port), 5);
        Require(server != nullptr && !Registry().HasError(server->descriptor), "cannot restart");
        port = server->address.port;
        KLVMsgChannel channel(server, "restarted");
        Communicator().AddConnection(channel, true);
        Pause(5);
        channel.Shutdown();
    }
}

// Takes what has come, and asks and changes what can be asked and changed of every connection.
void AskAround() {
    for (; !over; Pause(2)) {
        Retrieve();
        for (KLVMsgChannel& channel : Known()) {
            int code = 0;
            KLVString text;
            Communicator().GetErrorsOnChannel(channel, code, text);
            channel.IsActiveInCurrentThreads();
            Registry().ClearError(channel.connection);
            if (channel.GetLabel() == KLVString("")) {
                channel.SetLabel("passing");
            }
        }
    }
}

// Makes socket pairs, sees whether they stay its own, and closes them.
void KeepPairs() {
    while (!over) {
        int pairs[4][2];
        for (auto& pair : pairs) {
            Require(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "no socket pair");
        }
        Pause(3);
        for (const auto& [one, other] : pairs) {
            char byte = 0;
            Require(write(one, "x", 1) == 1 && recv(other, &byte, 1, MSG_DONTWAIT) == 1 &&
                        recv(other, &byte, 1, MSG_DONTWAIT) == -1 && errno == EAGAIN &&
                        close(one) + close(other) == 0,
                    "a socket of ours is not ours any more");
        }
    }
}

// How many messages of the steady peers are still to come; `moved` is how many have.
int Missing(int& moved) {
    Retrieve();
    int promised = moved = 0;
    for (const auto& [peer, to, from] : steady) {
        moved += to.arrived + from.arrived;
        promised += to.sent + from.sent;
    }
    return promised - moved;
}

void Run(int seconds) {
    const Messaging messaging;
    TextMessage staying("Steady"), passing("Passing");
    Communicator().RegisterMessagePrototype("Steady", &staying);
    Communicator().RegisterMessagePrototype("Passing", &passing);
    KLVMsgServerSocket* const server = StartLoopbackServer();
    const int port = server->address.port;
    Communicator().AddConnection(KLVMsgChannel(server, "server"), true);
    std::vector<std::future<void>> peers, turmoil;
    for (const char* label : {"0", "1", "2"}) {
        steady.emplace_back(port, label);
        Communicator().WaitConnectionsAndMessages(nullptr, 10000);
        Known().back().SetLabel(label);
    }
    Communicator().PrepareStartupMessageTask();
    KLVMsgMessageTask task;
    KLVBasAtiThread driving(task);
    for (SteadyPeer& each : steady) {
        peers.push_back(std::async(std::launch::async, Stay, std::ref(each)));
    }
    for (const std::function<void()>& each : std::vector<std::function<void()>>{
             [=] { ComeAndGo(port); }, [] { ConnectAndEnd("outgoing"); },
             [] { ConnectAndEnd("another"); }, SendToSteady, Restart, AskAround, KeepPairs}) {
        turmoil.push_back(std::async(std::launch::async, each));
    }

    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    over = true;
    turmoil.clear();  // when they have ended
    int moved = 0;
    Require(Eventually([&moved] { return Missing(moved) == 0; }),
            std::to_string(Missing(moved)) + " missing");
    Communicator().ShutdownMessageTask();
    driving.Join();
    peers.clear();
    std::cout << "turmoil: " << moved << " messages, each once (seed " << seed << ")\n";
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    Start(Run, argc, argv);
    KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
    KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
}
