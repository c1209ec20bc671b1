// Eight threads that use every part of one process's messaging at once, while peers come, go, reset,
// stall and stay. What the peers that stay have sent and been sent is accounted for, and a thread with
// files of its own sees whether anybody touches them. Usage: turmoil SECONDS [SEED]
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Support.h"

namespace {

constexpr int steadyPeers = 3;
std::atomic<bool> over{false};
unsigned int seed = 0;

void Fail(const std::string& what) {
    std::cerr << "turmoil: " << what << " (seed " << seed << ")\n";
    std::_Exit(1);
}

// A random number below `limit`, for each thread in an order of its own.
unsigned int Random(unsigned int limit) {
    static std::atomic<unsigned int> threads{0};
    thread_local std::mt19937 generator(seed + threads++);
    return static_cast<unsigned int>(generator() % limit);
}

void Pause(unsigned int most) { KLVBasUtlsleep(Random(most + 1)); }

// Drives the communicator like the message task, without its pause.
class Driver : public KLVBasAtiThreadTask {
public:
    int Run(int) override {
        while (!Communicator().IsOkToShutDownMessageTask()) {
            Communicator().WaitConnectionsAndMessages(nullptr, 5);
            Communicator().TransmitPendingMessage();
            std::this_thread::yield();
        }
        return 1;
    }
};

// What was promised to whom: every text is expected once, and forgotten when it has come.
class Account {
public:
    void Expect(const std::string& text) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_expected.insert(text);
        ++m_count;
    }
    void Arrive(const std::string& text) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_expected.erase(text) == 0) {
            Fail("unexpected: " + text);
        }
    }
    std::size_t Missing() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_expected.size();
    }
    long Count() const { return m_count; }

private:
    std::mutex m_mutex;
    std::set<std::string> m_expected;
    long m_count = 0;
};
Account received, sent;

// Sends to the peers that stay, in all forms.
void SendToSteady() {
    for (int n = 0; !over; ++n) {
        const std::string label = "steady" + std::to_string(n % steadyPeers);
        TextMessage message("Steady", label + " " + std::to_string(n));
        sent.Expect(message.text);
        if (n % 2 == 0) {
            Communicator().SendSocketMessage(label.c_str(), &message);
            continue;
        }
        KLVMsgChannelQueryByLabel query(label.c_str());
        KLVBasVector<KLVMsgChannel> channels;
        Communicator().RetrieveConnections(&query, channels);
        if (channels.Size() != 1) {
            Fail(label + " is known " + std::to_string(channels.Size()) + " times");
        }
        unsigned int id = 0;
        Communicator().ISendSocketMessage(channels[0], &message, id);
        while (Communicator().QueryPendingStatus(id)) {
            Pause(1);
        }
    }
}

void Retrieve(const char* type) {
    KLVMsgMessageQueryByType query(type);
    KLVBasVector<KLVMsgChannelMsgStruct> records;
    Communicator().IRetrieveMessagesWithChannel(&query, records);
    for (std::size_t i = 0; i < records.Size(); ++i) {
        if (std::strcmp(type, "Steady") == 0) {
            received.Arrive(TextOf(records[i].message));
        }
        delete records[i].message;
    }
}

void RetrieveAll() {
    while (!over) {
        Retrieve("Steady");
        Retrieve("Passing");
        Pause(3);
    }
}

// A peer that stays: sends numbered texts, and reads those that it is sent.
void StaySteady(PlainPeer& peer, int self) {
    const std::string label = "steady" + std::to_string(self);
    std::thread reader([&peer] {
        for (;;) {
            const std::string header = peer.Receive(HeaderBytes("Steady").size() + 4);
            if (header.empty()) {
                return;
            }
            unsigned int length = 0;
            std::memcpy(&length, header.data() + header.size() - 4, sizeof length);
            sent.Arrive(peer.Receive(length));
        }
    });
    for (int n = 0; !over; ++n) {
        const std::string text = label + " says " + std::to_string(n);
        received.Expect(text);
        peer.Send(TextBytes("Steady", text));
        Pause(4);
    }
    reader.join();
}

// Peers that come, send something whole or broken, and go in every way.
void ComeAndGo(int port) {
    while (!over) {
        PlainPeer peer(port);
        std::string bytes = TextBytes("Passing", std::string(Random(2000), 'x'));
        if (Random(2) == 0) {
            bytes.resize(Random(static_cast<unsigned int>(bytes.size())));
        }
        peer.SendAny(bytes);
        Pause(Random(10) == 0 ? 200 : 2);  // stalls, in the middle or not
        Random(2) == 0 ? peer.Close() : peer.Reset();
    }
}

// Connects to a server outside, sends, and ends the connection in every way.
void ConnectAndEnd(int self) {
    PlainServer outside;
    const std::string label = "outgoing" + std::to_string(self);
    TextMessage message("Passing", "hello");
    while (!over) {
        KLVMsgCommSocket* const socket = Registry().ConnectToServer(
            KLVMsgSocketAddress(), KLVMsgSocketAddress("127.0.0.1", outside.Port()));
        if (socket == nullptr) {
            Fail("cannot connect: " + std::string(std::strerror(errno)));
        }
        PlainPeer peer{outside.Accept()};
        KLVMsgChannel channel(socket, label.c_str());
        Communicator().AddConnection(channel, true);
        unsigned int id = 0;
        Communicator().ISendSocketMessage(channel, &message, id);
        const std::string bytes = TextBytes("Passing", "from outside");
        const bool stays = Random(2) == 0;
        if (stays) {
            peer.SendAny(bytes);
        } else {
            peer.SendAny(bytes.substr(0, Random(static_cast<unsigned int>(bytes.size()))));
            Pause(5);  // until it has gone it holds everybody up
            Random(2) == 0 ? peer.Close() : peer.Reset();
        }
        Pause(5);
        KLVMsgChannelQueryByLabel query(label.c_str());
        switch (Random(3)) {
            case 0:
                Communicator().RemoveConnection(&query, true);
                break;
            case 1:
                stays ? channel.Shutdown() : void();
                break;  // else it may be somebody else's
            default:
                break;  // left dead or alive; the next connection may get its number
        }
        while (Communicator().QueryPendingStatus(id)) {
            Pause(1);  // the message is ours until then
        }
    }
}

