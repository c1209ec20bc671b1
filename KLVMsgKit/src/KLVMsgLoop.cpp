#include "KLVMsgLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "KLVMsgQuietThread.h"

namespace {

constexpr std::uint64_t kWakeUp = 0;  // no connection has this id, or the next one
constexpr std::uint64_t kOwners = ~std::uint64_t{0};
constexpr int kMostEvents = 256;
constexpr std::size_t kMostWritten = std::size_t{64} << 10;  // of one connection in a round
constexpr std::size_t kMostAlone = std::size_t{256} << 10;   // the same, with no other beside it
constexpr std::size_t kMostRuns = 32;                        // of one connection in a round
constexpr std::size_t kWorthWhile = std::size_t{4} << 10;    // bytes to send at a time
constexpr std::chrono::microseconds kLongestGathering(500);
constexpr std::chrono::milliseconds kLate(10);  // a check may be, so that few timers are set

KLVMsgOutcome Failure(const char* what, int error) {
    return KLVMsgSessionSockets::Failure(what, error);
}

// What has broken a connection; where the system does not say it, the peer has.
int FailureOf(int descriptor) {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length);
    return error == 0 ? ECONNRESET : error;
}

}  // namespace

KLVMsgOutcome KLVMsgLoop::Prepare() {
    for (Writing& one : m_writings) {
        one.runs.reserve(kMostRuns);
    }
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
    return KLVMsgStartQuietThread([this] { Run(); }, m_thread);
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
    if (!link->transport->IsPlain()) {
        Touch(*link);  // a client greets first, and with the last word of that more may have come
    }
    return {};
}

KLVMsgOutcome KLVMsgLoop::Watch(int descriptor) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = kOwners;
    return epoll_ctl(m_epoll.Number(), EPOLL_CTL_ADD, descriptor, &event) == 0
               ? KLVMsgOutcome()
               : Failure("cannot wait for connections", errno);
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
        if (!m_looks) {
            const std::uint64_t one = 1;
            static_cast<void>(!write(m_wakeUp.Number(), &one, sizeof one));
        }
    }
}

void KLVMsgLoop::WriteNow(Lock& lock, const LinkPtr& link, Time now) {
    m_now = std::max(m_now, now);
    link->isWriting = true;
    const KLVMsgOutput::Run run = link->connection.output.Take(1);
    lock.unlock();
    const KLVMsgTransport::Result sent =
        link->transport->Write(run.pieces, run.count, m_options.wholeHeaders && run.endsMessage);
    lock.lock();
    Took(*link, sent, sent.count < run.size);
    const KLVMsgConnection& connection = link->connection;
    if (connection.Writes() || connection.IsOver() || connection.EndsOutput()) {
        Touch(*link);
    }
    if (link->client != nullptr && link->due == Time::max() &&
        connection.NextCheck(m_now) != Time::max()) {
        Arm(*link);
    }
}

// The loop's thread ------------------------------------------------------------------------------

void KLVMsgLoop::Run() {
    prctl(PR_SET_TIMERSLACK, 1UL);  // of this thread: it waits for less than the usual 50 us
    epoll_event events[kMostEvents];
    for (;;) {
        const int count = Wait(events, kMostEvents);
        Lock lock(m_mutex);
        m_isAsleep = false;
        m_now = Clock::now();
        if (m_isToStop) {
            Clear("the session has ended");
            DoErrand(lock);
            return;
        }
        for (int i = 0; i < count; ++i) {
            Serve(lock, events[i].data.u64, events[i].events);
        }
        ReadGroup(lock);
        if (m_now >= m_gathersUntil) {
            DoTouched(lock);
        }
        CheckTimers(lock);
        CheckListeners();
        DoErrand(lock);
    }
}

void KLVMsgLoop::DoErrand(Lock& lock) {
    if (std::exchange(m_hasErrand, false)) {
        m_owner.OnErrand(lock);
    }
}

