// For applications and the library's own sources: the hooks of the messaging classes.
#pragma once

#include "KLVMsgExport.h"

// Count the uses of the messaging classes. The first initialize adds 1 to `status`, the finalize
// that matches it subtracts 1, and all others only count. A finalize without an initialize drives
// the count below zero and does nothing else; the next initialize is then not the first. No lock:
// called from one thread while no other uses the library.
KLVMSG_EXPORT void KLVMsgComm_initialize(int& status);
KLVMSG_EXPORT void KLVMsgComm_finalize(int& status);

// Called for every socket that is made. There is nothing to start up on this platform.
KLVMSG_EXPORT void Startup();
