// For applications: what has become of the questions of a session.
#pragma once

#include <cstdint>

// Numbers since the session's beginning.
struct KLVMsgQuestionCounts {
    std::uint64_t asked = 0;     // taken for sending
    std::uint64_t answered = 0;  // with the answer handed over, or refused by its Decode
    std::uint64_t tooLate = 0;   // not answered in time
    std::uint64_t failed = 0;    // the peer went, or sent too much that nobody asks for
    std::uint64_t waiting = 0;   // now: none of these
    std::uint64_t dropped =
        0;  // answers for which nobody waits: too late, of another class or peer
};
