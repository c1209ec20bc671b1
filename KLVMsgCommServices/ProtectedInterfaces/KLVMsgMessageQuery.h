// For applications: selecting messages.
#pragma once

#include "KLVBasVector.h"
#include "KLVMsgExport.h"
#include "mem_AllocationOperators.h"

class KLVMsgSocketMessage;

// A condition on messages. An application may derive its own.
class KLVMSG_EXPORT KLVMsgMessageQuery : public mem_AllocationOperators {
public:
    // Appends to `indexes` the positions, from 0, of the selected messages: in range, each once, in
    // ascending order. The communicator leaves the message at any other position where it is. It
    // calls this with its lock held, so it must not call the communicator.
    virtual void Search(const KLVBasVector<KLVMsgSocketMessage*>& messages,
                        KLVBasVector<int>& indexes) const = 0;

    virtual ~KLVMsgMessageQuery();
};
