// For the session's own sources: messages to bytes.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "KLVMsgOutcome.h"
#include "KLVMsgSpentBodies.h"

class KLVMsgFramedMessage;
class KLVMsgSocketMessage;
class KLVString;

// The bytes of one message, as KLVMsgWireReader draws them. Made on the thread that sends, without
// a lock, since it runs the message's own code, which may do anything, sending another message
// included.
class KLVMsgWireWriter {
public:
    // From this size on a body is shared by all who send it instead of copied for each.
    static constexpr std::size_t kShared = std::size_t{64} << 10;

    // Uses what the calling thread keeps for this, so that mostly nothing is allocated, and `spent`
    // for long bodies.
    explicit KLVMsgWireWriter(KLVMsgSpentBodies& spent);
    ~KLVMsgWireWriter();
    KLVMsgWireWriter(const KLVMsgWireWriter&) = delete;
    KLVMsgWireWriter& operator=(const KLVMsgWireWriter&) = delete;

    // Puts the message into bytes. Failed: it cannot be, with the cause in words; whatever its code
    // throws is one. `framed` is the message where Encode makes its body, null where WriteMessage
    // does.
    KLVMsgOutcome Write(KLVMsgSocketMessage& message, const KLVMsgFramedMessage* framed,
                        std::size_t largestBody);

    // Valid until the next Write.
    std::string_view Head() const { return m_scratch->head; }  // and the length of a framed body
    std::string_view Body() const { return m_shared != nullptr ? *m_shared : m_scratch->body; }
    const std::shared_ptr<const std::string>& Shared() const { return m_shared; }  // large bodies
    std::size_t NameSize() const { return m_nameSize; }
    std::size_t Size() const { return Head().size() + Body().size(); }

private:
    // False: `outcome` has the cause.
    bool PutHead(const KLVString& name, bool hasLength, KLVMsgOutcome& outcome);
    bool Encode(const KLVMsgFramedMessage& message, std::size_t largestBody,
                KLVMsgOutcome& outcome);
    bool Collect(KLVMsgSocketMessage& message, std::size_t largestBody, KLVMsgOutcome& outcome);

    struct Scratch {
        std::string head;
        std::string body;
        std::size_t nameSize = 0;  // of the header that is still there; 0: none is
        bool hasLength = false;    // it has room for the length of a framed body
        bool isUsed = false;
        bool wasLong = false;  // the last body, so that the next one may be
    };
    static thread_local Scratch s_ofThread;

    KLVMsgSpentBodies& m_spent;
    Scratch* m_scratch;
    std::unique_ptr<Scratch> m_own;  // where the thread's is in use, by a message whose code sends
    std::shared_ptr<const std::string> m_shared;
    std::size_t m_nameSize = 0;
};
