// For applications: a thread that runs a task.
#pragma once

#include <memory>

#include "KLVBasAtiThreadTask.h"
#include "KLVBasExport.h"
#include "mem_AllocationOperators.h"

// One operating-system thread, running from construction to the end of the task's Run.
//
// On that thread SIGPIPE is blocked, so that a send to a vanished peer fails with EPIPE there and
// does not end the process. Nothing else in the process changes.
class KLVBASE_EXPORT KLVBasAtiThread : public mem_AllocationOperators {
public:
    // Starts the thread. The task stays the caller's and must live until the thread has ended.
    // Throws std::system_error when the system has no further thread to give.
    explicit KLVBasAtiThread(KLVBasAtiThreadTask& task);

    // Waits for the thread if nobody has yet: it never runs on after its task has gone.
    ~KLVBasAtiThread();

    KLVBasAtiThread(const KLVBasAtiThread&) = delete;
    KLVBasAtiThread& operator=(const KLVBasAtiThread&) = delete;

    // Waits without limit for the thread's end and returns what Run returned; a second call returns
    // the same at once. Called by one thread at a time, and not by the thread itself.
    int Join();

private:
    struct State;

    std::unique_ptr<State> m_state;
};
