// How long the examples wait, and how they say what has become of it.
#pragma once

#include <KLVMsgOutcome.h>
#include <KLVMsgTimeLimit.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "Program.h"

// The time limit of the command line.
inline KLVMsgTimeLimit Limit() {
    return TimeLimit::seconds == 0 ? KLVMsgTimeLimit(std::chrono::hours::max())
                                   : KLVMsgTimeLimit(std::chrono::seconds(TimeLimit::seconds));
}

// Throws unless it is done: `late` when the time was over, `lost` when the peer has gone, its own
// words when it failed.
inline void Check(const KLVMsgOutcome& outcome, const std::string& late = "gave up",
                  const std::string& lost = "lost the peer") {
    if (!outcome) {
        throw std::runtime_error(outcome.status == KLVMsgOutcome::kTooLate    ? late
                                 : outcome.status == KLVMsgOutcome::kPeerGone ? lost
                                                                              : outcome.text);
    }
}
