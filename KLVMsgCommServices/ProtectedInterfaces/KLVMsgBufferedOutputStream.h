// For applications: the output stream that the library brings.
#pragma once

#include "KLVMsgExport.h"
#include "KLVMsgOutputStream.h"

// Sends at once, in pieces of a given size. In spite of its name it buffers nothing.
class KLVMSG_EXPORT KLVMsgBufferedOutputStream : public KLVMsgOutputStream {
public:
    // `bufferSize` is the largest number of bytes handed to one send. It is not checked: with 0 a
    // write never returns, and below 0 it sends nothing. Choose one no smaller than the largest
    // single write: see below.
    explicit KLVMsgBufferedOutputStream(int bufferSize);

    // Up to `bufferSize` bytes go with one send, whose result, -1 included, is added to `count`. A
    // short send is not repeated.
    //
    // More go in pieces. Each piece starts at `data` + `count` and adds its result to `count`, so
    // that after a short send the next piece starts where the socket stopped. The last piece, of
    // what then remains, is not added. Failures are not looked at: each counts as a step back by
    // one byte. While sends fail and the output stays open (EPIPE, say), this goes on for up to
    // 2^31 steps, which can take minutes. Should sending work again meanwhile, bytes that stand
    // before `data` may be sent. Once the output has ended, the result of all these steps is given
    // at once.
    // Requires: `count` is 0.
    //
    // Leaves `count` alone when the number is no stream socket. May block in send.
    void write(void* data, int length, int& count) override;

private:
    int m_bufferSize;
};
