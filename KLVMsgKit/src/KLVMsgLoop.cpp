#include "KLVMsgLoop.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

constexpr std::uint64_t kWakeUp = 0;  // no connection has this id
constexpr int kMostEvents = 256;
constexpr int kMostAccepted = 64;                            // of one socket in a round
constexpr std::size_t kMostWritten = std::size_t{64} << 10;  // of one connection in a round
constexpr std::chrono::milliseconds kFirstPause(10);
constexpr std::chrono::milliseconds kLongestPause(1000);

KLVMsgOutcome Failure(const char* what, int error) {
    return KLVMsgSessionSockets::Failure(what, error);
}

}  // namespace

KLVMsgOutcome KLVMsgLoop::Prepare() {
    m_epoll = KLVMsgDescriptor(epoll_create1(EPOLL_CLOEXEC));
    m_wakeUp =
        KLVMsgDescriptor(m_epoll.Number() == -1 ? -1 : eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = kWakeUp;
    if (m_wakeUp.Number() == -1 ||
        epoll_ctl(m_epoll.Number(), EPOLL_CTL_ADD, m_wakeUp.Number(), &event) == -1) {
        return Failure("cannot make what a session waits with", errno);
    }
    return {};
}

KLVMsgOutcome KLVMsgLoop::Start() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    KLVMsgOutcome outcome;
    try {
        m_thread = std::make_unique<std::thread>([this] { Run(); });
    } catch (const std::system_error& error) {
        outcome = Failure("cannot start a thread", error.code().value());
    } catch (const std::bad_alloc&) {
        outcome = Failure("cannot start a thread", ENOMEM);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return outcome;
}

void KLVMsgLoop::Stop() {
    {
        const Lock lock(m_mutex);
        m_isToStop = true;
        Wake();
    }
    if (m_thread != nullptr) {
        m_thread->join();
        m_thread.reset();
    }
    // One by one: a long list would take itself apart in as many nested calls.
    const Lock lock(m_mutex);
    for (LinkPtr link = std::move(m_firstTouched); link != nullptr;) {
        link = LinkPtr(std::move(link->nextTouched));
    }
    m_lastTouched = nullptr;
}

KLVMsgOutcome KLVMsgLoop::Add(std::unique_ptr<KLVMsgTransport> transport, std::uint64_t id,
                              Client* client, LinkPtr& link) {
    link = std::make_shared<Link>(id, std::move(transport), client, m_types, m_options);
    m_links.emplace(id, link);
    epoll_event event = {};
    event.events = link->interest = EPOLLIN;
    event.data.u64 = id;
    if (epoll_ctl(m_epoll.Number(), EPOLL_CTL_ADD, link->transport->Descriptor(), &event) == -1) {
        const int error = errno;
        m_links.erase(id);
        link.reset();
        return Failure("cannot wait for a connection", error);
    }
    return {};
}

KLVMsgOutcome KLVMsgLoop::AddListener(KLVMsgDescriptor socket, std::uint64_t id, int port,
                                      std::string text) {
    Listener& listener = m_listeners[id];
    listener.socket = std::move(socket);
    listener.text = std::move(text);
    listener.port = port;
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = id;
    if (epoll_ctl(m_epoll.Number(), EPOLL_CTL_ADD, listener.socket.Number(), &event) == -1) {
        const int error = errno;
        m_listeners.erase(id);
        return Failure("cannot wait for connections", error);
    }
    return {};
}

int KLVMsgLoop::RemoveListeners(int port) {
    int count = 0;
    for (auto one = m_listeners.begin(); one != m_listeners.end();) {
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

void KLVMsgLoop::Clear(const char* cause) {
    while (!m_links.empty()) {
        const LinkPtr link = m_links.begin()->second;
        link->connection.End(KLVMsgEvent::kShutDownHere, cause);
        Remove(*link);
    }
}

// Those with work are a list of their own making: it takes no memory, so that it cannot fail.
void KLVMsgLoop::Touch(Link& link) {
    const auto found = link.isTouched ? m_links.end() : m_links.find(link.id);
    if (found == m_links.end()) {
        return;
    }
    link.isTouched = true;
    (m_lastTouched == nullptr ? m_firstTouched : m_lastTouched->nextTouched) = found->second;
    m_lastTouched = &link;
    Wake();
}

void KLVMsgLoop::Wake() {
    if (m_isAsleep) {
        m_isAsleep = false;
        const std::uint64_t one = 1;
        static_cast<void>(!write(m_wakeUp.Number(), &one, sizeof one));
    }
}

void KLVMsgLoop::WriteNow(Lock& lock, const LinkPtr& link, Time now) {
    m_now = std::max(m_now, now);
    Write(lock, link);
    if (link->connection.Writes() || link->connection.IsOver() || link->connection.EndsOutput()) {
        Touch(*link);
    }
    if (link->client != nullptr && link->due == Time::max() &&
        link->connection.NextCheck(m_now) != Time::max()) {
        Arm(*link);
    }
}

// The loop's thread ------------------------------------------------------------------------------

void KLVMsgLoop::Run() {
    epoll_event events[kMostEvents];
    for (;;) {
        const int count = Wait(events, kMostEvents);
        Lock lock(m_mutex);
        m_isAsleep = false;
        m_now = Clock::now();
        if (m_isToStop) {
            return;
        }
        for (int i = 0; i < count; ++i) {
            Serve(lock, events[i].data.u64, events[i].events);
        }
        DoTouched(lock);
        CheckTimers();
        CheckListeners();
    }
}

int KLVMsgLoop::Wait(epoll_event* events, int most) {
    int milliseconds = 0;
    {
        const Lock lock(m_mutex);
        if (m_firstTouched == nullptr && !m_isToStop) {
            const Time next = NextTimer();
            milliseconds = -1;
            if (next != Time::max()) {
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
                milliseconds = static_cast<int>(std::clamp<long long>(left.count(), 0, 3600000));
            }
        }
        m_isAsleep = milliseconds != 0;
    }
    const int count = epoll_wait(m_epoll.Number(), events, most, milliseconds);
    return std::max(count, 0);
}

KLVMsgLoop::Time KLVMsgLoop::NextTimer() const {
    Time next = m_timers.empty() ? Time::max() : m_timers.begin()->first;
    for (const auto& [id, listener] : m_listeners) {
        next = std::min(next, listener.again);
    }
    return next;
}

void KLVMsgLoop::Serve(Lock& lock, std::uint64_t id, unsigned happened) {
    if (id == kWakeUp) {
        std::uint64_t count = 0;
        static_cast<void>(!read(m_wakeUp.Number(), &count, sizeof count));
        return;
    }
    const auto found = m_links.find(id);
    if (found == m_links.end()) {
        Accept(lock, id);
        return;
    }
    const LinkPtr link = found->second;
    KLVMsgConnection& connection = link->connection;
    if (connection.Reads()) {
        if ((happened & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) {
            Read(lock, *link);
        }
    } else if ((happened & (EPOLLERR | EPOLLHUP)) != 0) {
        // What has come before is still there to be read, once there is room for it.
        connection.OutputFailed(ECONNRESET);
        m_owner.OnTook(*link);
    }
    if ((happened & EPOLLOUT) != 0 && connection.Writes()) {
        Write(lock, link);
    }
    Tend(*link);
}

void KLVMsgLoop::Read(Lock& lock, Link& link) {
    const bool discards = link.connection.Discards();
    KLVMsgTransport::Result result;
    lock.unlock();
    if (discards) {
        const iovec space = {m_buffer.Data(), KLVMsgWireReader::Buffer::kSize};
        result = link.transport->Read(&space, 1);
    } else {
        Read(link, result);
    }
    lock.lock();
    link.received += result.count;
    if (result.count != 0 && !discards) {
        link.connection.Came(m_now);
        m_owner.OnCame(link, m_arrivals);
    } else if (result.ended) {
        link.connection.InputEnded();
        m_owner.OnInputEnded(link);
    } else if (result.error != 0 && result.error != EAGAIN) {
        link.connection.Failed(result.error);
    }
    m_arrivals.messages.clear();
    m_arrivals.unknown.clear();
}

// Without the mutex: a message's own code may run here.
void KLVMsgLoop::Read(Link& link, KLVMsgTransport::Result& result) {
    KLVMsgWireReader::Space spaces[2];
    try {
        link.connection.reader.MakeRoom(m_buffer, spaces);
    } catch (const std::bad_alloc&) {
        result.error = ENOMEM;
        return;
    }
    iovec pieces[2];
    int count = 0;
    for (const auto& space : spaces) {
        if (space.size != 0) {
            pieces[count++] = {space.data, space.size};
        }
    }
    result = link.transport->Read(pieces, count);
    if (result.count != 0) {
        link.connection.reader.Came(m_buffer, result.count, m_arrivals);
    }
}

// Sends one run. False when the mark is somebody else's.
bool KLVMsgLoop::Write(Lock& lock, const LinkPtr& link) {
    KLVMsgConnection& connection = link->connection;
    if (link->isWriting || !connection.Writes()) {
        return false;
    }
    link->isWriting = true;
    std::size_t segment = 0;
    // A message that goes alone needs no measure.
    if (m_options.wholeHeaders && connection.output.HasSeveral()) {
        lock.unlock();
        segment = link->transport->Segment();
        lock.lock();
    }
    if (connection.Writes()) {
        const KLVMsgOutput::Run run = connection.output.Take(segment);
        lock.unlock();
        const KLVMsgTransport::Result result = link->transport->Write(
            run.pieces, run.count, m_options.wholeHeaders && run.endsMessage);
        lock.lock();
        connection.Took(m_now, result.count, result.error == EAGAIN || result.count < run.size);
        if (result.error != 0 && result.error != EAGAIN) {
            connection.OutputFailed(result.error);
        }
        m_owner.OnTook(*link);
    }
    link->isWriting = false;
    return true;
}

// What the application's threads have left to do.
void KLVMsgLoop::DoTouched(Lock& lock) {
    LinkPtr link = std::move(m_firstTouched);
    m_lastTouched = nullptr;
    while (link != nullptr) {
        LinkPtr next = std::move(link->nextTouched);
        link->isTouched = false;
        KLVMsgConnection& connection = link->connection;
        const KLVMsgOutput::Position before = connection.output.Taken();
        while (connection.Writes() && !connection.IsFull() &&
               connection.output.Taken() - before < kMostWritten && Write(lock, link)) {
        }
        Tend(*link);
        link = std::move(next);
    }
}

void KLVMsgLoop::CheckTimers() {
    while (!m_timers.empty() && m_timers.begin()->first <= m_now) {
        const auto found = m_links.find(m_timers.begin()->second);
        m_timers.erase(m_timers.begin());
        if (found != m_links.end()) {
            const LinkPtr link = found->second;
            link->due = Time::max();
            const KLVMsgTransport::Sample sample = link->transport->TakeSample();
            if (link->connection.Check(
                    m_now, {sample.unacknowledged, sample.probes, sample.sinceAnswer})) {
                m_owner.OnStalls(*link);
            }
            Tend(*link);
        }
    }
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
            m_owner.OnAccepted(std::move(made), address);
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

// Does what the connection's state asks for.
void KLVMsgLoop::Tend(Link& link) {
    KLVMsgConnection& connection = link.connection;
    if (!connection.IsOver() && connection.EndsOutput() && !link.isWriting) {
        link.transport->EndOutput();
        connection.OutputEnded();
    }
    if (connection.IsOver()) {
        Remove(link);
        return;
    }
    Ask(link);
    Arm(link);
    if (connection.Writes() && !connection.IsFull() && !link.isWriting) {
        Touch(link);  // the next round goes on
    }
}

// Takes it out of the map. Who writes to it at this moment is told, and closes it. The peer is told here:
// a child process may have a copy of the descriptor.
void KLVMsgLoop::Remove(Link& link) {
    const auto found = m_links.find(link.id);
    if (found == m_links.end()) {
        return;
    }
    const LinkPtr kept = found->second;
    m_links.erase(found);
    epoll_ctl(m_epoll.Number(), EPOLL_CTL_DEL, link.transport->Descriptor(), nullptr);
    m_timers.erase({link.due, link.id});
    link.transport->Break();
    m_owner.OnOver(link);
}

// Tells epoll what is waited for. One that is not read is watched for errors alone, and
// edge-triggered: otherwise an error, or bytes that nobody reads, would be reported without end.
void KLVMsgLoop::Ask(Link& link) {
    const KLVMsgConnection& connection = link.connection;
    const unsigned interest = (connection.Reads() ? EPOLLIN : EPOLLET) |
                              (connection.Writes() && connection.IsFull() ? EPOLLOUT : 0U);
    if (interest == link.interest) {
        return;
    }
    epoll_event event = {};
    event.events = interest;
    event.data.u64 = link.id;
    if (epoll_ctl(m_epoll.Number(), EPOLL_CTL_MOD, link.transport->Descriptor(), &event) == 0) {
        link.interest = interest;
    } else {
        link.connection.Failed(errno);
        Remove(link);
    }
}

// A check that comes too early does no harm, so that it is only ever set when none is.
void KLVMsgLoop::Arm(Link& link) {
    const Time next = link.connection.NextCheck(m_now);
    if (next < link.due && (link.due == Time::max() || next < link.due - kFirstPause)) {
        const bool isFirst = m_timers.empty() || next < m_timers.begin()->first;
        if (link.due != Time::max()) {
            m_timers.erase({link.due, link.id});
        }
        link.due = Time::max();
        try {
            m_timers.emplace(next, link.id);
            link.due = next;
        } catch (const std::bad_alloc&) {
            return;  // the next one who tends it tries again
        }
        if (isFirst) {
            Wake();
        }
    }
}
