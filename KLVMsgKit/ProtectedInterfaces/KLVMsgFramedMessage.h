// For applications: a message whose body says how long it is.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "KLVMsgInputStream.h"
#include "KLVMsgOutputStream.h"
#include "KLVMsgSocketMessage.h"

// A derived class turns its fields into bytes and bytes into its fields; this one moves them. On
// the wire, behind the header:
//
//     0        4            4 + N
//     +--------+------------+
//     |   N    | bytes      |     N: unsigned 32-bit, byte order of the host
//     +--------+------------+
//
// The whole body is read before Decode sees it: what Decode leaves unread does no harm, and neither
// does a derived class that takes the bytes for something else. klvmsgcat, the dissector with the
// rule length(0,4,little) and the Python peer speak this form.
//
//     class Greeting : public KLVMsgFramedMessage {
//     public:
//         bool Encode(std::string& bytes) const override { bytes = text; return true; }
//         bool Decode(std::string_view bytes) override { text = bytes; return true; }
//         KLVMsgSocketMessage* NewInstance() override { return new Greeting; }
//         KLVString GetMessageType() const override { return "Greeting"; }
//         std::string text;
//     };
//
// An exception of Encode or Decode that is a std::exception counts as false and goes no further, so
// that no message is lost for another one's sake.
class KLVMsgFramedMessage : public KLVMsgSocketMessage {
public:
    // Puts the fields into `bytes`, which is empty. False when they cannot be put into bytes: the
    // receiver then gets a message that is not whole, and its stream stays in step.
    virtual bool Encode(std::string& bytes) const = 0;

    // Takes the fields from all bytes of the body, which stay valid for this call only. False when
    // they are no such fields: the message is not whole then.
    virtual bool Decode(std::string_view bytes) = 0;

    // The largest body, without its length, that is sent or taken; 2^31 - 5 at the most. A longer
    // one is refused: the sender sends it as one that could not be put into bytes, a receiver reads
    // no byte of it. The bytes of such a body are then taken for headers: close the connection.
    virtual std::size_t Limit() const { return std::size_t{64} << 20; }

    // The same, as it holds: what Limit says, and no more than a body can have.
    std::size_t LargestBody() const {
        return std::min(Limit(), std::size_t{INT_MAX} - sizeof(std::uint32_t));
    }

    // Sends length and bytes with one write of the stream, whose piece size must not be smaller for
    // the result to be right. 1 when all of the body was taken, 0 otherwise. May block in send.
    int WriteMessage(KLVMsgOutputStream* stream) override {
        std::string body;
        if (!EncodeWithinLimit(body)) {
            WriteFrame(stream, kRefused, body.erase());
            return 0;
        }
        return WriteFrame(stream, static_cast<std::uint32_t>(body.size()), body) ? 1 : 0;
    }

    // Reads the body to its end. Room is made as the bytes come, since a length is only a promise.
    // The result is `whole`. Blocks until all has come or the connection has ended.
    int ReadMessage(KLVMsgInputStream* stream) override {
        whole = false;
        try {
            std::string bytes;
            std::uint32_t length = 0;
            if (ReadAll(stream, sizeof length, bytes)) {
                std::memcpy(&length, bytes.data(), sizeof length);
                bytes.clear();
                whole = length <= LargestBody() && ReadAll(stream, length, bytes) && Decode(bytes);
            }
        } catch (const std::exception&) {
            // Not whole, then.
        }
        return whole ? 1 : 0;
    }

    // Of a received message: the body came to its end and Decode took it. The library delivers a
    // message that is not whole too: ask before you look at its fields.
    bool whole = false;

private:
    // A length that no receiver takes, sent without bytes in place of a body that there is none of.
    static constexpr std::uint32_t kRefused = 0xffffffff;

    bool EncodeWithinLimit(std::string& body) const {
        try {
            return Encode(body) && body.size() <= LargestBody();
        } catch (const std::exception&) {
            return false;
        }
    }

    // Length and bytes go in one write: a receiver seldom finds one without the other.
    static bool WriteFrame(KLVMsgOutputStream* stream, std::uint32_t length, std::string& body) {
        body.insert(0, reinterpret_cast<const char*>(&length), sizeof length);
        int count = 0;
        stream->write(body.data(), static_cast<int>(body.size()), count);
        return count == static_cast<int>(body.size());
    }

    // Appends exactly `length` bytes; false when the stream ended before.
    static bool ReadAll(KLVMsgInputStream* stream, std::size_t length, std::string& bytes) {
        char piece[65536];
        for (std::size_t missing = length; missing != 0;) {
            int count = 0;
            stream->read(piece, static_cast<int>(std::min(missing, sizeof piece)), count);
            if (count <= 0) {
                return false;
            }
            bytes.append(piece, static_cast<std::size_t>(count));
            missing -= static_cast<std::size_t>(count);
        }
        return true;
    }
};
