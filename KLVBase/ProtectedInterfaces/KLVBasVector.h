// For applications: the growable array that the public operations fill.
#pragma once

#include <cstddef>
#include <type_traits>

#include "KLVBasVectorGeneric.h"

// A growable array of T. Pointers are stored as plain addresses and never followed: the array owns
// no object that its elements point to.
template <class T>
class KLVBasVector : private KLVBasVectorGeneric {
public:
    KLVBasVector() noexcept : KLVBasVectorGeneric(sizeof(T), Copy(), Destroy()) {}

    // Appends a copy of `element`.
    void PushBack(const T& element) { KLVBasVectorGeneric::PushBack(&element); }

    // Each does what the untyped array's operation does.
    using KLVBasVectorGeneric::Clear;
    using KLVBasVectorGeneric::Erase;
    using KLVBasVectorGeneric::Size;

    // Requires: position < Size(). The reference is valid until the array is changed.
    T& operator[](std::size_t position) { return reinterpret_cast<T*>(At(0))[position]; }
    const T& operator[](std::size_t position) const {
        return reinterpret_cast<const T*>(At(0))[position];
    }

private:
    // All pointers share one copy function: an address is an address.
    using Plain = std::conditional_t<std::is_pointer_v<T>, void*, T>;

    static KLVBasElementCopy Copy() noexcept {
        if constexpr (std::is_scalar_v<T>) {
            return &KLVBasPODCopy<Plain>;
        } else {
            return &KLVBasStandardCopy<T>;
        }
    }
    static KLVBasElementDestroy Destroy() noexcept {
        if constexpr (std::is_trivially_copyable_v<T>) {
            return nullptr;
        } else {
            return &KLVBasStandardDestroy<T>;
        }
    }
};
