#include "KLVBasVector.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "mem_Allocation.h"

KLVBasVectorGeneric::KLVBasVectorGeneric(const KLVBasVectorGeneric& other)
    : KLVBasVectorGeneric(other.m_elementSize, other.m_copy, other.m_destroy) {
    // The delegated constructor has run: should a copy throw, the destructor tidies up.
    if (other.m_size != 0) {
        Reserve(other.m_size);
        AppendAll(other);
    }
}

KLVBasVectorGeneric& KLVBasVectorGeneric::operator=(const KLVBasVectorGeneric& other) {
    KLVBasVectorGeneric copy(other);
    Swap(copy);
    return *this;
}

KLVBasVectorGeneric::~KLVBasVectorGeneric() {
    Clear();
    mem_Free(m_elements);
}

void KLVBasVectorGeneric::PushBack(const void* element) {
    if (m_size == m_capacity) {
        PushBackGrowing(element);
        return;
    }
    m_copy(At(m_size), element);
    ++m_size;
}

void KLVBasVectorGeneric::PushBackGrowing(const void* element) {
    KLVBasVectorGeneric grown(m_elementSize, m_copy, m_destroy);
    grown.Reserve(m_capacity == 0 ? 4 : m_capacity * 2);
    grown.AppendAll(*this);
    m_copy(grown.At(m_size), element);  // before the old storage goes: the element may lie in it
    ++grown.m_size;
    Swap(grown);
}

void KLVBasVectorGeneric::Erase(int position) {
    const std::size_t index = static_cast<std::size_t>(position);
    if (position < 0 || index >= m_size) {
        return;
    }
    if (m_destroy == nullptr) {
        std::memmove(At(index), At(index) + m_elementSize, (m_size - index - 1) * m_elementSize);
    } else {
        MoveDown(index);
    }
    --m_size;
}

// Destroys the element at `gap` and moves the later ones down. A copy that throws leaves a gap that
// only the elements behind it could fill: they go, and those before it stay.
// Requires, as DestroyFrom does: there is a function that destroys elements.
void KLVBasVectorGeneric::MoveDown(std::size_t gap) {
    m_destroy(At(gap));
    try {
        for (; gap + 1 < m_size; ++gap) {
            m_copy(At(gap), At(gap + 1));
            m_destroy(At(gap + 1));
        }
    } catch (...) {
        DestroyFrom(gap + 1);
        m_size = gap;
        throw;
    }
}

void KLVBasVectorGeneric::Clear() noexcept {
    if (m_destroy != nullptr) {
        DestroyFrom(0);
    }
    m_size = 0;
}

void KLVBasVectorGeneric::DestroyFrom(std::size_t position) noexcept {
    for (; position < m_size; ++position) {
        m_destroy(At(position));
    }
}

// Requires: the array is empty.
void KLVBasVectorGeneric::Reserve(std::size_t capacity) {
    m_elements = static_cast<unsigned char*>(mem_OperatorNewThrow(capacity * m_elementSize));
    m_capacity = capacity;
}

// Requires: there is room for the elements of `other`.
void KLVBasVectorGeneric::AppendAll(const KLVBasVectorGeneric& other) {
    if (m_destroy == nullptr) {
        std::copy_n(other.m_elements, other.m_size * m_elementSize, At(m_size));
        m_size += other.m_size;
        return;
    }
    for (std::size_t i = 0; i < other.m_size; ++i) {
        m_copy(At(m_size), other.At(i));
        ++m_size;
    }
}

void KLVBasVectorGeneric::Swap(KLVBasVectorGeneric& other) noexcept {
    std::swap(m_elementSize, other.m_elementSize);
    std::swap(m_copy, other.m_copy);
    std::swap(m_destroy, other.m_destroy);
    std::swap(m_elements, other.m_elements);
    std::swap(m_size, other.m_size);
    std::swap(m_capacity, other.m_capacity);
}
