#include "KLVMsgOutput.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

KLVMsgOutput::Position KLVMsgOutput::Append(std::string_view head, std::string_view body,
                                            const std::shared_ptr<const std::string>& shared) {
    const std::size_t copied = head.size() + (shared == nullptr ? body.size() : 0);
    const bool fits = !m_pieces.empty() && m_pieces.back().room >= m_pieces.back().end + copied;
    // Whatever may fail comes first.
    m_ends.push_back(m_appended + head.size() + body.size());
    if (!fits || shared != nullptr) {
        try {
            AddPieces(fits ? 0 : copied, shared);
        } catch (...) {
            m_ends.pop_back();
            throw;
        }
    }
    Piece& piece = m_pieces[m_pieces.size() - (shared == nullptr ? 1 : 2)];
    char* const to = piece.block.get() + piece.end;
    std::memcpy(to, head.data(), head.size());
    if (shared == nullptr && !body.empty()) {
        std::memcpy(to + head.size(), body.data(), body.size());
    }
    piece.end += copied;
    return m_appended = m_ends.back();
}

// A block, unless that is of size 0, and what is shared, unless that is null: both or none.
void KLVMsgOutput::AddPieces(std::size_t block, const std::shared_ptr<const std::string>& shared) {
    if (block != 0) {
        // Nothing more fits into one that a shared body follows.
        m_pieces.push_back(NewBlock(shared != nullptr ? block : std::max(block, NextRoom())));
    }
    try {
        if (shared != nullptr) {
            m_pieces.push_back({nullptr, shared, 0, 0, shared->size()});
        }
    } catch (...) {
        if (block != 0) {
            m_pieces.pop_back();
        }
        throw;
    }
    m_lastBlock = shared == nullptr ? m_pieces.back().room : m_lastBlock;
}

KLVMsgOutput::Piece KLVMsgOutput::NewBlock(std::size_t size) {
    Piece piece;
    piece.room = size;
    piece.block.reset(new char[size]);
    return piece;
}

// Blocks grow with what is queued, so that an idle connection has none and a busy one few.
std::size_t KLVMsgOutput::NextRoom() const {
    return m_pieces.empty() ? kFirstBlock : std::min(4 * m_lastBlock, kLargestBlock);
}

// How many bytes go next, from a position on.
std::size_t KLVMsgOutput::RunSize(Position begin, std::size_t segment) const {
    const auto queued = static_cast<std::size_t>(m_appended - begin);
    if (segment == 0) {
        return std::min(queued, kMostAtOnce);
    }
    const auto first = std::upper_bound(m_ends.begin(), m_ends.end(), begin);
    const Position start = first == m_ends.begin() ? m_start : *std::prev(first);
    const auto rest = static_cast<std::size_t>(*first - begin);
    const std::size_t most = std::min(segment, kMostAtOnce);
    if (begin != start || rest >= most) {
        return std::min(rest, kMostAtOnce);
    }
    const auto past = std::upper_bound(first, m_ends.end(), begin + most);
    return static_cast<std::size_t>(*std::prev(past) - begin);
}

KLVMsgOutput::Run KLVMsgOutput::Take(std::size_t segment) {
    const Position begin = m_taken + m_out;
    const std::size_t most = RunSize(begin, segment);
    Run run;
    std::size_t before = m_out;
    for (const Piece& piece : m_pieces) {
        const std::size_t there = piece.end - piece.begin;
        if (before >= there) {
            before -= there;
            continue;
        }
        const std::size_t size = std::min(there - before, most - run.size);
        run.pieces[run.count++] = {const_cast<char*>(piece.Data()) + piece.begin + before, size};
        run.size += size;
        before = 0;
        if (run.size == most || run.count == Run::kMostPieces) {
            break;
        }
    }
    run.endsMessage = std::binary_search(m_ends.begin(), m_ends.end(), begin + run.size);
    m_out += run.size;
    return run;
}

