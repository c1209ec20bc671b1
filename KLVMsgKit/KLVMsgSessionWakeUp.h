// For the kit's own headers: how an application's thread ends its session's wait. A wake-up is a
// connection within the process, of which the driver watches one end.
//
// Used by the driver alone, except for the other end, which the mutex of the shared state guards.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <stdexcept>

#include "KLVMsgSessionConnections.h"
#include "KLVMsgSessionLibrary.h"
#include "KLVMsgSessionShared.h"
#include "KLVMsgSessionSockets.h"

class KLVMsgSessionWakeUp {
public:
    KLVMsgSessionWakeUp(KLVMsgSessionShared& shared, KLVMsgSessionConnections& connections)
        : m_shared(shared), m_connections(connections) {}

    // Makes it, in place of one that is no longer there. The library is to read nothing from it and
    // never to send: it is registered, so that the wait finds it, and not made known.
    KLVMsgOutcome Make() {
        int ends[2] = {-1, -1};
        const KLVMsgOutcome outcome = KLVMsgSessionSockets::Pair(ends);
        if (outcome) {
            Close();
            m_connections.Register(KLVMsgSessionSockets::StreamSocket(ends[0], false));
            m_channel.connection = ends[0];
            m_connections.waitable.channels.PushBack(m_channel);
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            m_shared.wakeUp = ends[1];
        }
        return outcome;
    }

    bool Is(const KLVMsgChannel& channel) const { return channel == m_channel; }

    // True when somebody has woken the driver.
    bool Take() {
        char bytes[64];
        const ssize_t count = recv(m_channel.connection, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count == 0 || (count == -1 && errno != EAGAIN && errno != EINTR)) {
            Renew();
        }
        return count > 0;
    }

    void RenewIfClosed() {
        if (!KLVMsgSessionLibrary::Registry().IsConnectionOpen(m_channel.connection)) {
            Renew();
        }
    }

    void Close() {
        if (m_channel.connection != -1) {
            m_connections.Unwatch(m_channel.connection);
            KLVMsgSessionLibrary::Registry().ShutDownConnection(m_channel.connection);
            m_channel.connection = -1;
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            close(m_shared.wakeUp);
            m_shared.wakeUp = -1;
        }
    }

private:
    void Renew() {
        const KLVMsgOutcome outcome = Make();
        if (!outcome) {
            throw std::runtime_error("the session's wake-up is lost: " + outcome.text);
        }
    }

    KLVMsgSessionShared& m_shared;
    KLVMsgSessionConnections& m_connections;
    KLVMsgChannel m_channel;  // the driver's end
};
