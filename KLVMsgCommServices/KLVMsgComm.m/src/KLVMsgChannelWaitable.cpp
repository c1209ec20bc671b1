#include "KLVMsgChannelWaitable.h"

#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "KLVMsgChannelList.h"
#include "KLVMsgCommSocket.h"
#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgDiagnostics.h"
#include "KLVMsgServerSocket.h"
#include "KLVMsgSocketInternals.h"
#include "aio_ostream.h"

namespace {

// A watched channel, and the socket that was found under its number after the wait.
struct ReadableChannel {
    int descriptor;
    KLVMsgSocket* socket;
    KLVMsgChannel channel;
};

bool FitsDescriptorSet(int descriptor) { return descriptor >= 0 && descriptor < FD_SETSIZE; }

// Adds the descriptors of the live sockets to the set; returns the highest one, or -1.
int CollectDescriptors(const KLVBasVector<KLVMsgChannel>& channels, fd_set& set) {
    int highest = -1;
    for (std::size_t i = 0; i < channels.Size(); ++i) {
        const KLVMsgSocket* const socket = channels[i].GetSocket();
        if (socket == nullptr || socket->closed || !FitsDescriptorSet(socket->descriptor)) {
            continue;
        }
        FD_SET(socket->descriptor, &set);
        highest = std::max(highest, socket->descriptor);
    }
    return highest;
}

// The channels whose socket's descriptor is in the set, by descriptor, those of the same descriptor
// in list order. The sockets are looked up anew: one may have been removed during the wait.
std::vector<ReadableChannel> FindReadable(const KLVBasVector<KLVMsgChannel>& channels,
                                          const fd_set& set) {
    std::vector<ReadableChannel> found;
    for (std::size_t i = 0; i < channels.Size(); ++i) {
        KLVMsgSocket* const socket = channels[i].GetSocket();
        if (socket != nullptr && FitsDescriptorSet(socket->descriptor) &&
            FD_ISSET(socket->descriptor, &set)) {
            found.push_back({socket->descriptor, socket, channels[i]});
        }
    }
    const auto byDescriptor = [](const ReadableChannel& a, const ReadableChannel& b) {
        return a.descriptor < b.descriptor;
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

}  // namespace

KLVMsgChannelWaitable::KLVMsgChannelWaitable(const KLVBasVector<KLVMsgChannel>& watched)
    : channels(watched) {}

void KLVMsgChannelWaitable::WaitForConnectionAndMessages(int timeoutMilliseconds) {
    fd_set readable;
    FD_ZERO(&readable);
    const int highest = CollectDescriptors(channels, readable);
    if (highest == -1) {
        return;
    }
    timeval timeout = ToTimeval(timeoutMilliseconds);
    if (select(highest + 1, &readable, nullptr, nullptr, &timeout) == -1) {
        ReportFailedWait(errno);
        return;
    }
    int previous = -1;
    for (const ReadableChannel& found : FindReadable(channels, readable)) {
        auto* const server = dynamic_cast<KLVMsgServerSocket*>(found.socket);
        if (server == nullptr) {
            readyChannels.PushBack(found.channel);
        } else if (acceptConnections && found.descriptor != previous) {
            AcceptConnection(*server);
        }
        previous = found.descriptor;
    }
}

void KLVMsgChannelWaitable::AcceptConnection(KLVMsgServerSocket& server) {
    KLVMsgSocketOwner<KLVMsgCommSocket> accepted(server.Accept());
    if (accepted == nullptr) {
        return;
    }
    auto* const registry = KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
    const KLVMsgChannel channel(accepted.get(), "");
    if (registry->RetireClosedConnection(channel.connection)) {
        KLVMsgEraseEvery(channels, channel);
    }
    newChannels.PushBack(channel);
    bool registered = false;
    try {
        registered = registry->AddConnection(accepted.get()) == 1;
    } catch (...) {
        newChannels.Erase(static_cast<int>(newChannels.Size() - 1));
        throw;
    }
    KLVMsgSocket* const socket = accepted.release();
    if (!registered) {
        // The number is served through the entry that holds it; the second object goes alone.
        KLVMsgDestroySocket(socket);
    }
}