int KLVMsgLoop::Wait(epoll_event* events, int most) {
    Time until;
    bool isIdle = false;
    {
        const Lock lock(m_mutex);
        isIdle = m_firstTouched == nullptr && !m_isToStop && !m_hasErrand;
        // Who touches a connection while others gather need not wake the loop for it.
        m_isAsleep = m_looks = isIdle;
        until = isIdle ? NextTimer() : m_isToStop ? Time::min() : m_gathersUntil;
    }
    return std::max(isIdle ? Idle(events, most, until) : Sleep(events, most, until), 0);
}

// With nothing to do it may look for a while: who wants it then need not wake it.
int KLVMsgLoop::Idle(epoll_event* events, int most, Time until) {
    int count = 0;
    if (m_linger.Begin()) {
        m_linger.Look(until, [&] {
            count = epoll_wait(m_epoll.Number(), events, most, 0);
            return count != 0 || !m_isAsleep;
        });
    }
    if (count == 0) {
        bool isWanted = false;
        {
            const Lock lock(m_mutex);
            m_looks = false;
            isWanted = !m_isAsleep;
        }
        count = isWanted ? 0 : Sleep(events, most, until);
    }
    m_linger.End(count > 0 || !m_isAsleep);
    return count;
}

int KLVMsgLoop::Sleep(epoll_event* events, int most, Time until) const {
    timespec limit = {};
    const Time now = until == Time::max() ? until : Clock::now();
    if (until > now) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::min<Clock::duration>(until - now, std::chrono::hours(1)));
        limit.tv_sec = left.count() / 1000000000;
        limit.tv_nsec = left.count() % 1000000000;
    }
    int count = epoll_pwait2(m_epoll.Number(), events, most,
                             until == Time::max() ? nullptr : &limit, nullptr);
    if (count == -1 && errno == ENOSYS) {
        // A kernel before 5.11: the waits are whole milliseconds, rounded up.
        const bool isEndless = until == Time::max();
        const auto milliseconds = limit.tv_sec * 1000 + (limit.tv_nsec + 999999) / 1000000;
        count = epoll_wait(m_epoll.Number(), events, most,
                           isEndless ? -1 : static_cast<int>(milliseconds));
    }
    return count;
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
    if (id == kOwners) {
        m_owner.OnReadable();
        return;
    }
    const auto found = m_links.find(id);
    if (found == m_links.end()) {
        Accept(lock, id);
        return;
    }
    const LinkPtr link = found->second;
    KLVMsgConnection& connection = link->connection;
    if (link->isGreeting) {
        Enlist(lock, link);
        return;
    }
    if ((happened & EPOLLOUT) != 0) {
        connection.HasRoom();
        Flush(*link);
    }
    if (!connection.Reads() && (happened & (EPOLLERR | EPOLLHUP)) != 0) {
        // What has come before is still there to be read, once there is room for it.
        connection.OutputFailed(FailureOf(link->transport->Descriptor()));
        m_owner.OnTook(*link);
    }
    if (connection.Reads() && (happened & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) {
        Enlist(lock, link);
    } else {
        Tend(*link);
    }
}

// It is read with the others of its group.
void KLVMsgLoop::Enlist(Lock& lock, const LinkPtr& link) {
    Reading& one = m_readings[m_reads++];
    one.link = link;
    one.discards = link->connection.Discards();
    one.greets = link->isGreeting;
    if (m_reads == kGroup) {
        ReadGroup(lock);
    }
}

// Reads once from each, without the mutex, and hands over what has come, with it.
void KLVMsgLoop::ReadGroup(Lock& lock) {
    const std::size_t count = std::exchange(m_reads, 0);
    if (count == 0) {
        return;
    }
    lock.unlock();
    for (std::size_t i = 0; i < count; ++i) {
        Read(m_readings[i]);
    }
    lock.lock();
    for (std::size_t i = 0; i < count; ++i) {
        HandOver(lock, m_readings[i]);
        Tend(*m_readings[i].link);
        m_readings[i].link.reset();
    }
    m_owner.OnGroupCame(lock);
}

