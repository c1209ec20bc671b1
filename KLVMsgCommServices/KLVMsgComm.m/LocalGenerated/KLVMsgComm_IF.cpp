#include "KLVMsgComm_IF.h"

#include "KLVMsgModuleCount.h"

static int called = 0;

void KLVMsgComm_initialize(int& status) {
    if (IsFirstInitialize(called)) {
        ++status;
    }
}

void KLVMsgComm_finalize(int& status) {
    if (IsLastFinalize(called)) {
        --status;
    }
}

void Startup() {}
