// For applications: the output stream that the library brings.
#pragma once

#include "KLVMsgExport.h"
#include "KLVMsgOutputStream.h"

// Sends at once, in pieces of a given size. In spite of its name it buffers nothing.
class KLVMSG_EXPORT KLVMsgBufferedOutputStream : public KLVMsgOutputStream {
public:
    // `bufferSize` is the largest number of bytes handed to one send. It is not checked; a size
    // below 1 cannot carry a body. Choose one no smaller than the largest single write: see below.
    explicit KLVMsgBufferedOutputStream(int bufferSize);

    // Up to `bufferSize` bytes go with one send, whose result, -1 included, is added to `count`. A
    // short send is not repeated.
    //
    // More go in pieces. Each piece starts at `data` + `count` and adds its result to `count`, so
    // that a short send resumes where the socket stopped; the last one, of what then remains, is
    // not added. Results are not looked at: a failure counts as a step back by one byte. Sends that
    // keep failing while the output stays open (EPIPE, say) keep the writer busy for up to 2^31
    // steps, which can take minutes, and one that recovers may be sent bytes that stand before
    // `data`. On an output that has ended the result of all these steps is there at once.
    // Requires: `count` is 0.
    //
    // Leaves `count` alone when the number is no stream socket. May block in send.
    void write(void* data, int length, int& count) override;

private:
    int m_bufferSize;
};
