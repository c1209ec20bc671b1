#include "KLVMsgWireReader.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

namespace {

constexpr std::size_t kFirstRoom = std::size_t{64} << 10;  // of a body; more only as bytes come

std::uint32_t LengthAt(std::string_view bytes) {
    std::uint32_t length = 0;
    std::memcpy(&length, bytes.data(), sizeof length);
    return length;
}

// A name of a peer's own making, for people to read.
std::string Printable(std::string_view name) {
    std::string text(name.substr(0, 256));
    for (char& character : text) {
        character = character >= ' ' && character <= '~' ? character : '?';
    }
    return text;
}

}  // namespace

void KLVMsgWireReader::MakeRoom(Buffer& buffer, Space (&spaces)[2]) {
    spaces[0] = {};
    if (m_parcel != nullptr) {
        spaces[0] = {m_parcel->Bytes() + m_parcel->size, m_room - m_parcel->size};
        // The rest of a long body goes straight to its place. Behind it little is read at once:
        // what follows is often as long, and goes straight to its own. Behind a short one more is.
        const bool ends = m_room == m_length;
        const std::size_t more = m_length < kFirstRoom ? Buffer::kSize : kMostCopied;
        spaces[1] = {buffer.Data(), ends ? more : 0};
        return;
    }
    const std::size_t kept = m_kept.size();
    const bool isLong = kept > kMostCopied;
    if (!isLong) {
        std::copy(m_kept.begin(), m_kept.end(), buffer.Data());
    }
    const std::size_t before = isLong ? 0 : kept;
    spaces[1] = {buffer.Data() + before, Buffer::kSize - before};
}

void KLVMsgWireReader::Came(Buffer& buffer, std::size_t count, Arrivals& arrivals) {
    if (m_fault != KLVMsgEvent::kNoCause) {
        return;
    }
    const bool isLong = m_kept.size() > kMostCopied;
    try {
        std::string_view bytes;
        if (m_parcel != nullptr) {
            const std::size_t direct = std::min(count, m_room - m_parcel->size);
            m_parcel->size += direct;
            bytes = {buffer.Data(), count - direct};
        } else if (isLong) {
            m_kept.append(buffer.Data(), count);
            bytes = m_kept;
        } else {
            bytes = {buffer.Data(), m_kept.size() + count};
        }
        while (ReadRun(bytes, buffer, arrivals) || Next(bytes, buffer, arrivals)) {
        }
        Keep(bytes, isLong);
    } catch (const std::bad_alloc&) {
        m_fault = KLVMsgEvent::kNoMemory;
        m_faultText = "no memory";  // short enough to need none
    }
}

bool KLVMsgWireReader::Next(std::string_view& bytes, Buffer& buffer, Arrivals& arrivals) {
    switch (m_step) {
        case kName:
            return ReadName(bytes, arrivals);
        case kFrameLength:
            return ReadFrameLength(bytes, buffer);
        case kFrame:
            return ReadFrame(bytes, arrivals);
        case kBare:
            return ReadBare(bytes, buffer, arrivals);
        case kPassOver:
            return PassOver(bytes);
    }
    return false;
}

// Short messages that have come whole, of the type that came before them, as most are: the same as
// the steps below, in one. False, and nothing is read, when there is none.
bool KLVMsgWireReader::ReadRun(std::string_view& bytes, Buffer& buffer, Arrivals& arrivals) {
    if (m_step != kName || m_type >= m_types.Size() || !m_types[m_type].framed ||
        m_types[m_type].isAny) {
        return false;
    }
    const KLVMsgMessageTypes::Type& type = m_types[m_type];
    const std::string_view header = type.header;
    const std::size_t lead = header.size() + kLength;
    const std::size_t longest =
        std::min({KLVMsgParcel::kLongestOfRun, type.largestBody, m_largestBody});
    const std::size_t most = std::min(bytes.size(), KLVMsgParcel::kRun);
    std::size_t size = 0;
    std::uint32_t count = 0;
    // Questions and answers go different ways, one by one.
    while (size + lead <= most && (count == 0 || !type.isCall) &&
           std::memcmp(bytes.data() + size, header.data(), header.size()) == 0) {
        const std::size_t length = LengthAt(bytes.substr(size + header.size()));
        if (length > longest || length > most - size - lead) {
            break;
        }
        size += lead + length;
        ++count;
    }
    if (count == 0) {
        return false;
    }
    KLVMsgParcel::Owner parcel = buffer.stock.Take(size, size);
    std::memcpy(parcel->Bytes(), bytes.data(), size);
    parcel->type = m_type;
    parcel->count = count;
    parcel->lead = static_cast<std::uint32_t>(lead);
    parcel->wireSize = static_cast<std::uint32_t>(size);
    arrivals.messages.push_back(std::move(parcel));
    bytes.remove_prefix(size);
    return true;
}

