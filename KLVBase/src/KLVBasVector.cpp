#include "KLVBasVector.h"

#include <cstring>
#include <utility>

#include "mem_Allocation.h"

KLVBasVectorGeneric::KLVBasVectorGeneric(const KLVBasVectorGeneric& other)
    : KLVBasVectorGeneric(other.m_elementSize, other.m_copy, other.m_destroy) {
    // The delegated constructor has run: should a copy throw, the destructor tidies up.
    if (other.m_size != 0) {
        Reserve(other.m_size);
        AppendAll(other, 0, other.m_size);
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
    if (m_size < m_capacity) {
        m_copy(At(m_size), element);
        ++m_size;
        return;
    }
    KLVBasVectorGeneric grown(m_elementSize, m_copy, m_destroy);
    grown.Reserve(m_capacity == 0 ? 4 : m_capacity * 2);
    grown.AppendAll(*this, 0, m_size);
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
        --m_size;
        return;
    }
    KLVBasVectorGeneric shorter(m_elementSize, m_copy, m_destroy);
    shorter.Reserve(m_capacity);
    shorter.AppendAll(*this, 0, index);
    shorter.AppendAll(*this, index + 1, m_size);
    Swap(shorter);
}

void KLVBasVectorGeneric::Clear() noexcept {
    if (m_destroy != nullptr) {
        for (std::size_t i = 0; i < m_size; ++i) {
            m_destroy(At(i));
        }
    }
    m_size = 0;
}

// Requires: the array is empty.
void KLVBasVectorGeneric::Reserve(std::size_t capacity) {
    m_elements = static_cast<unsigned char*>(mem_OperatorNewThrow(capacity * m_elementSize));
    m_capacity = capacity;
}

void KLVBasVectorGeneric::AppendAll(const KLVBasVectorGeneric& other, std::size_t begin,
                                    std::size_t end) {
    if (begin == end) {
        return;
    }
    if (m_destroy == nullptr && m_size + (end - begin) <= m_capacity) {
        std::memcpy(At(m_size), other.At(begin), (end - begin) * m_elementSize);
        m_size += end - begin;
        return;
    }
    for (std::size_t i = begin; i < end; ++i) {
        PushBack(other.At(i));
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
