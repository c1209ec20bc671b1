#include "KLVMsgDiagnostics.h"

#include "aio_ostream.h"

void KLVMsgEndLine(aio_ostream& stream) {
    stream.put('\n');
    stream.flush();
}
