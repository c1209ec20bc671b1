// For the session's own sources: the module, up as long as there is a session.
#pragma once

// The first one in a process brings it up, the last one takes it down, under a lock of their own.
class KLVMsgModuleUse {
public:
    KLVMsgModuleUse();
    ~KLVMsgModuleUse();
    KLVMsgModuleUse(const KLVMsgModuleUse&) = delete;
    KLVMsgModuleUse& operator=(const KLVMsgModuleUse&) = delete;
};
