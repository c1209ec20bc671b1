#include "KLVMsgChannelWaitable.h"

#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "KLVMsgChannelList.h"
#include "KLVMsgChannelWait.h"
#include "KLVMsgCommSocket.h"
#include "KLVMsgDiagnostics.h"
#include "KLVMsgRegistryInternals.h"
#include "KLVMsgServerSocket.h"
#include "KLVMsgSocketField.h"
#include "KLVMsgSocketInternals.h"
#include "KLVMsgVectors.h"
#include "aio_ostream.h"

namespace {

// A watched channel that was found readable, and its socket.
struct ReadableChannel {
    KLVMsgSocket* socket;
    KLVMsgChannel channel;
};

using Channels = KLVBasVector<KLVMsgChannel>;

bool FitsDescriptorSet(int descriptor) { return descriptor >= 0 && descriptor < FD_SETSIZE; }

// Has the cycle hold the sockets of the watched channels, and behind them of those that an earlier
// wait has found ready: they are going to be read as well.
void HoldSockets(const KLVMsgChannelWaitable& waitable, KLVMsgCycle& cycle) {
    const std::size_t watched = waitable.channels.Size();
    KLVMsgRegistryInternals::Hold(
        cycle, watched + waitable.readyChannels.Size(), [&](std::size_t i) {
            return (i < watched ? waitable.channels[i] : waitable.readyChannels[i - watched])
                .connection;
        });
}

// Adds the descriptors of the live sockets to the set; returns the highest one, or -1.
int CollectDescriptors(const KLVMsgCycle& cycle, std::size_t watched, fd_set& set) {
    int highest = -1;
    for (std::size_t i = 0; i < watched; ++i) {
        const KLVMsgSocket* const socket = cycle.Socket(i);
        if (socket == nullptr || KLVMsgLoad(socket->closed) ||
            !FitsDescriptorSet(socket->descriptor)) {
            continue;
        }
        FD_SET(socket->descriptor, &set);
        highest = std::max(highest, socket->descriptor);
    }
    return highest;
}

// The channels whose socket's descriptor is in the set, by descriptor, those of the same descriptor
// in list order. One that was removed during the wait is left out.
std::vector<ReadableChannel> FindReadable(const KLVMsgCycle& cycle, const Channels& channels,
                                          const fd_set& set) {
    std::vector<ReadableChannel> found;
    const KLVMsgRegistryLock lock;
    for (std::size_t i = 0; i < channels.Size(); ++i) {
        KLVMsgSocket* const socket = cycle.Socket(i);
        if (socket != nullptr && FitsDescriptorSet(socket->descriptor) &&
            FD_ISSET(socket->descriptor, &set) &&
            KLVMsgRegistryInternals::IsRegistered(channels[i].connection, socket)) {
            found.push_back({socket, channels[i]});
        }
    }
    const auto byDescriptor = [](const ReadableChannel& a, const ReadableChannel& b) {
        return a.socket->descriptor < b.socket->descriptor;
    };
    // Mostly in order already: the system hands out descriptors lowest first.
    if (!std::is_sorted(found.begin(), found.end(), byDescriptor)) {
        std::stable_sort(found.begin(), found.end(), byDescriptor);
    }
    return found;
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

// Waits until a descriptor of the cycle's first sockets is readable or the time is over, and tells
// which are.
std::vector<ReadableChannel> Select(const KLVMsgCycle& cycle, const Channels& channels,
                                    int timeoutMilliseconds) {
    fd_set readable;
    FD_ZERO(&readable);
    const int highest = CollectDescriptors(cycle, channels.Size(), readable);
    if (highest == -1) {
        return {};
    }
    timeval timeout = ToTimeval(timeoutMilliseconds);
    if (select(highest + 1, &readable, nullptr, nullptr, &timeout) == -1) {
        ReportFailedWait(errno);
        return {};
    }
    return FindReadable(cycle, channels, readable);
}

// Appends the readable listening sockets, each once.
void AppendListening(const std::vector<ReadableChannel>& readable,
                     std::vector<KLVMsgSocket*>& turns) {
    for (const ReadableChannel& found : readable) {
        if (KLVMsgAsServerSocket(found.socket) != nullptr &&
            (turns.empty() || turns.back() != found.socket)) {
            turns.push_back(found.socket);
        }
    }
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
    const bool registered = KLVMsgRegistryInternals::AddAccepted(connection.get());
    appending.Keep();
    KLVMsgEraseEvery(waitable.channels, channel.connection);  // they were somebody else's
    KLVMsgSocket* const socket = connection.release();
    if (!registered) {
        // The number is served through the entry that holds it; the second object goes alone.
        KLVMsgDestroySocket(socket);
    }
}

}  // namespace

void KLVMsgWaitInCycle(KLVMsgChannelWaitable& waitable, int timeoutMilliseconds,
                       KLVMsgCycle& cycle) {
    HoldSockets(waitable, cycle);
    const std::vector<ReadableChannel> readable =
        Select(cycle, waitable.channels, timeoutMilliseconds);

    // From now on only what has a turn is held: first the listening sockets, then what is ready.
    std::vector<KLVMsgSocket*>& turns = cycle.Plan();
    if (waitable.acceptConnections) {
        AppendListening(readable, turns);
    }
    const std::size_t accepts = turns.size();
    for (std::size_t i = 0; i < waitable.readyChannels.Size(); ++i) {
        turns.push_back(cycle.Socket(waitable.channels.Size() + i));
    }
    KLVMsgAppending<KLVMsgChannel> appending(waitable.readyChannels);
    for (const ReadableChannel& found : readable) {
        if (KLVMsgAsServerSocket(found.socket) == nullptr) {
            turns.push_back(found.socket);
            waitable.readyChannels.PushBack(found.channel);
        }
    }
    cycle.Hold();

    for (std::size_t i = 0; i < accepts; ++i) {
        AcceptConnection(*KLVMsgAsServerSocket(cycle.Current()), waitable);
        cycle.EndTurn();
    }
    appending.Keep();
}

KLVMsgChannelWaitable::KLVMsgChannelWaitable(const KLVBasVector<KLVMsgChannel>& watched)
    : channels(watched) {}

void KLVMsgChannelWaitable::WaitForConnectionAndMessages(int timeoutMilliseconds) {
    KLVMsgCycle cycle;
    KLVMsgWaitInCycle(*this, timeoutMilliseconds, cycle);
}
