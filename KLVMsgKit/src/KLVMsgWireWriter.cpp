#include "KLVMsgWireWriter.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "KLVMsgFramedMessage.h"
#include "KLVMsgOutputStream.h"
#include "KLVMsgSocketMessage.h"
#include "KLVMsgWireReader.h"
#include "KLVString.h"

namespace {

constexpr std::size_t kLength = sizeof(std::uint32_t);

KLVMsgOutcome Unfit(std::string text) { return {KLVMsgOutcome::kFailed, EINVAL, std::move(text)}; }

KLVMsgOutcome TooLong(std::size_t size, std::size_t largest) {
    return {KLVMsgOutcome::kFailed, EMSGSIZE,
            "a body of " + std::to_string(size) + " bytes, of which " + std::to_string(largest) +
                " are sent"};
}

void PutLength(std::string& bytes, std::size_t at, std::size_t length) {
    const auto number = static_cast<std::uint32_t>(length);
    std::memcpy(&bytes[at], &number, sizeof number);
}

// Takes what a class writes by itself.
class Collector final : public KLVMsgOutputStream {
public:
    Collector(std::string& bytes, std::size_t most) : m_bytes(bytes), m_most(most) {}

    void write(void* data, int length, int& count) override {
        const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 0;
        m_size += size;
        if (m_size <= m_most && size != 0) {
            m_bytes.append(static_cast<const char*>(data), size);
        }
        count += static_cast<int>(size);
    }

    std::size_t Size() const { return m_size; }  // of all that was written, taken or not

private:
    std::string& m_bytes;
    const std::size_t m_most;
    std::size_t m_size = 0;
};

}  // namespace

thread_local KLVMsgWireWriter::Scratch KLVMsgWireWriter::s_ofThread;

KLVMsgWireWriter::KLVMsgWireWriter(KLVMsgSpentBodies& spent)
    : m_spent(spent), m_scratch(&s_ofThread) {
    if (m_scratch->isUsed) {
        m_own = std::make_unique<Scratch>();
        m_scratch = m_own.get();
    }
    m_scratch->isUsed = true;
}

KLVMsgWireWriter::~KLVMsgWireWriter() {
    m_scratch->isUsed = false;
    if (m_scratch->body.capacity() > kShared) {
        m_scratch->body = std::string();
    }
}

KLVMsgOutcome KLVMsgWireWriter::Write(KLVMsgSocketMessage& message,
                                      const KLVMsgFramedMessage* framed, std::size_t largestBody) {
    m_scratch->body.clear();
    m_shared.reset();
    KLVMsgOutcome outcome;
    if (m_scratch->wasLong) {
        m_scratch->body = m_spent.Take();
        m_scratch->wasLong = false;
    }
    try {
        if (PutHead(message.GetMessageType(), framed != nullptr, outcome) &&
            (framed != nullptr ? Encode(*framed, largestBody, outcome)
                               : Collect(message, largestBody, outcome)) &&
            m_scratch->body.size() >= kShared) {
            m_shared = m_spent.Share(std::move(m_scratch->body));
            m_scratch->wasLong = true;
        }
    } catch (const std::bad_alloc&) {
        outcome = {KLVMsgOutcome::kFailed, ENOMEM, "no memory for the message's bytes"};
    } catch (const std::exception& error) {
        outcome = Unfit(std::string("the message's own code failed: ") + error.what());
    } catch (...) {
        outcome = Unfit("the message's own code failed");
    }
    return outcome;
}

bool KLVMsgWireWriter::PutHead(const KLVString& name, bool hasLength, KLVMsgOutcome& outcome) {
    m_nameSize = static_cast<std::size_t>(name.Length());
    const std::string_view text(name.Text(), m_nameSize);
    Scratch& scratch = *m_scratch;
    std::string& head = scratch.head;
    // A thread mostly sends one type again and again.
    if (!text.empty() && m_nameSize == scratch.nameSize && hasLength == scratch.hasLength &&
        std::memcmp(head.data() + kLength, text.data(), m_nameSize) == 0) {
        return true;
    }
    if (text.empty() || text.find('\0') != std::string_view::npos) {
        outcome = Unfit("a type name is neither empty nor has zero bytes");
    } else if (m_nameSize > KLVMsgWireReader::kLongestName) {
        outcome =
            Unfit("no receiver takes a type name of " + std::to_string(m_nameSize) + " bytes");
    } else {
        scratch.nameSize = 0;
        head.resize(kLength + m_nameSize + (hasLength ? kLength : 0));
        PutLength(head, 0, m_nameSize);
        text.copy(&head[kLength], m_nameSize);
        scratch.nameSize = m_nameSize;
        scratch.hasLength = hasLength;
    }
    return outcome.status == KLVMsgOutcome::kDone;
}

bool KLVMsgWireWriter::Encode(const KLVMsgFramedMessage& message, std::size_t largestBody,
                              KLVMsgOutcome& outcome) {
    if (!message.Encode(m_scratch->body)) {
        outcome = Unfit("Encode has refused the message");
        return false;
    }
    const std::size_t size = m_scratch->body.size();
    const std::size_t largest = std::min(message.LargestBody(), largestBody);
    if (size > largest) {
        outcome = TooLong(size, largest);
        return false;
    }
    PutLength(m_scratch->head, kLength + m_nameSize, size);
    return true;
}

bool KLVMsgWireWriter::Collect(KLVMsgSocketMessage& message, std::size_t largestBody,
                               KLVMsgOutcome& outcome) {
    Collector stream(m_scratch->body, largestBody);
    const int result = message.WriteMessage(&stream);
    // Of other classes the result says nothing; a framed one says 0 when it could not be put into
    // bytes.
    if (result == 0 && dynamic_cast<const KLVMsgFramedMessage*>(&message) != nullptr) {
        outcome = Unfit("Encode has refused the message");
    } else if (stream.Size() > largestBody) {
        outcome = TooLong(stream.Size(), largestBody);
    }
    return outcome.status == KLVMsgOutcome::kDone;
}
