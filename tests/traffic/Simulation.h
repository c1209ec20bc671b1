// Two connections of a session that talk through a network which a seed makes up: how bytes are
// cut, how many the system takes and when, who resets, leaves, stalls, throws and runs out of
// memory, and how the clock jumps. After each step they must have kept what they promise; a seed
// replays.
#pragma once

#include <KLVMsgSocketMessage.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Faults.h"
#include "KLVMsgConnection.h"

class Simulation {
public:
    explicit Simulation(std::uint64_t seed) : m_seed(seed), m_state(seed * 0x9e3779b97f4a7c15) {
        m_types.Add({"Framed", &typeid(Sent), std::make_unique<Bare>(), true, 300000});
        m_types.Add({"Bare", &typeid(Bare), std::make_unique<Bare>(), false, 0});
        m_options.largestBareBody = 20000;
        m_options.stallEnds = Below(2) == 0;
        m_ends[0].emplace(m_types, m_options, m_now);
        m_ends[1].emplace(m_types, m_options, m_now);
    }

    // Throws what was not kept.
    void Run() {
        for (int step = 0; step < 20; ++step) {
            const unsigned side = Below(2), what = Below(12);
            End &end = *m_ends[side], &peer = *m_ends[1 - side];
            what < 3    ? (end.connection.Takes() ? Queue(end) : void())
            : what < 6  ? Write(end, peer)
            : what < 9  ? Read(end, peer)
            : what < 10 ? (end.sent.empty() || end.hasDropped ? void() : TakeBack(end))
            : what < 11 ? Jump()
                        : Disturb(end, peer);
            Keep(end);
            Keep(peer);
        }
        m_isCalm = true;
        for (unsigned side = 0; side < 24; ++side) {
            End &end = *m_ends[side % 2], &peer = *m_ends[1 - side % 2];
            end.connection.AllowReading(m_now, true);
            for (int i = 0; i < 40 && (end.run || end.connection.Writes()); ++i) {
                Write(end, peer);
            }
            Read(end, peer);
            Keep(end);
        }
        CheckWhole(*m_ends[0], *m_ends[1]);
        CheckWhole(*m_ends[1], *m_ends[0]);
    }

private:
    using Time = KLVMsgPeerWatch::Time;
    using Event = KLVMsgEvent;
    using Position = KLVMsgOutput::Position;
    enum Kind { kFramed, kBare, kUnknown, kThrows, kTooLong, kNoName };

    // Reads a length and so many bytes, and never asks whether a read fell short.
    struct Bare : KLVMsgSocketMessage {
        int WriteMessage(KLVMsgOutputStream*) override { return 0; }
        int ReadMessage(KLVMsgInputStream* stream) override {
            int count = 0;
            std::uint32_t size = 0;
            stream->read(&size, sizeof size, count);
            text.resize(size != ~0U ? size : throw size);
            stream->read(text.data(), static_cast<int>(size), count);
            return 1;
        }
        KLVMsgSocketMessage* NewInstance() override { return new Bare; }
        KLVString GetMessageType() const override { return "Bare"; }
        std::string text;
    };
    struct Sent {
        Kind kind;
        std::string text;
        Position begin, end;
    };
    struct End {
        End(const KLVMsgMessageTypes& types, const KLVMsgSessionOptions& options, Time now)
            : connection(types, options), cameAt(now), tookAt(now) {}
        void May(Event::Cause cause, bool indeed = true) { causes |= indeed ? 1U << cause : 0; }
        KLVMsgConnection connection;
        Time cameAt, tookAt;
        std::optional<KLVMsgOutput::Run> run;
        std::string wire;         // from here, and not yet read
        bool hasEnded = false;    // what the wire carries ends there
        bool hasDropped = false;  // something that was queued does not go
        std::vector<Sent> sent;   // not taken back
        std::size_t arrived = 0;  // of them
        Position gone = 0;        // taken by the system
        std::size_t toldUnknown = 0;
        unsigned causes = 1U << Event::kNoCause;  // for which it may end
    };

