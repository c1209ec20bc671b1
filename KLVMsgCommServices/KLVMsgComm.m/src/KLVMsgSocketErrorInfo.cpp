#include "KLVMsgSocketErrorInfo.h"

#include <cstring>

#include "KLVMsgDiagnostics.h"
#include "aio_ostream.h"

static const char* ErrorText(int errorNumber) {
    const char* const text = std::strerror(errorNumber);
    return text == nullptr ? "unknown error" : text;
}

void KLVMsgSocketErrorInfo(int errorNumber, KLVString& text) {
    text = KLVString(ErrorText(errorNumber));
}

void printError(const char* prefix, int errorNumber) {
    aio_cerr.print(prefix);
    aio_cerr.print(": ");
    aio_cerr.print(ErrorText(errorNumber));
    KLVMsgEndLine(aio_cerr);
}

aio_ostream& endl(aio_ostream& stream) {
    KLVMsgEndLine(stream);
    return stream;
}
