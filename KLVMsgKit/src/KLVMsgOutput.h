// For the session's own sources: what is queued for one connection.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "KLVMsgFifo.h"

// Bytes in the order in which they go, and where each message ends. Bytes are counted from the
// connection's beginning: a position is how many stand before it.
//
//     0        Taken()                  Appended()
//     |--------|------------------------|
//       gone     queued; Take shows what goes next
//
// No I/O and no lock. While runs are out, which Take has shown and Took has not been told of, bytes
// may be appended, and cut out behind them.
class KLVMsgOutput {
public:
    using Position = std::uint64_t;

    static constexpr std::size_t kMostAtOnce = std::size_t{64} << 10;  // bytes of a run
    static constexpr std::size_t kPerMessage = 64;  // what a message costs beside its bytes

    // Bytes for one call of the system.
    struct Run {
        static constexpr int kMostPieces = 4;

        iovec pieces[kMostPieces];
        int count = 0;
        std::size_t size = 0;
        bool endsMessage = false;
    };

    // Appends one message, and returns where it ends. Throws std::bad_alloc and leaves everything
    // as it was. `shared` holds the body if it is not null: then it is not copied.
    Position Append(std::string_view head, std::string_view body,
                    const std::shared_ptr<const std::string>& shared);

    // What goes next, behind the runs that are out already. With a segment's size the run fits into
    // it and ends with a message; a message that is longer, or of which a part has gone, goes
    // alone. 0: as much as may go at once. Requires: HasMore() is true.
    Run Take(std::size_t segment);

    // The runs that were out are over, and so many of their bytes were taken by the system. So many
    // behind them are held: they go first the next time, as they are.
    void Took(std::size_t count, std::size_t held = 0);

    // Takes a message back of which nothing was taken, is out or is held. False when it is too late
    // for that.
    bool CutOut(Position begin, Position end);

    // Moves the messages of which nothing was taken behind those of another one; the rest of one of
    // which a part was is dropped, and true then. `shift` is what is added to their positions.
    // Throws std::bad_alloc and changes nothing then. Requires: no run is out.
    bool MoveTo(KLVMsgOutput& other, Position& shift);

    // Drops all that is queued. Requires: no run is out.
    void Clear();

    bool IsEmpty() const { return m_taken == m_appended; }
    bool IsOut() const { return m_out != 0; }
    bool HasMore() const { return m_taken + m_out != m_appended; }
    bool HasSeveral() const { return m_ends.size() > 1; }
    std::size_t Messages() const { return m_ends.size(); }
    std::uint64_t MessagesTaken() const { return m_messagesTaken; }
    Position Appended() const { return m_appended; }
    Position Taken() const { return m_taken; }

    // What is queued, against the limits.
    std::size_t Cost() const {
        return static_cast<std::size_t>(m_appended - m_taken) + kPerMessage * m_ends.size();
    }

private:
    // A run of bytes: a block of its own that is filled from the front, or a shared body.
    struct Piece {
        const char* Data() const { return shared != nullptr ? shared->data() : block.get(); }

        std::unique_ptr<char[]> block;
        std::shared_ptr<const std::string> shared;
        std::size_t room = 0;   // of the block; 0 for a shared one, to which nothing is appended
        std::size_t begin = 0;  // bytes before it have gone
        std::size_t end = 0;
    };

    static constexpr std::size_t kFirstBlock = 1024 - 64;
    static constexpr std::size_t kLargestBlock = std::size_t{64} << 10;

    static Piece NewBlock(std::size_t size);
    std::size_t NextRoom() const;
    void AddPieces(std::size_t block, const std::shared_ptr<const std::string>& shared);
    static void Shrink(Piece& piece);
    std::size_t RunSize(Position begin, std::size_t segment) const;
    void DropBytes(std::size_t count);
    void CutPieces(std::size_t before, std::size_t count);

    KLVMsgFifo<Piece> m_pieces;
    KLVMsgFifo<Position> m_ends;  // of the messages that are queued or partly gone
    Position m_appended = 0;
    Position m_taken = 0;
    Position m_start = 0;  // of the first message that is not wholly gone
    std::uint64_t m_messagesTaken = 0;
    std::size_t m_out = 0;   // bytes of the runs that are out
    std::size_t m_held = 0;  // bytes that go first, as they are
    std::size_t m_lastBlock = 0;
};
