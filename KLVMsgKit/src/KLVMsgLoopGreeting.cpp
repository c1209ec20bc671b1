// What the loop does for connections that are not plain: their greeting, and bytes of their own.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "KLVMsgLoop.h"

namespace {

constexpr std::chrono::seconds kLastWords(1);  // for one that is turned away to read why

}  // namespace

KLVMsgOutcome KLVMsgLoop::AddGuest(std::unique_ptr<KLVMsgTransport> transport, std::uint64_t id,
                                   Time until, LinkPtr& link) {
    KLVMsgOutcome outcome = Add(std::move(transport), id, nullptr, link);
    if (outcome) {
        link->isGreeting = true;
        link->greetsUntil = until;
        Arm(*link);
    }
    return outcome;
}

void KLVMsgLoop::Greeted(Lock& lock, Link& link, const KLVMsgTransport::Greeting& greeting) {
    if (!link.isGreeting) {
        return;  // it was turned away meanwhile
    }
    const bool goesOn = greeting.state == KLVMsgTransport::Greeting::kGoesOn;
    link.greetsWithRoom = greeting.waitsForRoom;
    if (!goesOn || !greeting.warning.empty()) {
        m_owner.OnGreeted(lock, link, greeting);
    }
    if (goesOn) {
        return;
    }
    if (link.client == nullptr) {
        TurnAway(link);
        return;
    }
    link.isGreeting = false;
    if (const int error = link.transport->Admit(); error != 0) {
        link.connection.Failed(error);  // otherwise the client would wait for it
    }
    Touch(link);  // with the last word of its greeting more may have come
}

void KLVMsgLoop::GreetsTooLong(Lock& lock, Link& link) {
    KLVMsgTransport::Greeting greeting;
    greeting.state = KLVMsgTransport::Greeting::kFailed;
    greeting.error = ETIMEDOUT;
    try {
        greeting.text = "the greeting has taken too long";
    } catch (const std::bad_alloc&) {
        // Without words, then.
    }
    Greeted(lock, link, greeting);
}

void KLVMsgLoop::TurnAway(Link& link) {
    link.isGreeting = false;
    link.connection.Leave(m_now + kLastWords);
    Touch(link);
}

void KLVMsgLoop::Flush(Link& link) {
    if (link.HoldsOutput()) {
        const KLVMsgTransport::Result result = link.transport->Flush();
        Settle(link);
        if (result.error != 0 && result.error != EAGAIN) {
            link.connection.OutputFailed(result.error);
            m_owner.OnTook(link);
        }
    }
}

// What was held may have gone although nothing was written since. Whoever waits for it is told, and
// where the connection is over nobody sends it again.
void KLVMsgLoop::Settle(Link& link) {
    if (link.transport->IsPlain() || link.isWriting) {
        return;
    }
    const KLVMsgOutput& output = link.connection.output;
    const std::size_t queued = output.Appended() - output.Taken();  // none where it was dropped
    if (const std::size_t count = std::min(link.transport->TakeHeld(), queued); count != 0) {
        link.connection.Took(m_now, count, link.connection.IsFull());
        m_owner.OnTook(link);
    }
}
