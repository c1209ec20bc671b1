// For the library's own sources: arrays that stay as they were when an operation fails half way.
#pragma once

#include <cstddef>

#include "KLVBasVector.h"

// Takes elements off the end until `size` are left.
template <class T>
void KLVMsgShrink(KLVBasVector<T>& vector, std::size_t size) {
    while (vector.Size() > size) {
        vector.Erase(static_cast<int>(vector.Size() - 1));
    }
}

// When it ends, takes back what was appended to a vector since it began, unless Keep was called.
template <class T>
class KLVMsgAppending {
public:
    explicit KLVMsgAppending(KLVBasVector<T>& vector) : m_vector(vector), m_size(vector.Size()) {}
    ~KLVMsgAppending() {
        if (!m_keep) {
            KLVMsgShrink(m_vector, m_size);
        }
    }
    KLVMsgAppending(const KLVMsgAppending&) = delete;
    KLVMsgAppending& operator=(const KLVMsgAppending&) = delete;

    void Keep() { m_keep = true; }

private:
    KLVBasVector<T>& m_vector;
    std::size_t m_size;
    bool m_keep = false;
};
