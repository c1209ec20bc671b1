#include "Faults.h"

#include <dlfcn.h>

namespace {

// Relaxed: counting must not order what the threads of a test do.
std::atomic<int> blocks{0};
std::atomic<int> keptBuffers{0};
std::atomic<std::size_t> refusedSize{0};

thread_local int allocations = 0;
thread_local int failing = -1;              // the one to fail, counted like `allocations`
thread_local void* lengthBuffer = nullptr;  // of the last header, while it is in use
thread_local void* nameBuffer = nullptr;

bool Fails() { return Exempt::depth == 0 && ++allocations == failing; }

// What stands behind the function of this name here.
template <class Function>
Function* Next(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void* Counted(void* block) {
    blocks.fetch_add(block == nullptr ? 0 : 1, std::memory_order_relaxed);
    return block;
}

// Header buffers are the only blocks that come from these two functions, and one that is released
// is released before the next is made.
void* Buffer(void* block, void*& last) {
    if (Exempt::depth == 0 && block != nullptr) {
        keptBuffers.fetch_add(1, std::memory_order_relaxed);
        last = block;
    }
    return Counted(block);
}

}  // namespace

void* operator new(std::size_t size) {
    static auto* const next = Next<void*(std::size_t)>(nullptr, "_Znwm");
    return Fails() ? throw std::bad_alloc() : next(size);
}

void* operator new(std::size_t size, const std::nothrow_t& nothrow) noexcept {
    static auto* const next =
        Next<void*(std::size_t, const std::nothrow_t&)>(nullptr, "_ZnwmRKSt9nothrow_t");
    return Fails() ? nullptr : next(size, nothrow);
}

void* mem_OperatorNewThrow(std::size_t size) {
    static auto* const next = Next(&mem_OperatorNewThrow, "_Z20mem_OperatorNewThrowm");
    return Counted(Fails() ? throw std::bad_alloc() : next(size));
}

void* mem_OperatorNewThrowBuiltin(std::size_t size) {
    static auto* const next =
        Next(&mem_OperatorNewThrowBuiltin, "_Z27mem_OperatorNewThrowBuiltinm");
    return Buffer(Fails() ? throw std::bad_alloc() : next(size), lengthBuffer);
}

void* mem_Malloc(std::size_t size) {
    static auto* const next = Next(&mem_Malloc, "_Z10mem_Mallocm");
    if (Fails() || (size >> 30 != 0 && size >> 32 == 0) || !WatchedMutex::available) {
        refusedSize = size;
        return nullptr;
    }
    return Buffer(next(size), nameBuffer);
}

void mem_Free(void* block) {
    static auto* const next = Next(&mem_Free, "_Z8mem_FreePv");
    blocks.fetch_sub(block == nullptr ? 0 : 1, std::memory_order_relaxed);
    for (void** buffer : {&lengthBuffer, &nameBuffer}) {
        if (block != nullptr && block == *buffer) {
            keptBuffers.fetch_sub(1, std::memory_order_relaxed);
            *buffer = nullptr;
        }
    }
    next(block);
}

int Blocks() { return blocks; }
int KeptBuffers() { return keptBuffers; }
int Allocations() { return allocations; }
std::size_t RefusedSize() { return refusedSize; }

FailingAllocation::FailingAllocation(int n) { failing = n > 0 ? allocations + n : -1; }

FailingAllocation::~FailingAllocation() { failing = -1; }

void WatchedMutex::Lock() {
    m_mutex->Lock();
    held.store(true, std::memory_order_relaxed);
    taken.fetch_add(1, std::memory_order_relaxed);
    last = this;
}

void WatchedMutex::Unlock() {
    held.store(false, std::memory_order_relaxed);
    m_mutex->Unlock();
}

KLVBasAtiMutex* KLVBasAtiThreadingModel::newMutex() {
    static auto* const next = Next(&newMutex, "_ZN23KLVBasAtiThreadingModel8newMutexEv");
    const Exempt exempt;
    KLVBasAtiMutex* const mutex = next();
    return mutex == nullptr ? nullptr : new WatchedMutex(mutex);
}
