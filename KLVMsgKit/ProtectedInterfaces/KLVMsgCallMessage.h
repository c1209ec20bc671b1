// For applications: a message that is a question, or the answer to one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "KLVMsgFramedMessage.h"

// A framed message with a number at the head of its body, by which an answer finds its question. On
// the wire, behind the header:
//
//     0        4            12           4 + N
//     +--------+------------+------------+
//     |   N    | number     | fields     |     N: 8 and the size of the fields
//     +--------+------------+------------+     number: unsigned 64-bit; both byte order of the host
//
// The number is 0 where no answer is wanted. A question's is chosen by who asks and has its highest
// bit unset; its answer has the same number with that bit set. So two who ask each other with the
// same class and the same number do not take a question for an answer.
//
//     class Price : public KLVMsgCallMessage {
//     public:
//         bool EncodeFields(std::string& bytes) const override { bytes = article; return true; }
//         bool DecodeFields(std::string_view bytes) override { article = bytes; return true; }
//         KLVMsgSocketMessage* NewInstance() override { return new Price; }
//         KLVString GetMessageType() const override { return "Price"; }
//         std::string article;
//     };
//
// A session numbers what it asks and answers (KLVMsgSession::Ask and Answer) whatever the members
// here say, and what it posts or sends wants no answer unless they say so.
class KLVMsgCallMessage : public KLVMsgFramedMessage {
public:
    // The bit that tells an answer's number from a question's.
    static constexpr std::uint64_t kAnswer = std::uint64_t{1} << 63;

    // Puts the fields into `bytes`, which is empty. False when they cannot be put into bytes.
    virtual bool EncodeFields(std::string& bytes) const = 0;

    // Takes the fields from all bytes behind the number, which stay valid for this call only. False
    // when they are no such fields.
    virtual bool DecodeFields(std::string_view bytes) = 0;

    // The body with a number other than `goesWith`.
    bool EncodeWith(std::uint64_t number, std::string& bytes) const {
        if (!EncodeFields(bytes)) {
            return false;
        }
        bytes.insert(0, reinterpret_cast<const char*>(&number), sizeof number);
        return true;
    }

    // Number and fields: a derived class has EncodeFields and DecodeFields instead.
    bool Encode(std::string& bytes) const final { return EncodeWith(goesWith, bytes); }
    bool Decode(std::string_view bytes) final {
        return NumberOf(bytes, cameWith) && DecodeFields(bytes.substr(sizeof cameWith));
    }

    // The number at the head of a body; false where it is too short to have one.
    static bool NumberOf(std::string_view body, std::uint64_t& number) {
        if (body.size() < sizeof number) {
            return false;
        }
        std::memcpy(&number, body.data(), sizeof number);
        return true;
    }

    // The number of a received message. Whoever answers without a session sends `cameWith` with the
    // bit kAnswer, and nothing where it is 0.
    std::uint64_t cameWith = 0;

    // The number of a message that is sent without Ask or Answer.
    std::uint64_t goesWith = 0;
};
