// For applications: the stream to which a message writes its body.
#pragma once

#include "KLVMsgExport.h"
#include "KLVMsgStream.h"

class KLVMSG_EXPORT KLVMsgOutputStream : public KLVMsgStream {
public:
    // Writes `length` bytes from `data` and adds to `count` how many were reported as written.
    virtual void write(void* data, int length, int& count) = 0;

protected:
    ~KLVMsgOutputStream() = default;
};
