// For the bridge's own sources: which bridge of a group carries messages.
#pragma once

#include <chrono>
#include <string>

#include "Log.h"
#include "Nats.h"
#include "Options.h"

// The one whose turn it is says so again and again; another one begins when it has heard nobody for
// a while. Where two have begun, as they do when they cannot hear each other, the later one ends
// once it hears the earlier one.
class Turns {
public:
    // They outlive it. Without a group it is always this one's turn.
    Turns(Nats& nats, const Options& options, Log& log);

    // Asked several times in a second.
    bool IsMine();

private:
    using Clock = std::chrono::steady_clock;

    // The earliest turn of which was heard since the last time; empty: none.
    std::string Heard();

    Nats& m_nats;
    Log& m_log;
    const std::string m_subject;  // empty: there is no group
    NatsSubscription m_heard;
    std::string m_turn;        // since when, and whose; sorts by time; empty: it is not ours
    Clock::time_point m_said;  // that it is ours
    Clock::time_point m_from;  // when it is ours if nobody is heard
};
