// A received body is a block of the C library's. Here its memory runs short like any other.
#include <cstddef>

#include "Faults.h"

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_realloc(void* block, std::size_t size);

void* __wrap_malloc(std::size_t size) { return AllocationFails() ? nullptr : __real_malloc(size); }
void* __wrap_realloc(void* block, std::size_t size) {
    return AllocationFails() ? nullptr : __real_realloc(block, size);
}
}