void KLVMsgOutput::Took(std::size_t count, std::size_t held) {
    m_out = 0;
    m_held = held;
    m_taken += count;
    DropBytes(count);
    const auto first = std::upper_bound(m_ends.begin(), m_ends.end(), m_taken);
    if (first != m_ends.begin()) {
        m_start = *std::prev(first);
        const auto over = static_cast<std::size_t>(first - m_ends.begin());
        m_ends.Drop(over);
        m_messagesTaken += over;
    }
}

// Removes so many bytes from the front.
void KLVMsgOutput::DropBytes(std::size_t count) {
    for (std::size_t left = count; left != 0;) {
        Piece& piece = m_pieces.front();
        const std::size_t size = std::min(left, piece.end - piece.begin);
        piece.begin += size;
        left -= size;
        if (piece.begin == piece.end && (left != 0 || m_pieces.size() > 1 || IsEmpty())) {
            m_pieces.pop_front();
        }
    }
}

bool KLVMsgOutput::MoveTo(KLVMsgOutput& other, Position& shift) {
    other.m_pieces.MakeRoom(m_pieces.size());
    other.m_ends.MakeRoom(m_ends.size());
    const bool isBegun = m_start != m_taken && !m_ends.empty();
    const Position first = isBegun ? m_ends.front() : m_taken;
    DropBytes(static_cast<std::size_t>(first - m_taken));
    shift = other.m_appended - first;
    for (Piece& piece : m_pieces) {
        other.m_pieces.push_back(std::move(piece));
        other.m_lastBlock = m_lastBlock;
    }
    for (const Position end : m_ends) {
        if (end != first) {
            other.m_ends.push_back(end + shift);
        }
    }
    other.m_appended = m_appended + shift;
    Clear();
    return isBegun;
}

bool KLVMsgOutput::CutOut(Position begin, Position end) {
    const auto found = std::lower_bound(m_ends.begin(), m_ends.end(), end);
    if (begin < m_taken + std::max(m_out, m_held) || found == m_ends.end() || *found != end) {
        return false;
    }
    const Position length = end - begin;
    CutPieces(static_cast<std::size_t>(begin - m_taken), static_cast<std::size_t>(length));
    for (auto later = m_ends.erase(found); later != m_ends.end(); ++later) {
        *later -= length;
    }
    m_appended -= length;
    return true;
}

// Removes bytes from the pieces, and pieces that are empty then.
void KLVMsgOutput::CutPieces(std::size_t before, std::size_t count) {
    std::size_t start = 0;  // of the piece, from the first byte that has not gone
    for (auto piece = m_pieces.begin(); count != 0;) {
        const std::size_t size = piece->end - piece->begin;
        if (before >= size) {
            before -= size;
            start += size;
            ++piece;
            continue;
        }
        const std::size_t cut = std::min(count, size - before);
        count -= cut;
        if (cut == size) {
            piece = m_pieces.erase(piece);
            continue;
        }
        // A shared body is cut out whole, so this is a block.
        char* const from = piece->block.get() + piece->begin + before;
        std::memmove(from, from + cut, size - before - cut);
        piece->end -= cut;
        if (start >= m_out) {
            Shrink(*piece);
        }
        start += size - cut;
        before = 0;
        ++piece;
    }
}

// A block of which little is left takes no more memory than that. Where there is none to move it to
// it stays as it is.
void KLVMsgOutput::Shrink(Piece& piece) {
    const std::size_t size = piece.end - piece.begin;
    if (piece.room <= kFirstBlock || size > piece.room / 4) {
        return;
    }
    try {
        std::unique_ptr<char[]> smaller(new char[size]);
        std::memcpy(smaller.get(), piece.block.get() + piece.begin, size);
        piece = {std::move(smaller), nullptr, size, 0, size};
    } catch (const std::bad_alloc&) {
    }
}

void KLVMsgOutput::Clear() {
    m_pieces.clear();
    m_ends.clear();
    m_start = m_appended = m_taken;
    m_held = 0;
}
