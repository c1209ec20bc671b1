// For applications: the untyped array and the functions that handle its elements.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>

#include "KLVBasExport.h"

// How a vector copies one element into raw memory.
using KLVBasElementCopy = void (*)(void* to, const void* from);

// How a vector destroys one element. Null says that the elements are plain data: nothing is to be
// destroyed, and they may be moved byte by byte.
using KLVBasElementDestroy = void (*)(void* element);

// Copies an element that is plain data.
template <class T>
KLVBASE_EXPORT void KLVBasPODCopy(void* to, const void* from) {
    std::memcpy(to, from, sizeof(T));
}

// Copies an element with its copy constructor.
template <class T>
KLVBASE_EXPORT void KLVBasStandardCopy(void* to, const void* from) {
    ::new (to) T(*static_cast<const T*>(from));
}

// Destroys an element with its destructor.
template <class T>
KLVBASE_EXPORT void KLVBasStandardDestroy(void* element) {
    static_cast<T*>(element)->~T();
}

// The untyped array beneath KLVBasVector<T>: it stores the size of an element and the functions
// that copy and destroy one. Elements lie one behind the other and move when the array grows.
//
// std::bad_alloc, or an exception of an element's copy, passes through and leaves the array as it
// was, but for Erase. No lock: one thread at a time.
class KLVBASE_EXPORT KLVBasVectorGeneric {
public:
    // An empty array of elements of `elementSize` bytes. A null `destroy` says that they are plain
    // data.
    KLVBasVectorGeneric(std::size_t elementSize, KLVBasElementCopy copy,
                        KLVBasElementDestroy destroy) noexcept
        : m_elementSize(elementSize), m_copy(copy), m_destroy(destroy) {}

    // Copies every element.
    KLVBasVectorGeneric(const KLVBasVectorGeneric& other);
    KLVBasVectorGeneric& operator=(const KLVBasVectorGeneric& other);
    ~KLVBasVectorGeneric();

    // Appends a copy of the element; it may be one of this array's own.
    void PushBack(const void* element);

    // Removes the element at `position` and moves the later ones down; allocates nothing. A
    // position that is not in the array, such as -1, erases nothing. If copying a later element
    // throws, that element and those behind it are destroyed too, and the array ends before them.
    void Erase(int position);

    // Destroys all elements and keeps the memory for the next ones.
    void Clear() noexcept;

    // The number of elements.
    std::size_t Size() const noexcept { return m_size; }

    // Requires: position < Size().
    unsigned char* At(std::size_t position) noexcept {
        return m_elements + position * m_elementSize;
    }
    const unsigned char* At(std::size_t position) const noexcept {
        return m_elements + position * m_elementSize;
    }

private:
    [[gnu::cold]] void PushBackGrowing(const void* element);
    void Reserve(std::size_t capacity);
    void AppendAll(const KLVBasVectorGeneric& other);
    void MoveDown(std::size_t gap);
    void DestroyFrom(std::size_t position) noexcept;
    void Swap(KLVBasVectorGeneric& other) noexcept;

    std::size_t m_elementSize;
    KLVBasElementCopy m_copy;
    KLVBasElementDestroy m_destroy;
    unsigned char* m_elements = nullptr;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
};