    void Queue(End& end) {
        KLVMsgOutput& output = end.connection.output;
        const auto kind = static_cast<Kind>(Below(24) != 0 ? Below(3) : 3 + Below(3));
        std::size_t size = kind == kTooLong ? 20000 : Below(Below(8) == 0 ? 12000 : 60);
        size = kind == kFramed && Below(200) == 0 ? 70000 + Below(200000) : size;
        std::string text = std::to_string(++m_number) + " ";
        text.resize(text.size() + size, static_cast<char>('a' + m_number % 26));
        const auto length = [](std::size_t n) {
            return std::string(reinterpret_cast<const char*>(&n), 4);
        };
        static const std::string names[] = {"Framed", "Bare", "Stranger"};
        const std::string& name = names[kind < kThrows ? kind : kBare];
        std::string head = length(name.size()) + name + length(kind == kThrows ? ~0U : text.size());
        head = kind == kNoName ? length(0x7fffffff) : head;
        const bool isLarge = text.size() >= 65536;
        const auto shared = isLarge ? std::make_shared<const std::string>(text) : nullptr;
        const Position begin = output.Appended();
        try {
            const FailingAllocation fault(Shortage());
            output.Append(head, text, shared);
        } catch (const std::bad_alloc&) {
            return Require(output.Appended() == begin, "a message without memory was queued");
        }
        end.sent.push_back({kind, std::move(text), begin, output.Appended()});
    }

    // A run goes out, and comes back later.
    void Write(End& end, End& peer) {
        KLVMsgConnection& connection = end.connection;
        if (!end.run) {
            return connection.Writes() ? TakeRun(end) : void();
        }
        const bool isGone = peer.connection.IsOver() || connection.IsOver();
        const std::size_t size = end.run->size;
        const std::size_t most = isGone ? 0 : m_isCalm || Below(2) == 0 ? size : Below(size + 1);
        std::string bytes;
        for (int i = 0; i < end.run->count; ++i) {
            const iovec& piece = end.run->pieces[i];
            bytes.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
        }
        end.wire.append(bytes, 0, most);
        end.run.reset();
        end.gone += most;
        end.tookAt = most != 0 || !connection.IsFull() ? m_now : end.tookAt;
        connection.Took(m_now, most, most < size);
        Require(connection.output.Taken() == end.gone, "bytes are counted wrongly");
        if (isGone) {
            FailOutput(end, EPIPE);
        }
    }

    void TakeRun(End& end) {
        static constexpr std::size_t segments[] = {0, 100, 1448, 70000};
        const std::size_t segment = segments[Below(4)];
        end.run = end.connection.output.Take(segment);
        const Position to = end.gone + end.run->size;
        const Position most = end.gone + std::min(segment, KLVMsgOutput::kMostAtOnce);
        const Sent* first = nullptr;
        bool isEnd = false, isAllThatFits = true;
        for (const Sent& one : end.sent) {
            first = first == nullptr && one.end > end.gone ? &one : first;
            isEnd = isEnd || one.end == to;
            isAllThatFits = isAllThatFits && (one.end <= to || one.end > most);
        }
        Require(to > end.gone && to <= end.gone + KLVMsgOutput::kMostAtOnce, "a run has no size");
        Require(end.run->endsMessage == isEnd, "a run does not know where it ends");
        const bool isWhole = first->begin >= end.gone && isEnd && to <= most && isAllThatFits;
        const bool isAlone = to <= first->end && (first->begin < end.gone || first->end > most);
        Require(segment == 0 || isAlone || isWhole, "a run cuts a header, or leaves a message");
    }

