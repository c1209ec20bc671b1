#include "KLVString.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "mem_Allocation.h"

KLVString::Shared* KLVString::NewShared(std::size_t length) {
    if (length > INT_MAX) {
        throw std::bad_alloc();
    }
    void* const block = mem_OperatorNewThrow(sizeof(Shared) + length + 1);
    Shared* const shared = ::new (block) Shared{{1}, static_cast<int>(length)};
    shared->Text()[length] = '\0';
    return shared;
}

KLVString::Shared* KLVString::CopyOf(const char* text, std::size_t length) {
    if (length == 0) {
        return nullptr;
    }
    Shared* const shared = NewShared(length);
    std::memcpy(shared->Text(), text, length);
    return shared;
}

void KLVString::Destroy(Shared* shared) noexcept {
    shared->~Shared();
    mem_Free(shared);
}

KLVString::KLVString(const char* text)
    : m_shared(text == nullptr ? nullptr : CopyOf(text, std::strlen(text))) {}

KLVString::KLVString(const char* text, int length)
    : m_shared(text == nullptr || length < 1 ? nullptr
                                             : CopyOf(text, static_cast<std::size_t>(length))) {}

int KLVString::CompareBytes(const KLVString& other) const noexcept {
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

    Shared* const longer = NewShared(length + added);
    std::memcpy(longer->Text(), Text(), length);
    std::memcpy(longer->Text() + length, digits, added);
    Release(m_shared);
    m_shared = longer;
    return *this;
}
