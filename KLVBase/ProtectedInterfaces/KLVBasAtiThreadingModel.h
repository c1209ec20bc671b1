// For applications: where mutexes come from.
#pragma once

#include "KLVBasAtiMutex.h"
#include "KLVBasExport.h"

// Makes the primitives of the platform's threading.
class KLVBASE_EXPORT KLVBasAtiThreadingModel {
public:
    // A new, unlocked mutex that the caller deletes, or null when there is no memory for one. It is
    // handed over in the order of arrival: a thread that waits for it gets it before the one that
    // releases it can take it again.
    static KLVBasAtiMutex* newMutex();
};
