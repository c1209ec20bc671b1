#include "KLVMsgChannelWaitable.h"

#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <vector>

#include "KLVMsgChannelList.h"
#include "KLVMsgChannelWait.h"
#include "KLVMsgCommSocket.h"
#include "KLVMsgCycle.h"
#include "KLVMsgDiagnostics.h"
#include "KLVMsgRegistryInternals.h"
#include "KLVMsgServerSocket.h"
#include "KLVMsgSocketInternals.h"
#include "KLVMsgVectors.h"
#include "aio_ostream.h"

namespace {

bool FitsDescriptorSet(int descriptor) { return descriptor >= 0 && descriptor < FD_SETSIZE; }

// Ends the wait. Each watched channel whose socket's descriptor is in the set gets a turn: in the
// order of descriptors, those of the same descriptor in list order. The others are held no more. A
// channel that was removed meanwhile is left out.
void EndWait(KLVMsgCycle& cycle, const fd_set& set) {
    std::vector<KLVMsgTurn>& turns = cycle.Turns();
    const auto first = static_cast<std::ptrdiff_t>(turns.size());
    {
        const KLVMsgLockedRegistry registry;
        for (const KLVMsgTurn& watched : cycle.Watched()) {
            if (FD_ISSET(watched.socket->descriptor, &set) &&
                registry.Find(watched.channel.connection) == watched.socket) {
                cycle.AddTurn(watched);
            }
        }
    }
    cycle.EndWatch();

    const auto byDescriptor = [](const KLVMsgTurn& a, const KLVMsgTurn& b) {
        return a.socket->descriptor < b.socket->descriptor;
    };
    // Mostly in order already: the system hands out descriptors lowest first.
    if (!std::is_sorted(turns.begin() + first, turns.end(), byDescriptor)) {
        std::stable_sort(turns.begin() + first, turns.end(), byDescriptor);
    }
}

// Exactly 1000 ms become a million microseconds, and a negative time negative ones.
timeval ToTimeval(int milliseconds) {
    if (milliseconds <= 1000) {
        return {0, milliseconds * 1000L};
    }
    return {milliseconds / 1000, milliseconds % 1000 * 1000L};
}

void ReportFailedWait(int error) {
    aio_cerr.print("waiting for select");
    aio_cerr.print_int(error);
    KLVMsgEndLine(aio_cerr);
}

// The descriptors of what is watched that are readable before the time is over.
fd_set Select(const KLVMsgCycle& cycle, int timeoutMilliseconds) {
    fd_set set;
    FD_ZERO(&set);
    int highest = -1;
    for (const KLVMsgTurn& watched : cycle.Watched()) {
        FD_SET(watched.socket->descriptor, &set);
        highest = std::max(highest, watched.socket->descriptor);
    }
    timeval timeout = ToTimeval(timeoutMilliseconds);
    if (select(highest + 1, &set, nullptr, nullptr, &timeout) == -1) {
        ReportFailedWait(errno);
        FD_ZERO(&set);
    }
    return set;
}

// Accepts one connection, registers it and appends its channel to `newChannels`.
void AcceptConnection(KLVMsgServerSocket& server, KLVMsgChannelWaitable& waitable) {
    KLVMsgSocketOwner<KLVMsgCommSocket> connection(server.Accept());
    if (connection == nullptr) {
        return;
    }
    const KLVMsgChannel channel(connection.get(), "");
    KLVMsgAppending<KLVMsgChannel> appending(waitable.newChannels);
    waitable.newChannels.PushBack(channel);
    const bool registered = KLVMsgLockedRegistry().AddAccepted(connection.get());
    appending.Keep();
    KLVMsgEraseEvery(waitable.channels, channel.connection);  // they were somebody else's
    KLVMsgSocket* const socket = connection.release();
    if (!registered) {
        // The number is served through the entry that holds it; the second object goes alone.
        KLVMsgDestroySocket(socket);
    }
}

// Serves the listening sockets among the turns from `first` on, each once, and appends the channels
// of the others to `readyChannels`. No listening socket is held after that.
void ServeReadable(KLVMsgChannelWaitable& waitable, KLVMsgCycle& cycle, std::size_t first) {
    KLVMsgAppending<KLVMsgChannel> appending(waitable.readyChannels);
    const KLVMsgSocket* served = nullptr;
    for (std::size_t i = first; i < cycle.Turns().size(); ++i) {
        const KLVMsgTurn turn = cycle.Turns()[i];
        KLVMsgServerSocket* const server = KLVMsgAsServerSocket(turn.socket);
        if (server == nullptr) {
            waitable.readyChannels.PushBack(turn.channel);
            continue;
        }
        if (waitable.acceptConnections && server != served) {
            AcceptConnection(*server, waitable);
        }
        served = server;
        cycle.DropTurn(i--);
    }
    appending.Keep();
}

}  // namespace

void KLVMsgBeginWait(const KLVMsgChannelWaitable& waitable, KLVMsgCycle& cycle,
                     const KLVMsgLockedRegistry& registry) {
    for (std::size_t i = 0; i < waitable.channels.Size(); ++i) {
        const KLVMsgChannel channel = waitable.channels[i];
        KLVMsgSocket* const socket = registry.Find(channel.connection);
        if (socket != nullptr && FitsDescriptorSet(socket->descriptor)) {
            cycle.Watch(socket, channel);
        }
    }
    for (std::size_t i = 0; i < waitable.readyChannels.Size(); ++i) {
        const KLVMsgChannel channel = waitable.readyChannels[i];
        cycle.AddTurn({registry.Find(channel.connection), channel});
    }
}

void KLVMsgWait(KLVMsgChannelWaitable& waitable, int timeoutMilliseconds, KLVMsgCycle& cycle) {
    if (cycle.Watched().empty()) {
        return;
    }
    const fd_set readable = Select(cycle, timeoutMilliseconds);
    const std::size_t first = cycle.Turns().size();
    EndWait(cycle, readable);
    ServeReadable(waitable, cycle, first);
}

KLVMsgChannelWaitable::KLVMsgChannelWaitable(const KLVBasVector<KLVMsgChannel>& watched)
    : channels(watched) {}

void KLVMsgChannelWaitable::WaitForConnectionAndMessages(int timeoutMilliseconds) {
    if (channels.Size() == 0) {
        return;  // nothing to look up: the registry may not be there, or not any more
    }
    KLVMsgCycleLists lists;
    KLVMsgCycle cycle(lists);
    {
        const KLVMsgLockedRegistry registry;
        KLVMsgBeginWait(*this, cycle, registry);
    }
    KLVMsgWait(*this, timeoutMilliseconds, cycle);
}
