// For the library's own sources: diagnostic output.
#pragma once

class aio_ostream;

// Ends the line and flushes the stream. The exported `endl` does the same for applications; the
// library's own lines do not depend on which `endl` a process binds to.
void KLVMsgEndLine(aio_ostream& stream);
