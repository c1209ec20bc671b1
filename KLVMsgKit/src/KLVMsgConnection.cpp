#include "KLVMsgConnection.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>

namespace {

// The errors by which the system says that the peer's does not answer.
bool IsDeath(int error) {
    return error == ETIMEDOUT || error == EHOSTUNREACH || error == EHOSTDOWN ||
           error == ENETUNREACH || error == ENETDOWN;
}

}  // namespace

void KLVMsgConnection::Came(Time now) {
    m_watch.Came(now, reader.InMiddle());
    if (reader.Fault() != KLVMsgEvent::kNoCause) {
        End(reader.Fault(), reader.FaultText());
    }
}

void KLVMsgConnection::InputEnded() {
    if (reader.InMiddle() && !m_discards) {
        Note(KLVMsgEvent::kCut, 0, "the peer has closed in the middle of a message");
    } else {
        Note(KLVMsgEvent::kClosed, 0, "the peer has closed");
    }
    m_inputOpen = false;
    m_watch.InputEnded();
    OverIfBothHaveEnded();
}

void KLVMsgConnection::Took(Time now, std::size_t count, bool isFull, std::size_t held) {
    output.Took(count, held);
    if (m_dropsOutput) {
        output.Clear();
    }
    m_isFull = isFull && !output.IsEmpty();
    m_watch.Took(now, count != 0, m_isFull);
}

void KLVMsgConnection::OutputFailed(int error) {
    const bool isReset = error == EPIPE || error == ECONNRESET;
    if (isReset) {
        Note(KLVMsgEvent::kReset, error, "the peer has reset the connection");
    } else {
        NoteFailure(error);
    }
    if (!isReset && Reads()) {
        m_isOver = true;
        return;
    }
    m_outputOpen = false;
    if (m_keepsOutput) {
        m_isFull = false;
        m_watch.OutputDropped();
    } else {
        DropOutput();
    }
    OverIfBothHaveEnded();
}

// What is out at this moment is dropped when it comes back.
void KLVMsgConnection::DropOutput() {
    m_dropsOutput = true;
    if (!output.IsOut()) {
        output.Clear();
        OutputShrank();
    }
}

// Where nothing is left nothing waits for the system, and the next message need not either.
void KLVMsgConnection::OutputShrank() {
    if (output.IsEmpty()) {
        m_isFull = false;
        m_watch.OutputDropped();
    }
}

void KLVMsgConnection::Failed(int error) {
    NoteFailure(error);
    m_isOver = true;
}

void KLVMsgConnection::NoteFailure(int error) {
    if (IsDeath(error)) {
        Note(KLVMsgEvent::kDead, error, "the peer does not answer: ");
    } else if (error == ENOMEM) {
        Note(KLVMsgEvent::kNoMemory, error, "there was no memory: ");
    } else {
        Note(KLVMsgEvent::kReset, error, "the connection has failed: ");
    }
}

bool KLVMsgConnection::Check(Time now, const KLVMsgPeerWatch::Sample& sample) {
    if (now >= m_leaves) {
        End(KLVMsgEvent::kShutDownHere, "shut down here");
        return false;
    }
    if (now >= m_answers) {
        m_answers = Time::max();
        EndOutput(false);
    }
    const KLVMsgPeerWatch::Verdict verdict = m_watch.Check(now, sample);
    if (verdict == KLVMsgPeerWatch::kDead) {
        Failed(ETIMEDOUT);
    } else if (verdict == KLVMsgPeerWatch::kStalls && m_stallEnds) {
        End(KLVMsgEvent::kStalled, "the peer has stalled");
    }
    return verdict == KLVMsgPeerWatch::kStalls;
}

void KLVMsgConnection::AllowReading(Time now, bool allowed) {
    m_readingAllowed = allowed;
    m_watch.Reads(now, allowed);
}

void KLVMsgConnection::EndOutput(bool discards) {
    m_endWhenEmpty = true;
    m_discards = m_discards || discards;
    if (m_discards) {
        m_watch.InputEnded();  // of what comes nothing is due
    }
}

bool KLVMsgConnection::CutOut(KLVMsgOutput::Position begin, KLVMsgOutput::Position end) {
    const bool isCut = output.CutOut(begin, end);
    OutputShrank();
    return isCut;
}

void KLVMsgConnection::Leave(Time limit) {
    Note(KLVMsgEvent::kShutDownHere, 0, "shut down here");
    m_leaves = std::min(m_leaves, limit);
    EndOutput(true);
    DropOutput();
}

void KLVMsgConnection::End(Cause cause, std::string_view text) {
    Note(cause, 0, text);
    m_isOver = true;
}

void KLVMsgConnection::OutputEnded() {
    m_outputOpen = false;
    OverIfBothHaveEnded();
}

KLVMsgConnection::Time KLVMsgConnection::NextCheck(Time now) const {
    return std::min({m_leaves, m_answers, m_watch.Next(now)});
}

// The first cause is the one. Words that end with a colon are followed by the error's.
void KLVMsgConnection::Note(Cause cause, int error, std::string_view text) {
    if (m_cause != KLVMsgEvent::kNoCause) {
        return;
    }
    m_cause = cause;
    m_error = error;
    try {
        m_text = text;
        if (m_text.size() > 2 && m_text.compare(m_text.size() - 2, 2, ": ") == 0) {
            m_text += std::generic_category().message(error);
        }
    } catch (const std::bad_alloc&) {
        m_text.clear();
    }
}

void KLVMsgConnection::OverIfBothHaveEnded() {
    m_isOver = m_isOver || (!m_inputOpen && !m_outputOpen);
}
