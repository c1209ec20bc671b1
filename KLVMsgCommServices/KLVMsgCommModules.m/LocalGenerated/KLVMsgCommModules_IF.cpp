#include "KLVMsgCommModules_IF.h"

#include "KLVBasModules.h"
#include "KLVMsgComm_IF.h"
#include "KLVMsgModuleCount.h"

static int subComponentCalled = 0;
static int specificCalled = 0;

void KLVMsgCommModules_initialize(int& status) {
    if (!IsFirstInitialize(subComponentCalled)) {
        return;
    }
    ++status;  // this module is counted before those that it depends on
    KLVSimContainers_initialize(status);
    KLVBasXmlParser_initialize(status);
    KLVBasShared_initialize(status);
    KLVBasMorva_initialize(status);
    KLVBasCoreUtils_initialize(status);
    KLVBasGenericsLib_initialize(status);
    KLVBasAlloc_initialize(status);
    KLVMsgComm_initialize(status);
    KLVMsgCommModules_specific_initialize(status);
}

void KLVMsgCommModules_finalize(int& status) {
    if (!IsLastFinalize(subComponentCalled)) {
        return;
    }
    --status;
    KLVMsgCommModules_specific_finalize(status);
    KLVMsgComm_finalize(status);
    KLVBasAlloc_finalize(status);
    KLVBasGenericsLib_finalize(status);
    KLVBasCoreUtils_finalize(status);
    KLVBasMorva_finalize(status);
    KLVBasShared_finalize(status);
    KLVBasXmlParser_finalize(status);
    KLVSimContainers_finalize(status);
}

void KLVMsgCommModules_specific_initialize(int& status) {
    if (IsFirstInitialize(specificCalled)) {
        ++status;
    }
}

void KLVMsgCommModules_specific_finalize(int& status) {
    if (IsLastFinalize(specificCalled)) {
        --status;
    }
}
