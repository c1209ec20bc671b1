// For the session's own sources: bytes to messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "KLVMsgBareReading.h"
#include "KLVMsgEvent.h"
#include "KLVMsgMessageTypes.h"
#include "KLVMsgParcel.h"

// Cuts what comes on one connection into messages. No I/O and no lock: it is told what came, on one
// thread. A message on the wire:
//
//     0        4          4 + L
//     +--------+----------+------
//     |   L    | name     | body ...      L: unsigned 32-bit, byte order of the host
//     +--------+----------+------
//
// and the body of a framed class is again a length of that kind and so many bytes. A type that is
// not registered is passed over: what follows its name is taken for such a frame, or, if that holds
// a registered name, for the header of its message, as it is by a receiver without a session.
class KLVMsgWireReader {
public:
    // Where the next bytes go.
    struct Space {
        char* data = nullptr;
        std::size_t size = 0;
    };

    // What all connections of a thread share: room, which each uses only between MakeRoom and Came,
    // and blocks for what has come.
    class Buffer {
    public:
        static constexpr std::size_t kSize = std::size_t{64} << 10;
        char* Data() { return m_data.get(); }

        KLVMsgParcel::Stock stock;

    private:
        std::unique_ptr<char[]> m_data{new char[kSize]};
    };

    static constexpr std::size_t kLongestName = 65535;  // of any sender's, known or not

    // What has come of it.
    struct Arrivals {
        std::vector<KLVMsgParcel::Owner> messages;  // in order
        std::vector<std::string> unknown;           // names, each type of a connection once
    };

    KLVMsgWireReader(const KLVMsgMessageTypes& types, std::size_t largestBody,
                     std::size_t largestBareBody)
        : m_types(types), m_largestBody(largestBody), m_largestBareBody(largestBareBody) {}

    // Two spaces, the first of which is filled first and may be empty.
    void MakeRoom(Buffer& buffer, Space (&spaces)[2]);

    // That many bytes were put there. The messages that they complete are added to `arrivals`.
    // Calls code of classes that read their bodies themselves, and passes nothing on that it
    // throws: whatever goes wrong is a fault, and then nothing more is read.
    void Came(Buffer& buffer, std::size_t count, Arrivals& arrivals);

    // Why the connection cannot be read on; kNoCause as long as it can.
    KLVMsgEvent::Cause Fault() const { return m_fault; }
    const std::string& FaultText() const { return m_faultText; }

    // Whether a part of a message has come.
    bool InMiddle() const {
        return (m_step != kName && m_step != kPassOver) || m_skip != 0 || !m_kept.empty();
    }

private:
    enum Step { kName, kFrameLength, kFrame, kBare, kPassOver };

    static constexpr std::size_t kLength = sizeof(std::uint32_t);
    static constexpr std::size_t kMostCopied = 4096;  // bytes that wait, with each read
    static constexpr std::size_t kMostUnknown = 100;  // names that are remembered

    // Reads one step from the front; false when it needs more bytes, or a fault was found.
    bool Next(std::string_view& bytes, Buffer& buffer, Arrivals& arrivals);
    bool ReadRun(std::string_view& bytes, Buffer& buffer, Arrivals& arrivals);
    bool ReadName(std::string_view& bytes, Arrivals& arrivals);
    bool ReadFrameLength(std::string_view& bytes, Buffer& buffer);
    bool ReadFrame(std::string_view& bytes, Arrivals& arrivals);
    bool ReadBare(std::string_view& bytes, Buffer& buffer, Arrivals& arrivals);
    bool PassOver(std::string_view& bytes);

    void Named(std::uint32_t type, std::size_t headerSize);
    std::uint32_t TypeOf(std::string_view name);
    void NamedAny(std::string_view header);
    void NoteUnknown(std::string_view name, Arrivals& arrivals);
    void GrowParcel();
    void Keep(std::string_view bytes, bool areKept);
    void Fail(KLVMsgEvent::Cause cause, std::string text);

    const KLVMsgMessageTypes& m_types;
    const std::size_t m_largestBody;
    const std::size_t m_largestBareBody;

    Step m_step = kName;
    std::uint32_t m_type = 0;      // of the message that is being read
    std::size_t m_headerSize = 0;  // of the same
    KLVMsgParcel::Owner m_parcel;  // the part of its framed body that has come
    std::string m_anyHeader;       // of a message that is of no registered type
    std::size_t m_length = 0;      // of that body, as it was announced, and such a header
    std::size_t m_room = 0;        // of the parcel
    std::size_t m_skip = 0;        // bytes that nobody wants
    KLVMsgBareReading m_bare;
    std::string m_kept;  // bytes between two calls, none of a framed body
    std::set<std::string> m_unknown;
    KLVMsgEvent::Cause m_fault = KLVMsgEvent::kNoCause;
    std::string m_faultText;
};
