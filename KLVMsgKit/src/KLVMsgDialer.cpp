#include "KLVMsgDialer.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <utility>

namespace {

using Clock = KLVMsgTimeLimit::Clock;

// For all addresses of a name together.
constexpr std::chrono::seconds kLongestAttempt(5);

constexpr std::uint64_t kNobody = 0;  // the id of what has none
constexpr int kMostEvents = 64;

KLVMsgOutcome Failure(int error) {
    return KLVMsgSessionSockets::Failure("cannot make what a session waits with", error);
}

}  // namespace

KLVMsgOutcome KLVMsgDialer::Prepare() {
    m_epoll = KLVMsgDescriptor(epoll_create1(EPOLL_CLOEXEC));
    m_timer = KLVMsgDescriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    return m_timer.Number() != -1 && Watch(m_timer.Number(), kNobody, EPOLLIN) ? KLVMsgOutcome()
                                                                               : Failure(errno);
}

bool KLVMsgDialer::Watch(int descriptor, std::uint64_t id, unsigned interest) {
    epoll_event event = {};
    event.events = interest;
    event.data.u64 = id;
    return epoll_ctl(m_epoll.Number(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void KLVMsgDialer::Dial(std::uint64_t id, Time at) {
    Call& call = m_calls[id];
    call.state = kWaits;
    call.due = at;
    if (at < m_timerAt) {
        SetTimer(at);
    }
}

void KLVMsgDialer::Forget(std::uint64_t id) {
    const auto found = m_calls.find(id);
    if (found != m_calls.end()) {
        CloseSocket(found->second);
        m_calls.erase(found);
    }
}

// A copy of the descriptor, as a child process may have, would keep it in epoll's list.
void KLVMsgDialer::CloseSocket(Call& call) {
    if (call.socket.Number() != -1) {
        epoll_ctl(m_epoll.Number(), EPOLL_CTL_DEL, call.socket.Number(), nullptr);
        call.socket = KLVMsgDescriptor();
    }
}

void KLVMsgDialer::Work(const Told& told) {
    std::uint64_t count = 0;
    static_cast<void>(!read(m_timer.Number(), &count, sizeof count));
    TakeAnswers(told);
    TakeConnections(told);
    TakeDue(told);
    Time due = Time::max();
    for (const auto& [id, call] : m_calls) {
        due = std::min(due, call.due);
    }
    SetTimer(due);
}

// The attempt fails where memory runs short.
template <class Step>
void KLVMsgDialer::Guard(std::uint64_t id, Call& call, const Told& told, const Step& step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
        call.state = kIdle;
        call.due = Time::max();
        told(id, {KLVMsgOutcome::kFailed, ENOMEM, std::string()}, KLVMsgDescriptor());
    }
}

void KLVMsgDialer::TakeAnswers(const Told& told) {
    KLVMsgResolver::Answer answer;
    while (m_resolver != nullptr && m_resolver->Next(answer)) {
        const auto found = m_calls.find(answer.id);
        if (found == m_calls.end() || found->second.state != kAsks) {
            continue;
        }
        Call& call = found->second;
        if (!answer.outcome) {
            call.state = kIdle;
            told(answer.id, std::move(answer.outcome), KLVMsgDescriptor());
        } else {
            call.found.swap(answer.found);
            Guard(answer.id, call, told, [&] { TryNext(answer.id, call, 0, told); });
        }
    }
}

void KLVMsgDialer::TakeConnections(const Told& told) {
    epoll_event events[kMostEvents];
    const int count = epoll_wait(m_epoll.Number(), events, kMostEvents, 0);
    for (int i = 0; i < count; ++i) {
        const std::uint64_t id = events[i].data.u64;
        const auto found = m_calls.find(id);
        if (found == m_calls.end() || found->second.state != kConnects) {
            continue;
        }
        Call& call = found->second;
        const int error = KLVMsgSessionSockets::EndConnect(call.socket);
        Guard(id, call, told, [&] { TryNext(id, call, error, told); });
    }
}

void KLVMsgDialer::TakeDue(const Told& told) {
    const Time now = Clock::now();
    for (auto& [id, call] : m_calls) {
        if (call.due <= now) {
            const std::uint64_t number = id;
            Call& one = call;
            Guard(number, one, told, [&] {
                one.state == kWaits ? Begin(number, one, told)
                                    : TryNext(number, one, ETIMEDOUT, told);
            });
        }
    }
}

// Digits are understood at once, a name is asked for.
void KLVMsgDialer::Begin(std::uint64_t id, Call& call, const Told& told) {
    call.due = Time::max();
    call.found.clear();
    call.next = 0;
    KLVMsgOutcome outcome = KLVMsgSessionSockets::Find(call.address, true, call.found);
    if (outcome) {
        TryNext(id, call, 0, told);
        return;
    }
    if (outcome.error == ENOENT) {
        outcome = Ask(id, call);
    }
    call.state = outcome ? kAsks : kIdle;
    if (!outcome) {
        told(id, std::move(outcome), KLVMsgDescriptor());
    }
}

KLVMsgOutcome KLVMsgDialer::Ask(std::uint64_t id, const Call& call) {
    if (m_resolver == nullptr) {
        auto made = std::make_unique<KLVMsgResolver>();
        KLVMsgOutcome outcome = made->Prepare();
        if (outcome && !Watch(made->Descriptor(), kNobody, EPOLLIN)) {
            outcome = Failure(errno);
        }
        if (!outcome) {
            return outcome;
        }
        m_resolver = std::move(made);
    }
    m_resolver->Ask(id, call.address);
    return {};
}

// The last address has come to `error`, 0 where it is connected or there was none: the next one.
void KLVMsgDialer::TryNext(std::uint64_t id, Call& call, int error, const Told& told) {
    bool isDone = call.state == kConnects && error == 0;
    while (!isDone && call.next < call.found.size()) {
        CloseSocket(call);
        error = KLVMsgSessionSockets::BeginConnect(call.found[call.next++], call.socket);
        if (error == EINPROGRESS) {
            if (Watch(call.socket.Number(), id, EPOLLOUT)) {
                call.state = kConnects;
                call.due = Clock::now() + kLongestAttempt / call.found.size();
                return;
            }
            error = errno;
        }
        isDone = error == 0;
    }
    call.state = kIdle;
    call.due = Time::max();
    if (isDone) {
        epoll_ctl(m_epoll.Number(), EPOLL_CTL_DEL, call.socket.Number(), nullptr);
        told(id, {}, std::exchange(call.socket, KLVMsgDescriptor()));
    } else {
        CloseSocket(call);
        const std::string what = "cannot connect to " + KLVMsgSessionSockets::Text(call.address);
        told(id, KLVMsgSessionSockets::Failure(what, error), KLVMsgDescriptor());
    }
}

// One that is too early does no harm.
void KLVMsgDialer::SetTimer(Time at) {
    m_timerAt = at;
    itimerspec limit = {};  // never
    if (at != Time::max()) {
        const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::max<Clock::duration>(at.time_since_epoch(), std::chrono::nanoseconds(1)));
        limit.it_value.tv_sec = since.count() / 1000000000;
        limit.it_value.tv_nsec = since.count() % 1000000000;
    }
    timerfd_settime(m_timer.Number(), TFD_TIMER_ABSTIME, &limit, nullptr);
}
