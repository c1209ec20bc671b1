#include "Turns.h"

#include <cstdio>
#include <ctime>
#include <random>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kSay(300);
constexpr std::chrono::milliseconds kSilence(2000);  // plus as much as half of it, by chance

std::chrono::milliseconds Silence() {
    return kSilence + std::chrono::milliseconds(std::random_device()() % 1000);
}

}  // namespace

Turns::Turns(Nats& nats, const Options& options, Log& log)
    : m_nats(nats),
      m_log(log),
      m_subject(options.group.empty() ? ""
                                      : "klvmsg.turn." + Routes::Token(options.site) + "." +
                                            Routes::Token(options.group)),
      m_from(Clock::now() + Silence()) {
    if (!m_subject.empty()) {
        m_heard = nats.Subscribe(m_subject);
    }
}

std::string Turns::Heard() {
    std::string earliest;
    while (const NatsMessage message = Nats::Next(m_heard.get(), std::chrono::milliseconds(0))) {
        const std::string turn(Nats::Body(message.get()));
        earliest = earliest.empty() || turn < earliest ? turn : earliest;
    }
    return earliest;
}

bool Turns::IsMine() {
    if (m_subject.empty()) {
        return true;
    }
    const Clock::time_point now = Clock::now();
    const std::string other = Heard();
    if (!other.empty() && (m_turn.empty() || other < m_turn)) {
        m_from = now + Silence();
        if (!std::exchange(m_turn, "").empty()) {
            m_log.Say("turn-over", "another bridge of the group has begun earlier: it goes on");
        }
    } else if (m_turn.empty() && now >= m_from && m_nats.IsConnected()) {
        char turn[64];
        std::snprintf(turn, sizeof turn, "%020lld-%08x", static_cast<long long>(std::time(nullptr)),
                      std::random_device()());
        m_turn = turn;
        m_log.Say("turn", "it is this bridge's turn");
    }
    if (!m_turn.empty() && now - m_said >= kSay) {
        m_said = now;
        m_nats.Tell(m_subject, "", m_turn);
    }
    return !m_turn.empty();
}
