// For applications: bringing the module up and down.
#pragma once

#include "KLVMsgExport.h"

// Brings the module up, with the base modules that it depends on; called before anything else of
// the library. Any number of modules may call it: only the first call works, the others count.
//
// `status` is the caller's running count of modules that are up: it grows by one for each module
// that this call brings up and is otherwise left alone. No object of the library is made here; the
// communicator and the connection registry are made by the first call of their Instance.
//
// No lock: called from one thread, before any other thread uses the library.
KLVMSG_EXPORT void KLVMsgCommModules_initialize(int& status);

// Takes the module down when it has been called as often as the initialize, and subtracts one
// from `status` for each module that goes down with it. It destroys no object of the library: the
// application calls each singleton's Finalize itself, when every thread that uses it has stopped.
//
// A call without an initialize drives the count below zero and does nothing else. The next
// initialize then only brings the count back, and the one after it brings the module up.
KLVMSG_EXPORT void KLVMsgCommModules_finalize(int& status);

// The hook for what the module would set up beyond its dependencies. It counts like the pair above
// and has nothing else to do.
KLVMSG_EXPORT void KLVMsgCommModules_specific_initialize(int& status);
KLVMSG_EXPORT void KLVMsgCommModules_specific_finalize(int& status);