bool KLVMsgWireReader::ReadName(std::string_view& bytes, Arrivals& arrivals) {
    if (bytes.size() < kLength) {
        return false;
    }
    const std::size_t length = LengthAt(bytes);
    if (length > kLongestName) {
        Fail(KLVMsgEvent::kUnknownLength,
             "a length of " + std::to_string(length) + " that no type name has");
        return false;
    }
    if (bytes.size() < kLength + length) {
        return false;
    }
    const std::string_view header = bytes.substr(0, kLength + length);
    const std::string_view name = header.substr(kLength);
    bytes.remove_prefix(header.size());
    // A length of zero names nothing; the next one may.
    if (length != 0) {
        const std::uint32_t type = TypeOf(name);
        if (type == KLVMsgMessageTypes::kNone && m_types.Any() != type && name[0] != '\0') {
            NamedAny(header);
        } else if (type == KLVMsgMessageTypes::kNone) {
            NoteUnknown(name, arrivals);
            m_step = kPassOver;
        } else {
            Named(type, header.size());
        }
    }
    return true;
}

// One connection mostly carries one type: the last one is tried first.
std::uint32_t KLVMsgWireReader::TypeOf(std::string_view name) {
    if (m_type < m_types.Size() && m_types[m_type].name == name && !m_types[m_type].isAny) {
        return m_type;
    }
    // Receivers take a name for a text, which ends at a zero byte.
    return m_types.OfName(name.substr(0, name.find('\0')));
}

void KLVMsgWireReader::Named(std::uint32_t type, std::size_t headerSize) {
    m_type = type;
    m_headerSize = headerSize;
    m_step = m_types[type].framed ? kFrameLength : kBare;
    m_bare.Begin();
}

// Its header is kept with the body: what it is called is known from nowhere else.
void KLVMsgWireReader::NamedAny(std::string_view header) {
    Named(m_types.Any(), 0);
    m_anyHeader = header;
}

void KLVMsgWireReader::NoteUnknown(std::string_view name, Arrivals& arrivals) {
    std::string text = Printable(name);
    if (m_unknown.size() < kMostUnknown && m_unknown.insert(text).second) {
        arrivals.unknown.push_back(std::move(text));
    }
}

bool KLVMsgWireReader::ReadFrameLength(std::string_view& bytes, Buffer& buffer) {
    if (bytes.size() < kLength) {
        return false;
    }
    const bool isAny = m_types[m_type].isAny;
    const std::string_view lead = isAny ? m_anyHeader : std::string_view();
    m_length = LengthAt(bytes);
    const std::size_t largest = std::min(m_types[m_type].largestBody, m_largestBody);
    if (m_length > largest) {
        const std::string name = isAny ? Printable(lead.substr(kLength)) : m_types[m_type].name;
        Fail(KLVMsgEvent::kRefusedBody, "a body of " + std::to_string(m_length) + " bytes for " +
                                            name + ", of which " + std::to_string(largest) +
                                            " are taken");
        return false;
    }
    bytes.remove_prefix(kLength);
    m_length += lead.size();
    m_parcel = buffer.stock.Take(std::min(m_length, kFirstRoom + lead.size()), m_length);
    m_room = std::min(m_length, m_parcel->room);
    std::copy(lead.begin(), lead.end(), m_parcel->Bytes());
    m_parcel->size = lead.size();
    m_step = kFrame;
    return true;
}

