// For applications: the in-house allocator. Every function may be called from any thread.
#pragma once

#include <cstddef>

#include "KLVBasExport.h"

// Returns `size` bytes aligned for any object, never null. A size of 0 still gives a block of its
// own. Throws std::bad_alloc when the memory cannot be had. Released with mem_Free.
KLVBASE_EXPORT void* mem_OperatorNewThrow(std::size_t size);

// The same for arrays of built-in types, such as byte buffers.
KLVBASE_EXPORT void* mem_OperatorNewThrowBuiltin(std::size_t size);

// Returns `size` bytes aligned for any object, or null when the memory cannot be had.
// Released with mem_Free.
KLVBASE_EXPORT void* mem_Malloc(std::size_t size);

// Releases a block of any of the functions above; a null pointer is ignored.
KLVBASE_EXPORT void mem_Free(void* block);
