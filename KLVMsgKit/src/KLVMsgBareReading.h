// For the session's own sources: messages of classes that read their bodies themselves.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "KLVMsgSocketMessage.h"

// Has a class read a body over the bytes that have come. Nobody knows how long such a body is but
// its class, so this is a try: where the bytes fall short the object is thrown away, and a new one
// made when a next try is worth while. All tries over one message read no more than four times what
// has come and 64 KiB, so that a body that drips costs no more than its bytes.
class KLVMsgBareReading {
public:
    // A next message begins.
    void Begin() { *this = KLVMsgBareReading(); }

    // Whether a try may succeed with that many bytes of the body.
    bool IsWorthWhile(std::size_t come) const { return come >= m_needed; }

    // Tries it over all bytes that are there. The message, and in `taken` how many of the bytes it
    // has read; null when they fall short. What the class throws passes through, unless the bytes
    // fell short.
    std::unique_ptr<KLVMsgSocketMessage> Try(KLVMsgSocketMessage& prototype, std::string_view come,
                                             std::size_t& taken);

private:
    std::size_t m_needed = 0;  // bytes, before the next try
    std::size_t m_read = 0;    // by all tries so far
};
