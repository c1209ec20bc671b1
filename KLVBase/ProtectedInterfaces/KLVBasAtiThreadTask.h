// For applications: work for a thread.
#pragma once

#include "KLVBasExport.h"
#include "mem_AllocationOperators.h"

// A piece of work for a thread. The application derives from it, or uses one that a library brings.
class KLVBASE_EXPORT KLVBasAtiThreadTask : public mem_AllocationOperators {
public:
    virtual ~KLVBasAtiThreadTask();

    // The body of the thread. KLVBasAtiThread passes 0 and hands the result to Join. An exception
    // that leaves it ends the process.
    virtual int Run(int argument) = 0;
};