    void Read(End& end, End& peer) {
        KLVMsgConnection& connection = end.connection;
        if (connection.Reads() && peer.wire.empty() && peer.hasEnded) {
            end.May(Event::kClosed);
            end.May(Event::kCut, peer.hasDropped);
            connection.InputEnded();
            connection.EndOutput(false);
        }
        if (!connection.Reads() || peer.wire.empty()) {
            return;
        }
        std::size_t count = peer.wire.size();
        count = m_isCalm || Below(3) != 0 ? count : std::min<std::size_t>(count, 1 + Below(16));
        if (!connection.Discards()) {
            KLVMsgWireReader::Arrivals arrivals;
            KLVMsgWireReader::Space spaces[2];
            connection.reader.MakeRoom(m_buffer, spaces);
            count = std::min(count, spaces[0].size + spaces[1].size);
            const std::size_t first = std::min(count, spaces[0].size);
            peer.wire.copy(spaces[0].data, first);
            peer.wire.copy(spaces[1].data, count - first, first);
            std::optional<FailingAllocation> fault(Shortage());
            connection.reader.Came(m_buffer, count, arrivals);
            connection.Came(m_now);
            fault.reset();
            end.cameAt = m_now;
            CheckArrivals(end, peer, arrivals);
        }
        peer.wire.erase(0, count);
    }

    void CheckArrivals(End& end, End& peer, KLVMsgWireReader::Arrivals& arrivals) {
        end.toldUnknown += arrivals.unknown.size();
        Require(end.toldUnknown <= 1, "an unknown type was told again");
        for (auto& parcel : arrivals.messages) {
            parcel->ForEach([&] {
                CheckFirst(*parcel, peer);
                ++peer.arrived;
            });
            m_buffer.stock.Put(std::move(parcel));
        }
        const Sent* const next = NextKnown(peer);
        const Kind kind = next != nullptr ? next->kind : kFramed;
        end.May(Event::kUnknownLength, kind == kNoName);
        end.May(Event::kRefusedBody, m_isShort || kind == kThrows || kind == kTooLong);
        end.May(Event::kNoMemory, m_isShort);
    }

    void CheckFirst(KLVMsgParcel& parcel, End& peer) const {
        const Sent* const sent = NextKnown(peer);
        Require(sent != nullptr && sent->kind <= kBare, "something came that nobody sent");
        Require(parcel.type == static_cast<unsigned>(sent->kind), "the type is another one");
        Require(parcel.FirstSize() == sent->end - sent->begin, "the size is another one");
        const auto* const bare = static_cast<Bare*>(parcel.object);
        Require((bare != nullptr ? bare->text : parcel.Body()) == sent->text, "not whole");
    }

    static const Sent* NextKnown(End& peer) {
        while (peer.arrived < peer.sent.size() && peer.sent[peer.arrived].kind == kUnknown &&
               peer.sent[peer.arrived].end <= peer.gone) {
            ++peer.arrived;
        }
        return peer.arrived < peer.sent.size() ? &peer.sent[peer.arrived] : nullptr;
    }

    void TakeBack(End& end) {
        const auto which = end.sent.begin() + Below(end.sent.size());
        const Position begin = which->begin, size = which->end - begin;
        const bool isFree = begin >= end.gone + (end.run ? end.run->size : 0);
        Require(!end.connection.CutOut(begin, begin + size - 1), "a part was taken back");
        Require(end.connection.CutOut(begin, begin + size) == isFree,
                "taken back too late, or not");
        if (isFree) {
            for (auto later = end.sent.erase(which); later != end.sent.end(); ++later) {
                later->begin -= size;
                later->end -= size;
            }
        }
    }

    void Jump() {
        const Time before = m_now;
        m_now += std::chrono::milliseconds(Below(3) == 0 ? 31000 : Below(6000));
        for (auto& end : m_ends) {
            KLVMsgConnection& connection = end->connection;
            if (connection.IsOver() || connection.NextCheck(before) > m_now) {
                continue;
            }
            const bool isDead = Below(24) == 0;
            const bool isStill = connection.IsFull() && m_now - end->tookAt >= m_stall;
            const bool isCut = connection.reader.InMiddle() && connection.Reads() &&
                               !connection.Discards() && m_now - end->cameAt >= m_stall;
            end->May(Event::kDead, isDead);
            end->May(Event::kStalled, m_options.stallEnds && (isStill || isCut));
            const bool stalls =
                connection.Check(m_now, {1, 0, std::chrono::milliseconds(isDead ? 25000 : 24999)});
            Require(!stalls || isStill || isCut, "a stall was told of one that does not");
            Require(connection.IsOver() || connection.NextCheck(m_now) > m_now, "no end of checks");
        }
    }

