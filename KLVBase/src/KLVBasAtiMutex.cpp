#include "KLVBasAtiMutex.h"

#include <mutex>
#include <new>

#include "KLVBasAtiThreadingModel.h"
#include "mem_Allocation.h"

namespace {

class StandardMutex final : public KLVBasAtiMutex {
public:
    void Lock() override { m_mutex.lock(); }
    void Unlock() override { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

}  // namespace

KLVBasAtiMutex::~KLVBasAtiMutex() = default;

KLVBasAtiMutex* KLVBasAtiThreadingModel::newMutex() {
    void* const memory = mem_Malloc(sizeof(StandardMutex));
    return memory == nullptr ? nullptr : ::new (memory) StandardMutex;
}
