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

UseCount simContainers;
UseCount xmlParser;
UseCount shared;
UseCount morva;
UseCount coreUtils;
UseCount genericsLib;
UseCount alloc;

}  // namespace

void KLVSimContainers_initialize(int& status) { simContainers.Initialize(status); }
void KLVSimContainers_finalize(int& status) { simContainers.Finalize(status); }

void KLVBasXmlParser_initialize(int& status) { xmlParser.Initialize(status); }
void KLVBasXmlParser_finalize(int& status) { xmlParser.Finalize(status); }

void KLVBasShared_initialize(int& status) { shared.Initialize(status); }
void KLVBasShared_finalize(int& status) { shared.Finalize(status); }

void KLVBasMorva_initialize(int& status) { morva.Initialize(status); }
void KLVBasMorva_finalize(int& status) { morva.Finalize(status); }

void KLVBasCoreUtils_initialize(int& status) { coreUtils.Initialize(status); }
void KLVBasCoreUtils_finalize(int& status) { coreUtils.Finalize(status); }

void KLVBasGenericsLib_initialize(int& status) { genericsLib.Initialize(status); }
void KLVBasGenericsLib_finalize(int& status) { genericsLib.Finalize(status); }

void KLVBasAlloc_initialize(int& status) { alloc.Initialize(status); }
void KLVBasAlloc_finalize(int& status) { alloc.Finalize(status); }
