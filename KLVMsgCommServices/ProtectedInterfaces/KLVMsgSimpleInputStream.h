// For applications: the input stream that the library brings.
#pragma once

#include "KLVMsgExport.h"
#include "KLVMsgInputStream.h"

class KLVMSG_EXPORT KLVMsgSimpleInputStream : public KLVMsgInputStream {
public:
    // One recv on the connection's socket. Sets `count` to the bytes received, which may be fewer
    // than `length`, to 0 when the peer has closed the connection, or to -1 on an error. Waits only
    // while there is nothing to read. Leaves `count` alone when the number is no stream socket.
    void read(void* buffer, int length, int& count) override;
};
