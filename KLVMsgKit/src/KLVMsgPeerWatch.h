// For the session's own sources: whether a peer is still there, and whether it goes on.
#pragma once

#include <chrono>

// A peer is dead when its system does not answer any more, and stalls when it answers but does not
// read, or stops in the middle of a message. A stall is told once in each direction, until a byte
// moves there again. It never runs while the session itself does not read. Knows no clock: it is
// told the time.
class KLVMsgPeerWatch {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Duration = std::chrono::milliseconds;

    struct Limits {
        Duration stall;
        Duration silence;
    };

    enum Verdict { kFine, kStalls, kDead };

    // What the system says of the peer's system; see KLVMsgTransport.
    struct Sample {
        unsigned unacknowledged;
        unsigned probes;
        Duration sinceAnswer;
    };

    explicit KLVMsgPeerWatch(const Limits& limits) : m_limits(limits) {}

    // Bytes came; `inMiddle` when a part of a message is there.
    void Came(Time now, bool inMiddle);

    // The session reads, or has stopped reading.
    void Reads(Time now, bool reads);

    // The system took bytes of what was queued, or none; `waits` when it would take no more.
    void Took(Time now, bool some, bool waits);

    // The peer has ended its output, so nothing is due from it.
    void InputEnded() { m_input.isDue = false; }

    // Nothing is queued any more, though not for its having been taken.
    void OutputDropped() { m_output.isDue = false; }

    // Looks at it anew.
    Verdict Check(Time now, const Sample& sample);

    // When to check next, if nothing else happens; Time::max() when there is nothing to see.
    Time Next(Time now) const;

    bool Stalls() const {
        return (m_input.isDue && m_input.isTold && m_reads) || (m_output.isDue && m_output.isTold);
    }

private:
    struct Direction {
        bool isDue = false;   // a byte
        Time since{};         // when none has moved
        bool isTold = false;  // that it stalls
    };

    Time StallEnds(const Direction& direction) const;
    Time StallEnds() const;

    const Limits m_limits;
    bool m_reads = true;
    Direction m_input;
    Direction m_output;
    bool m_sent = false;  // something that may not have been acknowledged
    Time m_sentSince{};
};
