// For applications: bringing the base modules up and down.
#pragma once

#include "KLVBasExport.h"

// Each pair counts its calls. The first initialize adds 1 to `status`, the caller's running count
// of modules that are up; the finalize that matches it subtracts 1; all others only count. A
// finalize without an initialize drives the count below zero and does nothing else. No lock: called
// from one thread while no other uses the modules.
KLVBASE_EXPORT void KLVSimContainers_initialize(int& status);
KLVBASE_EXPORT void KLVSimContainers_finalize(int& status);
KLVBASE_EXPORT void KLVBasXmlParser_initialize(int& status);
KLVBASE_EXPORT void KLVBasXmlParser_finalize(int& status);
KLVBASE_EXPORT void KLVBasShared_initialize(int& status);
KLVBASE_EXPORT void KLVBasShared_finalize(int& status);
KLVBASE_EXPORT void KLVBasMorva_initialize(int& status);
KLVBASE_EXPORT void KLVBasMorva_finalize(int& status);
KLVBASE_EXPORT void KLVBasCoreUtils_initialize(int& status);
KLVBASE_EXPORT void KLVBasCoreUtils_finalize(int& status);
KLVBASE_EXPORT void KLVBasGenericsLib_initialize(int& status);
KLVBASE_EXPORT void KLVBasGenericsLib_finalize(int& status);
KLVBASE_EXPORT void KLVBasAlloc_initialize(int& status);
KLVBASE_EXPORT void KLVBasAlloc_finalize(int& status);
