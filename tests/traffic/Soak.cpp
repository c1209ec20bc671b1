// The hub of soak.py, which answers each text with the same text. It prints its port, and after the
// text "end." how many came from each client.
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "Support.h"

namespace {

using Record = KLVMsgChannelMsgStruct;

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

}  // namespace

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    {
        const Messaging messaging(1 << 30);  // a text goes with one send
        Serve();
    }
    KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
    KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
}
