// For applications: texts for system error numbers.
#pragma once

#include "KLVMsgExport.h"
#include "KLVString.h"

class aio_ostream;

// Sets `text` to the system's message for an errno value (strerror), or to "unknown error" when the
// C library gives none.
KLVMSG_EXPORT void KLVMsgSocketErrorInfo(int errorNumber, KLVString& text);

// Writes one line to aio_cerr and flushes it: the prefix, ": " and the text that
// KLVMsgSocketErrorInfo gives.
KLVMSG_EXPORT void printError(const char* prefix, int errorNumber);

// Ends the line and flushes the stream, which it returns.
KLVMSG_EXPORT aio_ostream& endl(aio_ostream& stream);
