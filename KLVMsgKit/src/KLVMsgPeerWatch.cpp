#include "KLVMsgPeerWatch.h"

#include <algorithm>

void KLVMsgPeerWatch::Came(Time now, bool inMiddle) { m_input = {inMiddle, now, false}; }

void KLVMsgPeerWatch::Reads(Time now, bool reads) {
    if (reads != m_reads) {
        m_reads = reads;
        m_input.since = now;  // what came meanwhile was not looked at
    }
}

void KLVMsgPeerWatch::Took(Time now, bool some, bool waits) {
    if (some || !m_output.isDue) {
        m_output.since = now;
    }
    m_output.isTold = m_output.isTold && !some;
    m_output.isDue = waits;
    if (some && !m_sent) {
        m_sent = true;
        m_sentSince = now;
    }
}

KLVMsgPeerWatch::Verdict KLVMsgPeerWatch::Check(Time now, const Sample& sample) {
    const bool unanswered = sample.unacknowledged > 0 || sample.probes >= 3;
    if (m_sent && unanswered && sample.sinceAnswer >= m_limits.silence &&
        now - m_sentSince >= m_limits.silence) {
        return kDead;
    }
    m_sent = m_sent && (unanswered || sample.probes > 0 || m_output.isDue);
    if (StallEnds() > now) {
        return kFine;
    }
    m_input.isTold = m_input.isTold || (m_reads && StallEnds(m_input) <= now);
    m_output.isTold = m_output.isTold || StallEnds(m_output) <= now;
    return kStalls;
}

// When a stall is to be told; Time::max() when no byte is due, or it has been told.
KLVMsgPeerWatch::Time KLVMsgPeerWatch::StallEnds(const Direction& direction) const {
    return direction.isDue && !direction.isTold ? direction.since + m_limits.stall : Time::max();
}

KLVMsgPeerWatch::Time KLVMsgPeerWatch::StallEnds() const {
    return std::min(m_reads ? StallEnds(m_input) : Time::max(), StallEnds(m_output));
}

// Looks now and then as long as something is under way. What happens in between only moves the end
// of a stall back, so that nobody need be told.
KLVMsgPeerWatch::Time KLVMsgPeerWatch::Next(Time now) const {
    Time next = Time::max();
    if (m_sent || m_output.isDue) {
        next = now + std::clamp(m_limits.silence / 5, Duration(1), Duration(5000));
    }
    next = std::min(next, StallEnds());
    return next == Time::max() ? next : std::max(next, now + Duration(1));
}