// A message's own code may run here.
void KLVMsgLoop::Read(Reading& one) {
    Link& link = *one.link;
    if (one.greets) {
        one.greeting = link.transport->Greet();
        return;
    }
    if (one.discards) {
        const iovec space = {m_buffer.Data(), KLVMsgWireReader::Buffer::kSize};
        one.result = link.transport->Read(&space, 1);
        return;
    }
    KLVMsgWireReader::Space spaces[2];
    link.connection.reader.MakeRoom(m_buffer, spaces);
    iovec pieces[2];
    int count = 0;
    for (const auto& space : spaces) {
        if (space.size != 0) {
            pieces[count++] = {space.data, space.size};
        }
    }
    one.result = link.transport->Read(pieces, count);
    if (one.result.count != 0) {
        link.connection.reader.Came(m_buffer, one.result.count, one.arrivals);
    }
}

void KLVMsgLoop::HandOver(Lock& lock, Reading& one) {
    Link& link = *one.link;
    if (one.greets) {
        Greeted(lock, link, one.greeting);
        return;
    }
    link.received += one.result.count;
    if (one.result.count != 0 && !one.discards) {
        link.connection.Came(m_now);
        m_owner.OnCame(link, one.arrivals, m_buffer.stock);
    } else if (one.result.ended) {
        link.connection.InputEnded();
        m_owner.OnInputEnded(link);
    } else if (one.result.cut) {
        link.connection.End(KLVMsgEvent::kCut, "the connection was cut");
    } else if (one.result.error != 0 && one.result.error != EAGAIN) {
        const std::string_view why = link.transport->Why();
        why.empty() ? link.connection.Failed(one.result.error)
                    : link.connection.End(KLVMsgEvent::kReset, why);
    }
    one.arrivals.messages.clear();
    one.arrivals.unknown.clear();
}

// What the application's threads have left to do, each connection once in a round.
void KLVMsgLoop::DoTouched(Lock& lock) {
    m_written = 0;
    std::size_t links = 0;
    LinkPtr link = std::move(m_firstTouched);
    m_lastTouched = nullptr;
    while (link != nullptr) {
        LinkPtr next = std::move(link->nextTouched);
        link->isTouched = false;
        if (!link->transport->IsPlain() && !link->connection.IsOver() &&
            (link->isGreeting || link->connection.Reads()) && link->transport->HoldsInput()) {
            Enlist(lock, link);
        }
        if (link->isGreeting || link->isWriting || !link->connection.Writes() ||
            link->connection.IsFull()) {
            Tend(*link);
        } else {
            link->isWriting = true;
            m_writings[m_writes++].link = std::move(link);
            ++links;
        }
        if (m_writes == kGroup || next == nullptr) {
            WriteGroup(lock);
        }
        link = std::move(next);
    }
    ReadGroup(lock);
    // Where little was sent to each, sending was most of the work: as long as it took, more
    // gathers.
    if (m_written < links * kWorthWhile) {
        const Time end = Clock::now();
        m_gathersUntil = end + std::min<Clock::duration>(end - m_now, kLongestGathering);
    }
}

// Writes to all whose mark was set, without the mutex. With many connections what is sent at a time
// is little, and taking the mutex for each would cost more than sending.
void KLVMsgLoop::WriteGroup(Lock& lock) {
    const std::size_t count = std::exchange(m_writes, 0);
    bool asks = false;
    for (std::size_t i = 0; i < count; ++i) {
        // A message that goes alone needs no measure.
        Writing& one = m_writings[i];
        one.asks = m_options.wholeHeaders && one.link->transport->IsPlain() &&
                   one.link->connection.output.HasSeveral();
        asks = asks || one.asks;
    }
    if (asks) {
        lock.unlock();
        for (std::size_t i = 0; i < count; ++i) {
            Writing& one = m_writings[i];
            one.segment = one.asks ? one.link->transport->Segment() : 0;
        }
        lock.lock();
    }
    for (std::size_t i = 0; i < count; ++i) {
        TakeRuns(m_writings[i], count == 1 ? kMostAlone : kMostWritten);
    }
    lock.unlock();
    for (std::size_t i = 0; i < count; ++i) {
        Write(m_writings[i]);
    }
    lock.lock();
    for (std::size_t i = 0; i < count; ++i) {
        const LinkPtr link = std::move(m_writings[i].link);
        m_written += m_writings[i].result.count;
        Took(*link, m_writings[i].result, m_writings[i].isFull);
        Tend(*link);
    }
}

