#include "KLVMsgPeerWatch.h"

#include <algorithm>

void KLVMsgPeerWatch::Came(Time now, bool inMiddle) {
    m_came = now;
    m_inMiddle = inMiddle;
    m_stallTold = m_stallTold && m_waits;
}

void KLVMsgPeerWatch::Reads(Time now, bool reads) {
    if (reads != m_reads) {
        m_reads = reads;
        m_came = now;  // what came meanwhile was not looked at
    }
}

void KLVMsgPeerWatch::Took(Time now, bool some, bool waits) {
    if (some || !m_waits) {
        m_took = now;
        m_stallTold = m_stallTold && !some;
    }
    m_waits = waits;
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
    m_sent = m_sent && (unanswered || sample.probes > 0 || m_waits);
    if (!m_stallTold && StallEnds() <= now) {
        m_stallTold = true;
        return kStalls;
    }
    return kFine;
}

// When the stall's time is over; Time::max() when no byte is due.
KLVMsgPeerWatch::Time KLVMsgPeerWatch::StallEnds() const {
    Time end = Time::max();
    if (InputIsDue()) {
        end = std::min(end, m_came + m_limits.stall);
    }
    if (m_waits) {
        end = std::min(end, m_took + m_limits.stall);
    }
    return end;
}

// Looks now and then as long as something is under way. What happens in between only moves the end of
// a stall back, so that nobody need be told.
KLVMsgPeerWatch::Time KLVMsgPeerWatch::Next(Time now) const {
    Time next = Time::max();
    if (m_sent || m_waits) {
        next = now + std::clamp(m_limits.silence / 5, Duration(1), Duration(5000));
    }
    if (!m_stallTold) {
        next = std::min(next, StallEnds());
    }
    return next == Time::max() ? next : std::max(next, now + Duration(1));
}
