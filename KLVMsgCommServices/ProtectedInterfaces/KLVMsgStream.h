// For applications: what all message streams have.
#pragma once

#include "KLVMsgExport.h"
#include "mem_AllocationOperators.h"

// A stream carries bytes to or from the connection whose number it holds at the moment; it looks
// the socket up anew for every transfer. It adds no framing and holds nothing back. It takes no
// lock while it transfers: one thread at a time. A stream is destroyed as what it is, never through
// a base class.
class KLVMSG_EXPORT KLVMsgStream : public mem_AllocationOperators {
public:
    int m_connectionNumber = -1;  // set by the communicator before each message body

protected:
    ~KLVMsgStream() = default;
};
