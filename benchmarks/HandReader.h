// What a program would write by hand to take messages out of a stream: they have the same bytes as
// those of a session.
#pragma once

#include <algorithm>

#include "Sockets.h"
#include "Talker.h"

namespace bench {

// What stands before a body.
struct HandHeader {
    explicit HandHeader(std::size_t size) : bodyLength(static_cast<std::uint32_t>(size)) {
        std::memcpy(name, typeName, typeNameLength);
    }

    std::uint32_t nameLength = typeNameLength;
    char name[typeNameLength] = {};
    std::uint32_t bodyLength;
};
static_assert(sizeof(HandHeader) == 20, "as on the wire");

class HandReader {
public:
    explicit HandReader(std::size_t size) : m_expected(size) {}

    // `read` is told where to and how much at most, and returns how much has come.
    template <class Read>
    void Receive(std::vector<Stamp>& stamps, const Read& read) {
        if (m_room.empty()) {
            // Several short messages, or a long one and not much of the next, which is moved.
            m_room.resize(std::max(sizeof m_expected + m_expected.bodyLength + 65536,
                                   std::size_t{512} << 10));
        }
        for (const std::size_t before = stamps.size(); stamps.size() == before;) {
            std::memmove(m_room.data(), m_room.data() + m_parsed, m_filled - m_parsed);
            m_filled -= m_parsed;
            m_parsed = 0;
            m_filled += read(m_room.data() + m_filled, m_room.size() - m_filled);
            Parse(stamps);
        }
    }

private:
    void Parse(std::vector<Stamp>& stamps) {
        HandHeader header(0);
        while (m_filled - m_parsed >= sizeof header) {
            std::memcpy(&header, m_room.data() + m_parsed, sizeof header);
            Require(std::memcmp(&header, &m_expected, sizeof header) == 0, "header by hand");
            if (m_filled - m_parsed < sizeof header + header.bodyLength) {
                break;
            }
            stamps.push_back(StampOf(m_room.data() + m_parsed + sizeof header));
            m_parsed += sizeof header + header.bodyLength;
        }
    }

    const HandHeader m_expected;
    std::vector<char> m_room;  // what has come
    std::size_t m_filled = 0;
    std::size_t m_parsed = 0;
};

}  // namespace bench
