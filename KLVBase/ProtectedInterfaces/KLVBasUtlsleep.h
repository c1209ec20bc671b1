// For applications: sleeping.
#pragma once

#include "KLVBasExport.h"

// Puts the calling thread to sleep for the given number of milliseconds, at the least. A signal
// does not shorten it.
KLVBASE_EXPORT void KLVBasUtlsleep(unsigned milliseconds);
