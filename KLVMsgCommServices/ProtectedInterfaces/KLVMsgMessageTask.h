// For applications: the background work of the communicator.
#pragma once

#include "KLVBasAtiThreadTask.h"
#include "KLVMsgExport.h"

// The thread body that moves all messages. Run it on one thread (KLVBasAtiThread), after
// PrepareStartupMessageTask; only one may run at a time.
class KLVMSG_EXPORT KLVMsgMessageTask : public KLVBasAtiThreadTask {
public:
    KLVMsgMessageTask();
    ~KLVMsgMessageTask() override;

    // Waits up to 20 ms for connections and messages, transmits what is queued, sleeps 100 ms, and
    // starts again until ShutdownMessageTask has been called. Returns at once when the task was not
    // prepared. The argument is not used, and the result is always 1. An exception that leaves a
    // message's own code, or std::bad_alloc, ends Run and, on a KLVBasAtiThread, the process.
    int Run(int argument) override;
};
