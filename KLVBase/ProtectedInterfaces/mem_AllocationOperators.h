// For applications: objects from the in-house allocator.
#pragma once

#include <cstddef>

#include "KLVBasExport.h"
#include "mem_Allocation.h"

// Base of class trees whose objects come from the in-house allocator: `new` and `delete` on a
// derived class use the functions above. It adds no data and no virtual operation.
class KLVBASE_EXPORT mem_AllocationOperators {
public:
    // From the in-house allocator and back to it; the forms with a place leave memory alone.
    static void* operator new(std::size_t size) { return mem_OperatorNewThrow(size); }
    static void* operator new[](std::size_t size) { return mem_OperatorNewThrow(size); }
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* block) { mem_Free(block); }
    static void operator delete[](void* block) { mem_Free(block); }
    static void operator delete(void*, void*) noexcept {}
};