bool KLVMsgWireReader::ReadFrame(std::string_view& bytes, Arrivals& arrivals) {
    while (m_parcel->size < m_length && !bytes.empty()) {
        GrowParcel();
        const std::size_t count = std::min(bytes.size(), m_room - m_parcel->size);
        std::memcpy(m_parcel->Bytes() + m_parcel->size, bytes.data(), count);
        m_parcel->size += count;
        bytes.remove_prefix(count);
    }
    if (m_parcel->size < m_length) {
        GrowParcel();
        return false;
    }
    m_parcel->type = m_type;
    m_parcel->wireSize = static_cast<std::uint32_t>(m_headerSize + kLength + m_length);
    arrivals.messages.push_back(std::move(m_parcel));
    m_step = kName;
    return true;
}

// A length is only a promise: room is made as the bytes come, four times as much each time.
void KLVMsgWireReader::GrowParcel() {
    if (m_parcel->size == m_room && m_room < m_length) {
        const std::size_t room = std::min(m_length, 4 * m_room);
        KLVMsgParcel::Resize(m_parcel, room);
        m_room = room;
    }
}

bool KLVMsgWireReader::ReadBare(std::string_view& bytes, Buffer& buffer, Arrivals& arrivals) {
    if (!m_bare.IsWorthWhile(bytes.size()) && bytes.size() <= m_largestBareBody) {
        return false;
    }
    std::unique_ptr<KLVMsgSocketMessage> message;
    std::size_t taken = 0;
    const std::string& name = m_types[m_type].name;
    try {
        const std::string_view allowed = bytes.substr(0, m_largestBareBody);
        message = m_bare.Try(*m_types[m_type].prototype, allowed, taken);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        Fail(KLVMsgEvent::kRefusedBody, "reading " + name + " failed: " + error.what());
        return false;
    } catch (...) {
        Fail(KLVMsgEvent::kRefusedBody, "reading " + name + " failed");
        return false;
    }
    if (message == nullptr) {
        if (bytes.size() > m_largestBareBody) {
            Fail(KLVMsgEvent::kRefusedBody,
                 "a body of more than " + std::to_string(m_largestBareBody) + " bytes for " + name);
        }
        return false;
    }
    KLVMsgParcel::Owner parcel = buffer.stock.Take(0, 0);
    parcel->object = message.release();
    parcel->type = m_type;
    parcel->wireSize = static_cast<std::uint32_t>(m_headerSize + taken);
    arrivals.messages.push_back(std::move(parcel));
    bytes.remove_prefix(taken);
    m_step = kName;
    return true;
}

bool KLVMsgWireReader::PassOver(std::string_view& bytes) {
    if (m_skip == 0) {
        if (bytes.size() < kLength) {
            return false;
        }
        const std::size_t length = LengthAt(bytes);
        if (length > std::max(m_largestBody, m_types.LongestName())) {
            Fail(KLVMsgEvent::kUnknownLength,
                 "a length of " + std::to_string(length) + " behind an unknown type");
            return false;
        }
        if (length <= m_types.LongestName() && bytes.size() < kLength + length) {
            return false;
        }
        if (length != 0 && length <= m_types.LongestName()) {
            const std::uint32_t type = m_types.OfName(bytes.substr(kLength, length));
            if (type != KLVMsgMessageTypes::kNone) {
                bytes.remove_prefix(kLength + length);
                Named(type, kLength + length);
                return true;
            }
        }
        bytes.remove_prefix(kLength);
        m_skip = length;
    }
    const std::size_t count = std::min(m_skip, bytes.size());
    bytes.remove_prefix(count);
    m_skip -= count;
    m_step = m_skip == 0 ? kName : kPassOver;
    return m_skip == 0;
}

void KLVMsgWireReader::Keep(std::string_view bytes, bool areKept) {
    if (m_fault != KLVMsgEvent::kNoCause || bytes.empty()) {
        m_kept = std::string();  // gives its memory back
    } else if (areKept) {
        m_kept.erase(0, m_kept.size() - bytes.size());
    } else {
        m_kept.assign(bytes);
    }
}

void KLVMsgWireReader::Fail(KLVMsgEvent::Cause cause, std::string text) {
    m_fault = cause;
    m_faultText = std::move(text);
}
