// For applications: the text type of every public operation.
#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

#include "KLVBasExport.h"

// An immutable run of characters, shared between copies and counted atomically, so that copies may
// be made and dropped on several threads at once. One KLVString object itself is used by one thread
// at a time. Zero bytes inside are kept. An empty string allocates nothing.
//
// A text that is longer than an int can count, or for which there is no memory, ends in
// std::bad_alloc and leaves the string as it was. Copying never throws.
class KLVBASE_EXPORT KLVString {
public:
    KLVString() noexcept = default;

    // Copies a zero-terminated text; a null pointer gives the empty string. Implicit, so that texts
    // can be passed where a KLVString is asked for.
    KLVString(const char* text);

    // Copies `length` bytes, zero bytes included. A null pointer or a length below 1 gives the
    // empty string.
    KLVString(const char* text, int length);

    // Shares the text of `other`.
    KLVString(const KLVString& other) noexcept : m_shared(Acquire(other.m_shared)) {}

    // Takes the text of `other`, which is empty afterwards.
    KLVString(KLVString&& other) noexcept : m_shared(std::exchange(other.m_shared, nullptr)) {}

    // Takes the new text before it releases the old one: assigning a string to itself is safe.
    KLVString& operator=(const KLVString& other) noexcept {
        Shared* const old = m_shared;
        m_shared = Acquire(other.m_shared);
        Release(old);
        return *this;
    }

    // Exchanges texts with `other`.
    KLVString& operator=(KLVString&& other) noexcept {
        std::swap(m_shared, other.m_shared);
        return *this;
    }

    ~KLVString() { Release(m_shared); }

    // The number of bytes.
    int Length() const noexcept { return m_shared == nullptr ? 0 : m_shared->length; }

    // The bytes with a zero byte after the last, valid as long as this string is neither changed
    // nor destroyed. Never null.
    const char* Text() const noexcept { return m_shared == nullptr ? "" : m_shared->Text(); }

    // Requires: 0 <= position <= Length(). At Length() stands the terminating zero byte.
    char operator[](int position) const { return Text()[position]; }

    // Compares byte by byte as unsigned values; a prefix sorts first. The result is negative when
    // this string sorts before `other`, 0 when both are equal, positive otherwise.
    int Compare(const KLVString& other) const noexcept {
        return m_shared == other.m_shared ? 0 : CompareBytes(other);
    }

    // Appends the decimal text of `number`.
    KLVString& operator+=(int number);

private:
    // The shared text: this head, then `length` bytes and a zero byte in the same block.
    struct Shared {
        std::atomic<int> references;
        int length;

        char* Text() { return reinterpret_cast<char*>(this + 1); }
    };

    // A block for `length` bytes of text, referenced once, the bytes left unset.
    static Shared* NewShared(std::size_t length);

    // A block with a copy of `length` bytes, or null for none.
    static Shared* CopyOf(const char* text, std::size_t length);

    // Frees a block whose last holder is gone.
    static void Destroy(Shared* shared) noexcept;

    int CompareBytes(const KLVString& other) const noexcept;

    // Null, the empty string, is never counted.
    static Shared* Acquire(Shared* shared) noexcept {
        if (shared != nullptr) {
            shared->references.fetch_add(1, std::memory_order_relaxed);
        }
        return shared;
    }

    static void Release(Shared* shared) noexcept {
        // The only holder need not count down: nobody else can make a copy meanwhile.
        if (shared != nullptr &&
            (shared->references.load(std::memory_order_acquire) == 1 ||
             shared->references.fetch_sub(1, std::memory_order_acq_rel) == 1)) {
            Destroy(shared);
        }
    }

    Shared* m_shared = nullptr;  // null for the empty string
};

// Equal means the same bytes.
inline bool operator==(const KLVString& a, const KLVString& b) noexcept {
    return a.Compare(b) == 0;
}

// True when at least one byte, or the length, differs.
inline bool operator!=(const KLVString& a, const KLVString& b) noexcept {
    return a.Compare(b) != 0;
}
