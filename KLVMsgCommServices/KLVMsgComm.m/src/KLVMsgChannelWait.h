// For the library's own sources: a wait as the beginning of a longer cycle.
#pragma once

class KLVMsgChannelWaitable;
class KLVMsgCycle;

// What KLVMsgChannelWaitable::WaitForConnectionAndMessages does, in a cycle that may go on: from then
// on it has one turn for each entry of `readyChannels`, in their order. Those of the listening sockets
// are over.
void KLVMsgWaitInCycle(KLVMsgChannelWaitable& waitable, int timeoutMilliseconds,
                       KLVMsgCycle& cycle);
