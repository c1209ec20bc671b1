// The processes that soak.py starts: `soak hub`, which answers each text with the same text, and
// `soak client PORT NAME SEED MILLISECONDS LARGEST hand|task`, which sends and waits for the
// answers, and may be killed at any moment. The hub prints its port, and after the text "end." how
// many came from each client.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mman.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <random>

#include "Support.h"

namespace {

using Clock = std::chrono::steady_clock;
using Record = KLVMsgChannelMsgStruct;

// Of a client, in the file that is its standard output: it survives the client.
struct Account {
    long sent, acknowledged, twice, cut;  // twice: or out of order
};

// A text is "NAME NUMBER letters."; without its last byte it is cut.
bool IsCut(const std::string& text) { return text.empty() || text.back() != '.'; }

// What has come, the oldest first.
std::vector<Record> Retrieve() {
    KLVMsgMessageQueryByType query("Text");
    KLVBasVector<Record> records;
    Communicator().IRetrieveMessagesWithChannel(&query, records);
    const std::vector<Record> newestFirst = VectorOf(records);
    return {newestFirst.rbegin(), newestFirst.rend()};
}

// What is sent goes at once; otherwise most of the time would be spent waiting for it.
void Hurry(const KLVMsgChannel& channel) {
    const int on = 1;
    setsockopt(channel.connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// What has gone stays known until its number comes back: nothing is removed here.
void Serve() {
    KLVMsgServerSocket* const server = StartLoopbackServer();
    Communicator().AddConnection(KLVMsgChannel(server, "server"), true);
    std::printf("%d\n", server->address.port);
    std::fflush(stdout);
    std::map<long, long> received;  // by the client's name, -1 for those that were cut
    for (unsigned int id = 0; received.count(0) == 0;) {  // of nobody's is only the last
        Communicator().WaitConnectionsAndMessages(nullptr, 20);
        const auto records = Retrieve();
        for (const Record& record : records) {
            const std::string& text = TextOf(record.message);
            ++received[IsCut(text) ? -1 : std::atol(text.c_str())];
            Hurry(record.channel);
            Communicator().ISendSocketMessage(record.channel, record.message, id);
        }
        Communicator().TransmitPendingMessage();
        for (const Record& record : records) {
            delete record.message;
        }
    }
    for (const auto& [name, count] : received) {
        std::printf("%ld %ld\n", name, count);
    }
}

// Sends one text, which may be large, or several small ones: behind more than a socket holds a
// header could arrive in pieces, and would be lost. True when all are acknowledged, in their order.
bool Round(KLVMsgChannel& hub, char** arguments, Account& account, std::minstd_rand& generator) {
    static std::deque<TextMessage> sent;  // and not acknowledged
    const auto count = generator() % 2 == 0 ? 1 : 2 + generator() % 7;
    unsigned int id = 0;
    for (auto left = count; left > 0; --left) {
        // As many lengths of two digits as of six.
        const double share = std::uniform_real_distribution<double>(0, 1)(generator);
        const double length = std::pow(count == 1 ? std::atof(arguments[4]) : 2000, share);
        const char letter = static_cast<char>('a' + generator() % 26);
        const std::string begin = std::string(arguments[1]) + " " + std::to_string(++account.sent);
        sent.emplace_back("Text", begin + " " + std::string(std::size_t(length), letter) + ".");
        Communicator().ISendSocketMessage("hub", &sent.back(), id);
    }
    return Eventually([&] {
               if (Communicator().IsOkToShutDownMessageTask()) {  // there is none
                   Communicator().TransmitPendingMessage();
                   Communicator().WaitConnectionsAndMessages(nullptr, 20);
               }
               for (const Record& record : Retrieve()) {
                   const std::string& text = TextOf(record.message);
                   const bool expected = !sent.empty() && sent.front().text == text;
                   ++(expected ? account.acknowledged : IsCut(text) ? account.cut : account.twice);
                   if (expected) {
                       sent.pop_front();
                   }
                   delete record.message;
               }
               return sent.empty() || !hub.IsActiveInCurrentThreads();
           }) &&
           sent.empty();
}

// Round after round, now and then on a new connection.
bool Work(char** arguments) {
    const KLVMsgSocketAddress server("127.0.0.1", std::atoi(arguments[0]));
    std::minstd_rand generator(static_cast<unsigned int>(std::atol(arguments[2])));
    const auto end = Clock::now() + std::chrono::milliseconds(std::atol(arguments[3]));
    auto* const account = static_cast<Account*>(
        mmap(nullptr, sizeof(Account), PROT_READ | PROT_WRITE, MAP_SHARED, fileno(stdout), 0));
    if (*arguments[5] == 't') {
        Communicator().PrepareStartupMessageTask();
    }
    KLVMsgMessageTask task;
    KLVBasAtiThread thread(task);  // unprepared it ends at once
    bool well = true;
    for (KLVMsgChannel hub; well && Clock::now() < end;) {
        if (generator() % 30 == 0 || !hub.IsActiveInCurrentThreads()) {
            Communicator().RemoveConnection(nullptr, true);
            hub = KLVMsgChannel(Registry().ConnectToServer(server, server), "hub");
            Communicator().AddConnection(hub, true);
            Hurry(hub);
        }
        well = Round(hub, arguments, *account, generator);
    }
    Communicator().ShutdownMessageTask();
    thread.Join();
    return well;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    const Messaging messaging(1 << 30);  // a text goes with one send
    const bool well = argc == 8 ? Work(argv + 2) : (Serve(), true);
    Communicator().ShutdownMessageTask();
    KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
    KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
    return well ? 0 : 1;
}
