// How the loop serves: sockets that listen, and who comes there.
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>
#include <utility>

#include "KLVMsgLoop.h"

namespace {

constexpr int kMostAccepted = 64;  // of one socket in a round
constexpr std::chrono::milliseconds kFirstPause(10);
constexpr std::chrono::milliseconds kLongestPause(1000);

}  // namespace

KLVMsgOutcome KLVMsgLoop::AddListener(std::uint64_t id, Listener made) {
    const Listener& listener = m_listeners[id] = std::move(made);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = id;
    if (epoll_ctl(m_epoll.Number(), EPOLL_CTL_ADD, listener.socket.Number(), &event) == -1) {
        const int error = errno;
        m_listeners.erase(id);
        return KLVMsgSessionSockets::Failure("cannot wait for connections", error);
    }
    return {};
}

const KLVMsgLoop::Listener* KLVMsgLoop::FindListener(std::uint64_t id) const {
    const auto found = m_listeners.find(id);
    return found == m_listeners.end() ? nullptr : &found->second;
}

int KLVMsgLoop::RemoveListeners(int port, std::uint64_t before) {
    int count = 0;
    for (auto one = m_listeners.upper_bound(before); one != m_listeners.end();) {
        const bool isMeant = port == -1 || one->second.port == port;
        count += isMeant ? 1 : 0;
        // A copy of the descriptor, as a child process may have, would keep it in epoll's list.
        if (isMeant) {
            epoll_ctl(m_epoll.Number(), EPOLL_CTL_DEL, one->second.socket.Number(), nullptr);
            shutdown(one->second.socket.Number(), SHUT_RDWR);
        }
        one = isMeant ? m_listeners.erase(one) : std::next(one);
    }
    return count;
}

void KLVMsgLoop::CheckListeners() {
    for (auto& [id, listener] : m_listeners) {
        if (listener.again <= m_now) {
            epoll_event event = {};
            event.events = EPOLLIN;
            event.data.u64 = id;
            const bool asked =
                epoll_ctl(m_epoll.Number(), EPOLL_CTL_ADD, listener.socket.Number(), &event) == 0;
            listener.again = asked ? Time::max() : m_now + kLongestPause;
        }
    }
}

// With the mutex held, so that the number stays the listener's; between two the others have a turn.
void KLVMsgLoop::Accept(Lock& lock, std::uint64_t id) {
    for (int i = 0; i < kMostAccepted; ++i) {
        const auto found = m_listeners.find(id);
        if (found == m_listeners.end()) {
            return;
        }
        Listener& listener = found->second;
        std::string address;
        KLVMsgDescriptor made;
        int error = ENOMEM;
        try {
            made = KLVMsgSessionSockets::Accept(listener.socket.Number(), address);
            error = made.Number() == -1 ? errno : 0;
        } catch (const std::bad_alloc&) {
            // It waits for a while, as without a descriptor.
        }
        if (error == EAGAIN || error == EWOULDBLOCK) {
            return;
        }
        if (error == 0) {
            listener.pause = std::chrono::milliseconds(0);
            m_owner.OnAccepted(lock, id, std::move(made), address);
        } else if (error != EINTR && error != ECONNABORTED && error != EPROTO) {
            PauseListener(listener, error);
            return;
        }
        lock.unlock();
        lock.lock();
    }
}

// A socket that cannot accept, mostly for want of descriptors, stays readable: it is left alone for
// a while.
void KLVMsgLoop::PauseListener(Listener& listener, int error) {
    epoll_ctl(m_epoll.Number(), EPOLL_CTL_DEL, listener.socket.Number(), nullptr);
    const bool isFirst = listener.pause.count() == 0;
    listener.pause = isFirst ? kFirstPause : std::min(2 * listener.pause, kLongestPause);
    listener.again = m_now + listener.pause;
    if (isFirst) {
        m_owner.OnListenerFailed(listener, error);
    }
}
