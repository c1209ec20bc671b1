#include "KLVString.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "mem_Allocation.h"

// The shared text: this head, then `length` bytes and a zero byte in the same block.
struct KLVString::Shared {
    std::atomic<int> references;
    int length;

    char* Text() { return reinterpret_cast<char*>(this + 1); }

    // A block for `length` bytes of text, referenced once, the bytes left unset.
    static Shared* New(std::size_t length) {
        if (length > INT_MAX) {
            throw std::bad_alloc();
        }
        void* const block = mem_OperatorNewThrow(sizeof(Shared) + length + 1);
        Shared* const shared = ::new (block) Shared{{1}, static_cast<int>(length)};
        shared->Text()[length] = '\0';
        return shared;
    }

    // Null, the empty string, is never counted.
    static Shared* Acquire(Shared* shared) {
        if (shared != nullptr) {
            shared->references.fetch_add(1, std::memory_order_relaxed);
        }
        return shared;
    }

    static void Release(Shared* shared) {
        // The only holder need not count down: nobody else can make a copy meanwhile.
        if (shared != nullptr &&
            (shared->references.load(std::memory_order_acquire) == 1 ||
             shared->references.fetch_sub(1, std::memory_order_acq_rel) == 1)) {
            shared->~Shared();
            mem_Free(shared);
        }
    }

    static Shared* CopyOf(const char* text, std::size_t length) {
        if (length == 0) {
            return nullptr;
        }
        Shared* const shared = New(length);
        std::memcpy(shared->Text(), text, length);
        return shared;
    }
};

KLVString::KLVString(const char* text)
    : m_shared(text == nullptr ? nullptr : Shared::CopyOf(text, std::strlen(text))) {}

KLVString::KLVString(const char* text, int length)
    : m_shared(text == nullptr || length < 1
                   ? nullptr
                   : Shared::CopyOf(text, static_cast<std::size_t>(length))) {}

KLVString::KLVString(const KLVString& other) noexcept : m_shared(Shared::Acquire(other.m_shared)) {}

KLVString& KLVString::operator=(const KLVString& other) noexcept {
    Shared* const old = m_shared;
    m_shared = Shared::Acquire(other.m_shared);
    Shared::Release(old);
    return *this;
}

KLVString::~KLVString() { Shared::Release(m_shared); }

int KLVString::Length() const noexcept { return m_shared == nullptr ? 0 : m_shared->length; }

const char* KLVString::Text() const noexcept { return m_shared == nullptr ? "" : m_shared->Text(); }

int KLVString::Compare(const KLVString& other) const noexcept {
    if (m_shared == other.m_shared) {
        return 0;
    }
    if (m_shared == nullptr || other.m_shared == nullptr) {
        return Length() - other.Length();
    }
    const int length = m_shared->length;
    const int otherLength = other.m_shared->length;
    const int order = std::memcmp(m_shared->Text(), other.m_shared->Text(),
                                  static_cast<std::size_t>(std::min(length, otherLength)));
    return order != 0 ? order : length - otherLength;
}

KLVString& KLVString::operator+=(int number) {
    char digits[16];  // the longest text is that of INT_MIN, 11 characters
    const std::size_t added =
        static_cast<std::size_t>(std::snprintf(digits, sizeof digits, "%d", number));
    const std::size_t length = static_cast<std::size_t>(Length());

    Shared* const longer = Shared::New(length + added);
    std::memcpy(longer->Text(), Text(), length);
    std::memcpy(longer->Text() + length, digits, added);
    Shared::Release(m_shared);
    m_shared = longer;
    return *this;
}
