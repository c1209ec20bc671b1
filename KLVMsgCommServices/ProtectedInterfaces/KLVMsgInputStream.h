// For applications: the stream from which a message reads its body.
#pragma once

#include "KLVMsgExport.h"
#include "KLVMsgStream.h"

class KLVMSG_EXPORT KLVMsgInputStream : public KLVMsgStream {
public:
    // Reads at most `length` bytes into `buffer` and says in `count` how many. A caller that wants
    // them all asks again for the rest.
    virtual void read(void* buffer, int length, int& count) = 0;

protected:
    ~KLVMsgInputStream() = default;
};
