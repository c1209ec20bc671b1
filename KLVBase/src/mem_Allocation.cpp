#include "mem_Allocation.h"

#include <cstdlib>
#include <new>

static void* Allocate(std::size_t size) {
    return std::malloc(size == 0 ? 1 : size);  // malloc(0) may answer null
}

static void* AllocateOrThrow(std::size_t size) {
    void* const block = Allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* mem_OperatorNewThrow(std::size_t size) { return AllocateOrThrow(size); }

void* mem_OperatorNewThrowBuiltin(std::size_t size) { return AllocateOrThrow(size); }

void* mem_Malloc(std::size_t size) { return Allocate(size); }

void mem_Free(void* block) { std::free(block); }
