// For the library's own sources: a wait in its two steps, as the beginning of a cycle.
#pragma once

class KLVMsgChannelWaitable;
class KLVMsgCycle;
class KLVMsgLockedRegistry;

// Looks up and holds the sockets of the live channels that the waitable watches. What an earlier
// wait has found ready gets a turn.
void KLVMsgBeginWait(const KLVMsgChannelWaitable& waitable, KLVMsgCycle& cycle,
                     const KLVMsgLockedRegistry& registry);

// Waits on them and accepts, as WaitForConnectionAndMessages says. Adds a turn for each channel
// that it appends to `readyChannels`: there is one for each entry then, in their order.
void KLVMsgWait(KLVMsgChannelWaitable& waitable, int timeoutMilliseconds, KLVMsgCycle& cycle);
