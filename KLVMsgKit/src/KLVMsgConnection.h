// For the session's own sources: one connection's life.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "KLVMsgEvent.h"
#include "KLVMsgOutput.h"
#include "KLVMsgPeerWatch.h"
#include "KLVMsgSessionOptions.h"
#include "KLVMsgWireReader.h"

// Decides, and does nothing itself: it makes no system call, takes no lock and reads no clock. It
// is told what has happened and answers what is to be done next. Nothing throws: words for which
// there is no memory are left out.
//
// The two directions end by themselves: the peer may end its output and still wait for an answer,
// and what it has sent is read although it takes nothing more.
//
//     open --InputEnded--> half --EndOutput, all taken--> over
//       |                                                  ^
//       +--EndOutput--> its output ended --InputEnded------+
//       +--a fault, a failure, a death, too long a leave---+
//
// `reader` belongs to the thread that reads; the mutex of whoever owns the connection guards the
// rest.
class KLVMsgConnection {
public:
    using Time = KLVMsgPeerWatch::Time;
    using Cause = KLVMsgEvent::Cause;

    KLVMsgConnection(const KLVMsgMessageTypes& types, const KLVMsgSessionOptions& options)
        : reader(types, options.largestBody, options.largestBareBody),
          m_stallEnds(options.stallEnds),
          m_watch({options.stall.Duration(), options.silence.Duration()}) {}

    KLVMsgWireReader reader;
    KLVMsgOutput output;

    // What has happened --------------------------------------------------------------------------

    // The reader was given bytes.
    void Came(Time now);

    // The peer has ended its output.
    void InputEnded();

    // The system took bytes of the run that was out, and would take no more (`isFull`). So many
    // behind them are held: see KLVMsgOutput.
    void Took(Time now, std::size_t count, bool isFull, std::size_t held = 0);

    // The system takes bytes again.
    void HasRoom() { m_isFull = false; }

    // Nothing can be sent any more, though what has come can still be read where the peer has reset
    // the connection, or reading waits for room: errno of the cause.
    void OutputFailed(int error);

    // The connection has failed: errno of the cause.
    void Failed(int error);

    // Time has passed. True when it has begun to stall.
    bool Check(Time now, const KLVMsgPeerWatch::Sample& sample);

    // What is wanted -----------------------------------------------------------------------------

    // Whether there is room for what comes.
    void AllowReading(Time now, bool allowed);

    // Ends the output once all that is queued has gone; what comes is no longer looked at if
    // `discards`.
    void EndOutput(bool discards);

    // The peer has ended its output and may wait for an answer, until `limit` at the latest.
    void AwaitAnswer(Time limit) { m_answers = limit; }

    // Takes a message back, as KLVMsgOutput has it.
    bool CutOut(KLVMsgOutput::Position begin, KLVMsgOutput::Position end);

    // Takes leave: what is queued is dropped, what the system has taken still arrives, and what
    // comes is not looked at. Over at `limit` whatever the peer does.
    void Leave(Time limit);

    // Ends it at once.
    void End(Cause cause, std::string_view text);

    // What is queued when the output fails stays there for who takes it back.
    void KeepOutput() { m_keepsOutput = true; }

    // The output was ended, as EndsOutput has asked.
    void OutputEnded();

    // What is to be done -------------------------------------------------------------------------

    bool Reads() const { return m_inputOpen && (m_readingAllowed || m_discards) && !IsOver(); }
    bool Discards() const { return m_discards; }
    bool Writes() const { return m_outputOpen && !output.IsEmpty() && !IsOver(); }
    bool IsFull() const { return m_isFull; }  // the system takes nothing for now
    bool EndsOutput() const { return m_outputOpen && m_endWhenEmpty && output.IsEmpty(); }
    bool IsOver() const { return m_isOver; }

    // Whether it takes messages, and whether some may come.
    bool Takes() const { return m_outputOpen && !m_endWhenEmpty && !m_isOver; }
    bool Gives() const { return m_inputOpen && !m_discards && !m_isOver; }
    bool Stalls() const { return m_watch.Stalls(); }

    // When Check is next due; Time::max() when it need not be.
    Time NextCheck(Time now) const;

    // Why it is over, or why one of its directions is.
    Cause WhyOver() const { return m_cause; }
    int Error() const { return m_error; }
    const std::string& Text() const { return m_text; }

private:
    void Note(Cause cause, int error, std::string_view text);
    void NoteFailure(int error);
    void OverIfBothHaveEnded();
    void DropOutput();
    void OutputShrank();

    const bool m_stallEnds;
    KLVMsgPeerWatch m_watch;
    bool m_inputOpen = true;
    bool m_outputOpen = true;
    bool m_readingAllowed = true;
    bool m_discards = false;
    bool m_endWhenEmpty = false;
    bool m_dropsOutput = false;
    bool m_keepsOutput = false;
    bool m_isFull = false;
    bool m_isOver = false;
    Time m_answers = Time::max();
    Time m_leaves = Time::max();
    Cause m_cause = KLVMsgEvent::kNoCause;
    int m_error = 0;
    std::string m_text;
};
