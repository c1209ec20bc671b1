// For applications: a message together with its channel.
#pragma once

#include "KLVMsgChannel.h"
#include "KLVMsgExport.h"

class KLVMsgSocketMessage;

// A record of the inbox or of the pending queue, plain data.
class KLVMSG_EXPORT KLVMsgChannelMsgStruct {
public:
    KLVMsgChannel channel;                   // where it came from, or goes to
    KLVMsgSocketMessage* message = nullptr;  // not owned
    unsigned int id = 0;                     // the send id; without meaning for a received message
};
