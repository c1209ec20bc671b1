// For the session's own sources: a greeting on a thread that waits for it.
#pragma once

#include "KLVMsgOutcome.h"
#include "KLVMsgTimeLimit.h"
#include "KLVMsgTransport.h"

struct KLVMsgGreeting {
    using Time = KLVMsgTimeLimit::Clock::time_point;

    // Greets until that is done or has failed, at the latest until then. Gives up when `cancel`
    // becomes readable. What the transport warns of is added to `warning`.
    static KLVMsgOutcome Await(KLVMsgTransport& transport, Time limit, int cancel,
                               std::string& warning);
};
