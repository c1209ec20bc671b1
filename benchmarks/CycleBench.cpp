// One cycle of the communicator, driven by hand, with many connections: beside a bare select loop
// on the very same connections.
#include <sys/resource.h>
#include <sys/select.h>

#include "Sockets.h"

namespace bench {
namespace {

constexpr int connections = 450;
constexpr int bodySize = 16;

int receivedSize = bodySize;
char receivedBody[bodySize];

// A server of the registry with connected peers, which stay outside of the library.
class Rig {
public:
    Rig() {
        RaiseDescriptorLimit();
        static Message prototype(receivedBody, receivedSize);
        Communicator().RegisterMessagePrototype(typeName, &prototype);
        Communicator().SetDefaultInputStream(&m_input);
        Communicator().SetDefaultOutputStream(&m_output);
        const auto* const server = Registry().StartServer(KLVMsgSocketAddress("127.0.0.1", 0), 16);
        Communicator().AddConnection(KLVMsgChannel(Registry().GetSocket(server->descriptor), ""),
                                     true);
        for (int i = 0; i < connections; ++i) {
            m_peers.push_back(ConnectToLoopback(server->address.port));
            Communicator().WaitConnectionsAndMessages(nullptr, 999);  // accepts it
        }
        Communicator().RetrieveConnections(nullptr, m_channels);  // the server is the first one
        Require(m_channels.Size() == connections + 1, "connections accepted");
    }

    // The server and its first `count` connections.
    KLVMsgChannelWaitable Watch(int count) const {
        KLVMsgChannelWaitable waitable;
        for (std::size_t i = 0; i <= static_cast<std::size_t>(count); ++i) {
            waitable.channels.PushBack(m_channels[i]);
        }
        return waitable;
    }

    std::vector<int> Descriptors(int count) const {
        std::vector<int> descriptors;
        for (std::size_t i = 0; i <= static_cast<std::size_t>(count); ++i) {
            descriptors.push_back(m_channels[i].connection);
        }
        return descriptors;
    }

    // Sends a message to every `step`-th of `count` connections and returns how many there were.
    int Feed(int count, int step) const {
        char bytes[sizeof typeNameLength + typeNameLength + bodySize];
        std::memcpy(bytes, &typeNameLength, sizeof typeNameLength);
        std::memcpy(bytes + sizeof typeNameLength, typeName, typeNameLength);
        std::memset(bytes + sizeof typeNameLength + typeNameLength, 'b', bodySize);
        int fed = 0;
        for (int i = 0; i < count; i += step, ++fed) {
            const int peer = m_peers[static_cast<std::size_t>(i)];
            Require(send(peer, bytes, sizeof bytes, 0) == sizeof bytes, "feed");
        }
        return fed;
    }

private:
    static void RaiseDescriptorLimit() {
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }

    std::vector<int> m_peers;
    KLVBasVector<KLVMsgChannel> m_channels;
    KLVMsgSimpleInputStream m_input;
    KLVMsgBufferedOutputStream m_output{1 << 16};
};

Rig& TheRig() {
    static Rig rig;
    return rig;
}

// Takes the messages out of the inbox.
void Collect(int expected) {
    KLVBasVector<KLVMsgSocketMessage*> messages;
    const KLVString type(typeName);
    KLVMsgMessageQueryByType query(type);
    Communicator().IRetrieveMessages(&query, messages);
    Require(messages.Size() == static_cast<std::size_t>(expected), "messages of a cycle");
    for (std::size_t i = 0; i < messages.Size(); ++i) {
        delete messages[i];
    }
    Require(receivedBody[0] == 'b' && receivedBody[bodySize - 1] == 'b', "body of a cycle");
}

// Accepts what waits on the first descriptor and reads one message from each of the others.
int BareCycle(std::vector<int>& descriptors) {
    fd_set readable;
    FD_ZERO(&readable);
    int highest = -1;
    for (const int descriptor : descriptors) {
        FD_SET(descriptor, &readable);
        highest = std::max(highest, descriptor);
    }
    timeval timeout = {0, 0};
    Require(select(highest + 1, &readable, nullptr, nullptr, &timeout) != -1, "select");
    if (FD_ISSET(descriptors[0], &readable)) {
        descriptors.push_back(accept(descriptors[0], nullptr, nullptr));
    }
    int read = 0;
    for (std::size_t i = 1; i < descriptors.size(); ++i) {
        if (FD_ISSET(descriptors[i], &readable)) {
            ReceiveBare(descriptors[i], receivedBody, bodySize);
            ++read;
        }
    }
    return read;
}

// Feeds and runs cycles; the time of the cycles alone, for one connection.
template <class Cycle>
std::vector<double> TimeCycles(int count, int step, Cycle cycle) {
    const int repeats = smoke ? 1 : std::max(2, 2000 / count);
    double spent = 0;
    for (int i = 0; i < repeats; ++i) {
        const int fed = TheRig().Feed(count, step);
        spent += cycle(fed);
    }
    return {spent / repeats / count};
}

Comparison::Turn LibraryTurn(int count, int step) {
    return [count, step, waitable = TheRig().Watch(count)]() mutable {
        return TimeCycles(count, step, [&waitable](int fed) {
            const double start = Now();
            Communicator().WaitConnectionsAndMessages(&waitable, 0);
            Communicator().TransmitPendingMessage();
            const double spent = Now() - start;
            Collect(fed);
            return spent;
        });
    };
}

Comparison::Turn BareTurn(int count, int step) {
    return [count, step, descriptors = TheRig().Descriptors(count)]() mutable {
        return TimeCycles(count, step, [&descriptors](int fed) {
            const double start = Now();
            const int read = BareCycle(descriptors);
            const double spent = Now() - start;
            Require(read == fed, "messages of a bare cycle");
            return spent;
        });
    };
}

void RegisterAll() {
    for (const int step : {1, 10}) {
        const std::string ready = step == 1 ? "all_ready" : "one_in_ten_ready";
        for (const int count : {1, 10, 100, connections}) {
            Register("cycle/" + ready + "/" + std::to_string(count), 30,
                     [count, step](benchmark::State& state) {
                         Comparison comparison({"connection"});
                         comparison.Add("library", LibraryTurn(count, step));
                         comparison.Add("bare", BareTurn(count, step));
                         comparison.Run(state);
                     });
        }
    }
    Register("cycle/growth", 30, [](benchmark::State& state) {
        Comparison comparison({"connection"});
        comparison.Add("of 10", LibraryTurn(10, 1));
        comparison.Add("of 450", LibraryTurn(connections, 1));
        comparison.Run(state);
    });
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::Main(argc, argv, &bench::RegisterAll); }