    void Disturb(End& end, End& peer) {
        const unsigned what = Below(12);
        if (what < 2) {
            FailOutput(end, what == 0 ? EPIPE : ETIMEDOUT);
        } else if (what == 2) {
            end.May(Event::kReset);
            end.hasDropped = peer.hasDropped = true;
            end.wire.clear();
            end.connection.Failed(ECONNRESET);
        } else if (what == 3) {
            end.May(Event::kShutDownHere);
            end.hasDropped = true;
            end.connection.Leave(m_now + std::chrono::seconds(5));
        } else if (what == 4) {
            end.connection.EndOutput(Below(2) == 0);
        } else {
            end.connection.AllowReading(m_now, Below(2) == 0);
        }
    }

    static void FailOutput(End& end, int error) {
        end.May(error == ETIMEDOUT ? Event::kDead : Event::kReset);
        end.hasDropped = true;
        end.connection.OutputFailed(error);
    }

    void Keep(End& end) {
        KLVMsgConnection& connection = end.connection;
        const KLVMsgOutput& output = connection.output;
        std::size_t queued = 0, bytes = 0;
        for (const Sent& one : end.sent) {
            queued += one.end > end.gone ? 1 : 0;
            bytes = one.end - end.gone;
        }
        const bool isOver = connection.IsOver();
        if (!isOver && connection.EndsOutput() && !end.run) {
            Require(end.hasDropped || queued == 0, "the output ends before all has gone");
            end.hasEnded = true;
            connection.OutputEnded();
        }
        Require(end.causes >> connection.WhyOver() & 1, "a cause that there was none for");
        Require(!isOver || connection.WhyOver() != Event::kNoCause, "no cause");
        end.hasEnded = end.hasEnded || isOver;
        end.hasDropped = end.hasDropped || (isOver && !output.IsEmpty());
        const bool waits = connection.IsFull() && !end.run;
        Require(!waits || connection.Writes() || isOver, "waits, though nothing is queued");
        Require(!waits || connection.NextCheck(m_now) != Time::max(), "nobody looks after it");
        Require(end.hasDropped || output.Cost() == bytes + 64 * queued, "another queue");
        Require(end.hasDropped || output.MessagesTaken() + queued == end.sent.size(), "taken");
    }

    void CheckWhole(End& end, End& peer) {
        const bool isDue =
            !end.hasDropped && !peer.connection.IsOver() && !peer.connection.Discards();
        Require(!isDue || NextKnown(end) == nullptr, "something that was sent never came");
        Require(!isDue || (end.connection.output.IsEmpty() && end.wire.empty()), "bytes are left");
        Require(!isDue || !peer.connection.reader.InMiddle(), "a part of a message is left");
    }

    void Require(bool holds, const char* what) const {
        holds ? void() : throw std::runtime_error("seed " + std::to_string(m_seed) + ": " + what);
    }

    unsigned Below(std::size_t limit) {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        return static_cast<unsigned>((m_state >> 32) % limit);
    }

    // The allocation for which there is no memory, if any.
    int Shortage() {
        m_isShort = !m_isCalm && Below(12) == 0;
        return m_isShort ? 1 + static_cast<int>(Below(4)) : 0;
    }

    const std::uint64_t m_seed;
    std::uint64_t m_state;
    KLVMsgMessageTypes m_types;
    KLVMsgSessionOptions m_options;
    const std::chrono::milliseconds m_stall = m_options.stall.Duration();
    Time m_now = Time() + std::chrono::hours(1);
    KLVMsgWireReader::Buffer m_buffer;
    std::optional<End> m_ends[2];
    unsigned m_number = 0;
    bool m_isShort = false, m_isCalm = false;  // calm: nothing fails any more
};
