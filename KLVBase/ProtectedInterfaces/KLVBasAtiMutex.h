// For applications: mutual exclusion.
#pragma once

#include "KLVBasExport.h"
#include "mem_AllocationOperators.h"

// A mutual exclusion lock. It is not recursive: the thread that holds it must not lock it again.
class KLVBASE_EXPORT KLVBasAtiMutex : public mem_AllocationOperators {
public:
    virtual ~KLVBasAtiMutex();

    // Waits without limit until the mutex is free, and takes it.
    virtual void Lock() = 0;

    // Hands the mutex over or leaves it free. The thread that gets it next may destroy it at once,
    // even before this call has returned.
    // Requires: the calling thread holds the mutex.
    virtual void Unlock() = 0;
};
