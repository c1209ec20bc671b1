// For the kit's own headers: the connections of a session, as its driver knows them.
//
// Used by the driver alone. Before it runs, and after it has ended, so may the session.
#pragma once

#include <sys/select.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "KLVMsgChannelWaitable.h"
#include "KLVMsgCommSocket.h"
#include "KLVMsgSessionLibrary.h"
#include "KLVMsgSessionLines.h"
#include "KLVMsgSessionShared.h"
#include "KLVMsgSessionSockets.h"

class KLVMsgSessionConnections {
public:
    KLVMsgSessionConnections(KLVMsgSessionShared& shared, std::chrono::milliseconds stall)
        : lines(stall), m_shared(shared), m_stall(stall) {}

    // Gives the library the sockets that the application's threads have opened.
    void Adopt() {
        std::vector<KLVMsgSessionShared::Arrival> arrivals;
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            arrivals.swap(m_shared.arrivals);
        }
        for (auto& arrival : arrivals) {
            KLVMsgChannel channel;
            if (arrival.server != nullptr) {
                channel.connection = arrival.server->descriptor;
                MakeRoom(channel.connection);
                Register(std::move(arrival.server));
                m_servers.push_back(channel.connection);
            } else {
                channel.connection = arrival.stream->descriptor;
                MakeRoom(channel.connection);
                Register(std::move(arrival.stream));
                Begin(channel.connection, arrival.peer);
            }
            Watch(channel);
        }
    }

    // The library has accepted a connection, and forgotten who had its number before.
    void Accept(const KLVMsgChannel& channel) {
        const int number = channel.connection;
        if (number >= FD_SETSIZE) {
            // No wait would ever find it readable.
            KLVMsgSessionLibrary::Registry().ShutDownConnection(number);
            return;
        }
        Forget(number);
        KLVMsgPeer peer;
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            m_shared.Add(peer, "");
        }
        m_shared.changed.notify_all();
        Begin(number, peer);
        Watch(channel);
    }

    // The connection has gone, or is of no use any more: the library removes it, and then its peer
    // is no longer there.
    void Lose(int number) {
        KLVMsgSessionLibrary::ByNumber query(number);
        KLVMsgSessionLibrary::Communicator().RemoveConnection(&query, true);
        Unwatch(number);
        Forget(number);
    }

    // Those whose output has failed. Where the peer has ended the connection, what it said before
    // that is still to be read, and reading finds the end.
    void LoseBroken() {
        std::vector<int> broken;
        for (const auto& [number, line] : lines.All()) {
            if (line.outputBroken) {
                broken.push_back(number);
            }
        }
        for (const int number : broken) {
            if (KLVMsgSessionLibrary::Registry().IsConnectionOpen(number) &&
                KLVMsgSessionSockets::Await(number, POLLRDHUP, {}) != 0) {
                const std::lock_guard<std::mutex> lock(m_shared.mutex);
                m_shared.peers[lines.Find(number)->peer].takes = false;
            } else {
                Lose(number);
            }
        }
    }

    // Everything has been sent: the peers read the end of the stream behind it, and close.
    void EndOutputs() {
        for (const int server : m_servers) {
            Lose(server);
        }
        m_servers.clear();
        if (!m_outputsEnded) {
            for (const auto& [number, line] : lines.All()) {
                EndOutput(number);
            }
        }
        m_outputsEnded = true;
    }

    static void EndOutput(int number) {
        KLVMsgSocket* const socket = KLVMsgSessionLibrary::Channel(number).GetSocket();
        if (socket != nullptr) {
            static_cast<KLVMsgCommSocket*>(socket)->ShutDownOutput();
        }
    }

    // The number of a peer's connection; -1 when it has gone.
    int Number(KLVMsgPeer peer) const {
        const auto found = m_byPeer.find(peer);
        return found == m_byPeer.end() ? -1 : found->second;
    }

    template <class Owner>
    static void Register(Owner socket) {
        KLVMsgSessionLibrary::Registry().AddConnection(socket.get());
        socket.release();
    }

    void Unwatch(int number) {
        for (std::size_t i = 0; i < waitable.channels.Size(); ++i) {
            if (waitable.channels[i].connection == number) {
                waitable.channels.Erase(static_cast<int>(i--));
            }
        }
    }

    KLVMsgSessionLines lines;
    KLVMsgChannelWaitable waitable;  // all connections, the servers and the wake-up
    std::size_t longestName = 0;     // of a type that may come

private:
    // The system has given this number out anew: whoever had it has gone.
    void MakeRoom(int number) {
        if (lines.Find(number) != nullptr) {
            Lose(number);
        }
        KLVMsgSessionLibrary::Registry().ShutDownConnection(number);
    }

    void Watch(const KLVMsgChannel& channel) {
        KLVMsgSessionLibrary::Communicator().AddConnection(channel, true);
        waitable.channels.PushBack(channel);
    }

    void Begin(int number, KLVMsgPeer peer) {
        KLVMsgSessionSockets::SetOptions(number, m_stall);
        m_byPeer[peer] = number;
        KLVMsgSessionLine& line = lines.All()[number];
        line.peer = peer;
        line.segment = KLVMsgSessionSockets::SegmentSize(number);
    }

    void Forget(int number) {
        const KLVMsgSessionLine* const line = lines.Find(number);
        if (line == nullptr) {
            return;
        }
        const KLVMsgPeer peer = line->peer;
        m_byPeer.erase(peer);
        lines.All().erase(number);
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            m_shared.peers.erase(peer);
        }
        m_shared.changed.notify_all();
    }

    KLVMsgSessionShared& m_shared;
    const std::chrono::milliseconds m_stall;
    std::map<KLVMsgPeer, int> m_byPeer;
    std::vector<int> m_servers;
    bool m_outputsEnded = false;
};
