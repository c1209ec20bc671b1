// For applications: selecting channels.
#pragma once

#include "KLVBasVector.h"
#include "KLVMsgChannel.h"
#include "KLVMsgExport.h"
#include "mem_AllocationOperators.h"

// A condition on channels. An application may derive its own. There is no virtual destructor: a
// query is destroyed as what it is.
class KLVMSG_EXPORT KLVMsgChannelQuery : public mem_AllocationOperators {
public:
    // Appends the selected channels of `in` to `out`, in their order. The communicator calls it
    // with its lock held, so it must not call the communicator.
    virtual void Search(const KLVBasVector<KLVMsgChannel>& in,
                        KLVBasVector<KLVMsgChannel>& out) const = 0;

protected:
    ~KLVMsgChannelQuery() = default;
};
