#include "mem_Allocation.h"

#include <cstdlib>
#include <new>

void* mem_OperatorNewThrow(std::size_t size) {
    void* const block = mem_Malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* mem_OperatorNewThrowBuiltin(std::size_t size) { return mem_OperatorNewThrow(size); }

void* mem_Malloc(std::size_t size) {
    return std::malloc(size == 0 ? 1 : size);  // malloc(0) may answer null
}

void mem_Free(void* block) { std::free(block); }