void KLVMsgLoop::TakeRuns(Writing& one, std::size_t most) const {
    KLVMsgConnection& connection = one.link->connection;
    one.runs.clear();
    // Without a measure one message goes, however many have come meanwhile.
    const bool isOne = m_options.wholeHeaders && one.link->transport->IsPlain() && !one.asks;
    const std::size_t segment = isOne ? 1 : one.segment;
    std::size_t size = 0;
    while (connection.Writes() && connection.output.HasMore() && one.runs.size() < kMostRuns &&
           size < most && !(isOne && size != 0 && one.runs.back().endsMessage)) {
        one.runs.push_back(connection.output.Take(segment));
        size += one.runs.back().size;
    }
}

void KLVMsgLoop::Write(Writing& one) const {
    one.result = {};
    one.isFull = false;
    for (const KLVMsgOutput::Run& run : one.runs) {
        const KLVMsgTransport::Result sent = one.link->transport->Write(
            run.pieces, run.count, m_options.wholeHeaders && run.endsMessage);
        one.result.count += sent.count;
        one.result.error = sent.error;
        one.result.held = sent.held;
        one.isFull = sent.count < run.size;
        if (one.isFull) {
            return;
        }
    }
}

void KLVMsgLoop::Took(Link& link, const KLVMsgTransport::Result& result, bool isFull) {
    link.isWriting = false;
    link.connection.Took(m_now, result.count, isFull, result.held);
    if (result.error != 0 && result.error != EAGAIN) {
        link.connection.OutputFailed(result.error);
    }
    m_owner.OnTook(link);
}

void KLVMsgLoop::CheckTimers(Lock& lock) {
    while (!m_timers.empty() && m_timers.begin()->first <= m_now) {
        const auto found = m_links.find(m_timers.begin()->second);
        m_timers.erase(m_timers.begin());
        if (found != m_links.end()) {
            const LinkPtr link = found->second;
            link->due = Time::max();
            if (link->isGreeting && link->greetsUntil <= m_now) {
                GreetsTooLong(lock, *link);
            }
            const KLVMsgTransport::Sample sample = link->transport->TakeSample();
            if (link->connection.Check(
                    m_now, {sample.unacknowledged, sample.probes, sample.sinceAnswer})) {
                m_owner.OnStalls(*link);
            }
            Tend(*link);
        }
    }
}

// Does what the connection's state asks for.
void KLVMsgLoop::Tend(Link& link) {
    KLVMsgConnection& connection = link.connection;
    if (!connection.IsOver() && connection.EndsOutput() && !link.isWriting) {
        link.transport->EndOutput();
        if (!link.HoldsOutput()) {
            connection.OutputEnded();
        }
    }
    if (connection.IsOver()) {
        Remove(link);
        return;
    }
    Ask(link);
    Arm(link);
    if ((connection.Writes() && !connection.IsFull() && !link.isWriting) ||
        (!link.transport->IsPlain() && !link.isGreeting && connection.Reads() &&
         link.transport->HoldsInput())) {
        Touch(link);  // the next round goes on
    }
}

// Takes it out of the map. Who writes to it at this moment is told, and closes it. The peer is told
// here: a child process may have a copy of the descriptor.
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
    Settle(link);
    m_owner.OnOver(link);
}

// Tells epoll what is waited for. One that is not read is watched for errors alone, and
// edge-triggered: otherwise an error, or bytes that nobody reads, would be reported without end.
void KLVMsgLoop::Ask(Link& link) {
    const KLVMsgConnection& connection = link.connection;
    const bool needsRoom = (connection.Writes() && connection.IsFull()) || link.HoldsOutput();
    const unsigned interest =
        link.isGreeting ? (link.greetsWithRoom ? EPOLLOUT : EPOLLIN)
                        : (connection.Reads() ? EPOLLIN : EPOLLET) | (needsRoom ? EPOLLOUT : 0U);
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

// A check that comes too early does no harm, so that it is only ever moved to an earlier time.
void KLVMsgLoop::Arm(Link& link) {
    const Time next = link.isGreeting ? link.greetsUntil : link.connection.NextCheck(m_now);
    if (next < link.due && (link.due == Time::max() || next < link.due - kLate)) {
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