// Shuts a server down and starts it on the same port.
void Restart() {
    int port = 0;
    while (!over) {
        KLVMsgServerSocket* const server =
            Registry().StartServer(KLVMsgSocketAddress("127.0.0.1", port), 5);
        if (server == nullptr || Registry().HasError(server->descriptor)) {
            Fail("cannot start again on port " + std::to_string(port));
        }
        port = server->address.port;
        KLVMsgChannel channel(server, "restarted");
        Communicator().AddConnection(channel, true);
        Pause(5);
        channel.Shutdown();
    }
}

// Asks and changes what can be asked and changed of every connection.
void AskAround() {
    while (!over) {
        KLVBasVector<KLVMsgChannel> channels;
        Communicator().RetrieveConnections(nullptr, channels);
        for (std::size_t i = 0; i < channels.Size(); ++i) {
            int code = 0;
            KLVString text;
            Communicator().GetErrorsOnChannel(channels[i], code, text);
            channels[i].IsActiveInCurrentThreads();
            Registry().ClearError(channels[i].connection);
            if (channels[i].GetLabel() == KLVString("")) {
                channels[i].SetLabel("passing");
            }
        }
        Pause(2);
    }
}

// Opens files, sees whether they stay its own, and closes them.
void KeepFiles() {
    char name[] = "/tmp/turmoilXXXXXX";
    const int first = mkstemp(name);
    struct stat own = {};
    fstat(first, &own);
    while (!over) {
        std::vector<int> files(1 + Random(8));
        for (int& file : files) {
            file = open(name, O_RDWR);
        }
        Pause(3);
        for (const int file : files) {
            struct stat now = {};
            if (fstat(file, &now) == -1 || now.st_ino != own.st_ino || close(file) == -1) {
                Fail("a file of ours is not ours any more");
            }
        }
    }
    close(first);
    unlink(name);
}

// The peers that stay, and the labels under which they are known.
void Welcome(std::vector<std::unique_ptr<PlainPeer>>& peers, int port) {
    for (int i = 0; i < steadyPeers; ++i) {
        KLVBasVector<KLVMsgChannel> before, now;
        Communicator().RetrieveConnections(nullptr, before);
        peers.push_back(std::make_unique<PlainPeer>(port));
        do {
            Communicator().WaitConnectionsAndMessages(nullptr, 100);
            now.Clear();
            Communicator().RetrieveConnections(nullptr, now);
        } while (now.Size() == before.Size());
        now[now.Size() - 1].SetLabel(("steady" + std::to_string(i)).c_str());
    }
}

int Run(int seconds) {
    KLVMsgSimpleInputStream input;
    KLVMsgBufferedOutputStream output(65536);
    TextMessage steady("Steady"), passing("Passing");
    Communicator().SetDefaultInputStream(&input);
    Communicator().SetDefaultOutputStream(&output);
    Communicator().RegisterMessagePrototype("Steady", &steady);
    Communicator().RegisterMessagePrototype("Passing", &passing);
    KLVMsgServerSocket* const server = StartLoopbackServer();
    const int port = server->address.port;
    Communicator().AddConnection(KLVMsgChannel(server, "server"), true);
    std::vector<std::unique_ptr<PlainPeer>> peers;
    Welcome(peers, port);

    Communicator().PrepareStartupMessageTask();
    Driver driver;
    KLVBasAtiThread driving(driver);
    std::vector<std::thread> threads;
    for (int i = 0; i < steadyPeers; ++i) {
        threads.emplace_back(StaySteady, std::ref(*peers[static_cast<std::size_t>(i)]), i);
    }
    std::vector<std::thread> turmoil;
    turmoil.emplace_back(SendToSteady);
    turmoil.emplace_back(RetrieveAll);
    turmoil.emplace_back(ComeAndGo, port);
    turmoil.emplace_back(ConnectAndEnd, 0);
    turmoil.emplace_back(ConnectAndEnd, 1);
    turmoil.emplace_back(Restart);
    turmoil.emplace_back(AskAround);
    turmoil.emplace_back(KeepFiles);

    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    over = true;
    for (std::thread& thread : turmoil) {
        thread.join();
    }
    if (!Eventually([] { return Retrieve("Steady"), received.Missing() + sent.Missing() == 0; })) {
        Fail("missing: " + std::to_string(received.Missing()) + " received, " +
             std::to_string(sent.Missing()) + " sent");
    }
    Retrieve("Passing");
    Communicator().ShutdownMessageTask();
    driving.Join();
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::cout << "turmoil: " << received.Count() << " received and " << sent.Count()
              << " sent, each once (seed " << seed << ")\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    seed = argc > 2 ? static_cast<unsigned int>(std::atoi(argv[2])) : std::random_device()();
    const int result = Run(argc > 1 ? std::atoi(argv[1]) : 1);
    KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
    KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
    return result;
}
