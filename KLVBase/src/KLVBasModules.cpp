#include "KLVBasModules.h"

namespace {

// How often one module was initialized and not yet finalized; below zero after a finalize too many.
class UseCount {
public:
    void Initialize(int& status) {
        if (m_count++ == 0) {
            ++status;
        }
    }
    void Finalize(int& status) {
        if (--m_count == 0) {
            --status;
        }
    }

private:
    int m_count = 0;
};

UseCount simContainersUses;
UseCount xmlParserUses;
UseCount sharedUses;
UseCount morvaUses;
UseCount coreUtilsUses;
UseCount genericsLibUses;
UseCount allocUses;

}  // namespace

void KLVSimContainers_initialize(int& status) { simContainersUses.Initialize(status); }
void KLVSimContainers_finalize(int& status) { simContainersUses.Finalize(status); }

void KLVBasXmlParser_initialize(int& status) { xmlParserUses.Initialize(status); }
void KLVBasXmlParser_finalize(int& status) { xmlParserUses.Finalize(status); }

void KLVBasShared_initialize(int& status) { sharedUses.Initialize(status); }
void KLVBasShared_finalize(int& status) { sharedUses.Finalize(status); }

void KLVBasMorva_initialize(int& status) { morvaUses.Initialize(status); }
void KLVBasMorva_finalize(int& status) { morvaUses.Finalize(status); }

void KLVBasCoreUtils_initialize(int& status) { coreUtilsUses.Initialize(status); }
void KLVBasCoreUtils_finalize(int& status) { coreUtilsUses.Finalize(status); }

void KLVBasGenericsLib_initialize(int& status) { genericsLibUses.Initialize(status); }
void KLVBasGenericsLib_finalize(int& status) { genericsLibUses.Finalize(status); }

void KLVBasAlloc_initialize(int& status) { allocUses.Initialize(status); }
void KLVBasAlloc_finalize(int& status) { allocUses.Finalize(status); }
