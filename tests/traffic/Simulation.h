// Two connections of a session that talk through a network which a seed makes up: how bytes are cut, how
// many the system takes and when, who resets, leaves, stalls, throws and runs out of memory, and how the
// clock jumps. After each step they must have kept what they promise; a seed replays.
#pragma once

#include <KLVMsgFramedMessage.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Faults.h"
#include "KLVMsgConnection.h"
#include "KLVMsgWireWriter.h"

class Simulation {
public:
    // What was not kept; empty when everything was.
    static std::string Run(std::uint64_t seed) {
        try {
            Simulation(seed).Run();
        } catch (const char* broken) {
            return "seed " + std::to_string(seed) + ": " + broken;
        }
        return "";
    }

private:
    using Time = KLVMsgPeerWatch::Time;
    using Event = KLVMsgEvent;
    enum Kind { kFramed, kBare, kUnknown, kThrows, kTooLong, kNoName, kNoFrame };

    // Number, size, and so many letters of one kind.
    struct Content {
        bool Has(std::string_view text, const Content& wanted) const {
            return number == wanted.number && text.size() == wanted.size &&
                   text.find_first_not_of(Letter()) == std::string_view::npos;
        }
        char Letter() const { return static_cast<char>('a' + number % 26); }
        std::uint32_t number = 0;
        std::uint32_t size = 0;
    };
    struct Framed : KLVMsgFramedMessage {
        bool Encode(std::string& bytes) const override {
            bytes.assign(reinterpret_cast<const char*>(&content), sizeof content);
            bytes.append(content.size, content.Letter());
            return true;
        }
        bool Decode(std::string_view) override { return false; }
        KLVMsgSocketMessage* NewInstance() override { return nullptr; }
        KLVString GetMessageType() const override { return isUnknown ? "Stranger" : "Framed"; }
        bool isUnknown = false;
        Content content;
    };
    // Never asks whether a read fell short.
    struct Bare : KLVMsgSocketMessage {
        int WriteMessage(KLVMsgOutputStream* stream) override {
            int count = 0;
            text.assign(content.size == kThrowing ? 0 : content.size, content.Letter());
            stream->write(&content, sizeof content, count);
            stream->write(text.data(), static_cast<int>(text.size()), count);
            return 1;
        }
        int ReadMessage(KLVMsgInputStream* stream) override {
            int count = 0;
            stream->read(&content.number, sizeof content.number, count);
            stream->read(&content.size, sizeof content.size, count);
            text.resize(content.size != kThrowing ? content.size : throw content.size);
            stream->read(text.data(), static_cast<int>(text.size()), count);
            return 1;
        }
        KLVMsgSocketMessage* NewInstance() override { return new Bare; }
        KLVString GetMessageType() const override { return "Bare"; }
        static constexpr std::uint32_t kThrowing = 0xffffffff;
        Content content;
        std::string text;
    };

    struct Sent {
        Kind kind;
        Content content;
        KLVMsgOutput::Position begin, end;
    };
    struct End {
        End(const KLVMsgMessageTypes& types, const KLVMsgSessionOptions& options)
            : connection(types, options) {}
        KLVMsgConnection connection;
        std::optional<KLVMsgOutput::Run> run;
        std::string wire;                 // from here, and not yet read
        bool hasEnded = false;            // what the wire carries ends there
        bool hasDropped = false;          // something that was queued does not go
        std::vector<Sent> sent;           // not taken back
        std::size_t arrived = 0;          // of them
        KLVMsgOutput::Position gone = 0;  // taken by the system
        bool hasToldUnknown = false;
        Time cameAt, tookAt;
        unsigned causes = 0;  // for which it may end
    };

    explicit Simulation(std::uint64_t seed) : m_state(seed * 0x9e3779b97f4a7c15) {
        m_options.stallEnds = Below(2) == 0;
        for (auto& end : m_ends) {
            end.emplace(Types(), m_options);
            end->cameAt = end->tookAt = m_now;
        }
    }

    void Run() {
        for (int step = 0; step < 20; ++step) {
            const unsigned side = Below(2);
            Step(*m_ends[side], *m_ends[1 - side]);
            Keep();
        }
        m_isCalm = true;
        for (int round = 0; round < 12; ++round) {
            for (unsigned side = 0; side < 2; ++side) {
                End& end = *m_ends[side];
                if (!end.connection.Reads()) {
                    end.connection.AllowReading(m_now, true);
                }
                for (int i = 0; i < 40 && (end.run || end.connection.Writes()); ++i) {
                    Write(end, *m_ends[1 - side]);
                }
                Read(end, *m_ends[1 - side]);
            }
            Keep();
            if (m_ends[0]->wire.empty() && m_ends[1]->wire.empty() && round > 1) {
                break;
            }
        }
        CheckCompleteness(*m_ends[0], *m_ends[1]);
        CheckCompleteness(*m_ends[1], *m_ends[0]);
    }

    void Step(End& end, End& peer) {
        using Do = void (Simulation::*)(End&, End&);
        static constexpr Do kQueue = &Simulation::Queue, kWrite = &Simulation::Write,
                            kRead = &Simulation::Read;
        static constexpr Do what[] = {kQueue,
                                      kQueue,
                                      kQueue,
                                      kWrite,
                                      kWrite,
                                      kWrite,
                                      kRead,
                                      kRead,
                                      kRead,
                                      &Simulation::TakeBack,
                                      &Simulation::Jump,
                                      &Simulation::Disturb};
        (this->*what[Below(std::size(what))])(end, peer);
    }

    void Queue(End& end, End&) {
        KLVMsgOutput& output = end.connection.output;
        if (!end.connection.Takes()) {
            return;
        }
        const Kind kind =
            Below(24) != 0 ? static_cast<Kind>(Below(3)) : static_cast<Kind>(3 + Below(4));
        Content content{++m_number, Below(8) == 0 ? Below(12000) : Below(60)};
        content.size = kind == kThrows ? Bare::kThrowing : kind == kTooLong ? 20000 : content.size;
        content.size = kind < kBare && Below(200) == 0 ? 70000 + Below(200000) : content.size;
        const KLVMsgOutput::Position begin = output.Appended();
        const FailingAllocation fault(Shortage());
        try {
            if (kind == kNoName || kind == kNoFrame) {
                using namespace std::string_literals;
                output.Append(kind == kNoFrame ? "\1\0\0\0?"s : ""s, "\xff\xff\xff\x7f", nullptr);
            } else {
                KLVMsgWireWriter bytes;
                if (!Put(kind, content, bytes)) {
                    return;
                }
                output.Append(bytes.Head(), bytes.Body(), bytes.Shared());
            }
        } catch (const std::bad_alloc&) {
            return Require(output.Appended() == begin, "a message without memory was queued");
        }
        const Exempt exempt;
        end.sent.push_back({kind, content, begin, output.Appended()});
    }

    bool Put(Kind kind, Content content, KLVMsgWireWriter& bytes) {
        Framed framed;
        Bare bare;
        framed.content = bare.content = content;
        framed.isUnknown = kind == kUnknown;
        const bool isFramed = kind == kFramed || kind == kUnknown;
        const KLVMsgOutcome outcome = isFramed ? bytes.Write(framed, &framed, m_options.largestBody)
                                               : bytes.Write(bare, nullptr, m_options.largestBody);
        Require(outcome || m_isShort, "a message was refused");
        return static_cast<bool>(outcome);
    }

    // A run goes out with one step, and comes back with a later one.
    void Write(End& end, End& peer) {
        KLVMsgConnection& connection = end.connection;
        if (!end.run) {
            if (connection.Writes()) {
                static constexpr std::size_t segments[] = {0, 100, 1448, 70000};
                const std::size_t segment = segments[Below(4)];
                end.run = connection.output.Take(segment);
                CheckRun(end, segment);
            }
            return;
        }
        const bool isGone = peer.connection.IsOver() || connection.IsOver();
        const std::size_t size = end.run->size;
        const std::size_t most = isGone ? 0 : m_isCalm || Below(2) == 0 ? size : Below(size + 1);
        std::size_t count = most;
        for (int i = 0; i < end.run->count && count != 0; ++i) {
            const std::size_t part = std::min(count, end.run->pieces[i].iov_len);
            end.wire.append(static_cast<const char*>(end.run->pieces[i].iov_base), part);
            count -= part;
        }
        end.run.reset();
        end.gone += most;
        end.tookAt = most != 0 || !connection.IsFull() ? m_now : end.tookAt;
        connection.Took(m_now, most, most < size);
        Require(connection.output.Taken() == end.gone, "bytes are counted wrongly");
        if (isGone) {
            FailOutput(end, EPIPE);
        }
    }

    static void CheckRun(const End& end, std::size_t segment) {
        const KLVMsgOutput::Position to = end.gone + end.run->size;
        const auto most = end.gone + std::min(segment, KLVMsgOutput::kMostAtOnce);
        const Sent* first = nullptr;
        bool isEnd = false, isAllThatFits = true;
        for (const Sent& one : end.sent) {
            first = first == nullptr && one.end > end.gone ? &one : first;
            isEnd = isEnd || one.end == to;
            isAllThatFits = isAllThatFits && (one.end <= to || one.end > most);
        }
        Require(to > end.gone && to <= end.gone + KLVMsgOutput::kMostAtOnce, "a run has no size");
        Require(end.run->endsMessage == isEnd, "a run does not know where it ends");
        const bool isAlone = to <= first->end;
        Require(segment == 0 || isAlone || (first->begin >= end.gone && isEnd && to <= most),
                "a run cuts a header");
        Require(segment == 0 || first->begin < end.gone || isAllThatFits, "a message is left");
    }

    void Read(End& end, End& peer) {
        KLVMsgConnection& connection = end.connection;
        if (!connection.Reads()) {
            return;
        }
        if (peer.wire.empty()) {
            if (peer.hasEnded) {
                end.causes |= 1U << Event::kClosed | (peer.hasDropped ? 1U << Event::kCut : 0);
                connection.InputEnded();
                connection.EndOutput(false);
            }
            return;
        }
        std::size_t count = m_isCalm || Below(3) != 0 ? peer.wire.size() : 1 + Below(16);
        if (!connection.Discards()) {
            count = Feed(connection, std::min(count, peer.wire.size()), peer.wire.data());
            end.cameAt = m_now;
            CheckArrivals(end, peer);
        }
        peer.wire.erase(0, count);
    }

    // Returns how many there was room for.
    std::size_t Feed(KLVMsgConnection& connection, std::size_t count, const char* bytes) {
        static KLVMsgWireReader::Buffer buffer;
        m_arrivals.messages.clear();
        m_arrivals.unknown.clear();
        const FailingAllocation fault(Shortage());
        KLVMsgWireReader::Space spaces[2];
        try {
            connection.reader.MakeRoom(buffer, spaces);
        } catch (const std::bad_alloc&) {
            connection.Failed(ENOMEM);
            return 0;
        }
        const std::size_t first = std::min(count, spaces[0].size);
        const std::size_t second = std::min(count - first, spaces[1].size);
        std::copy_n(bytes, first, spaces[0].data);
        std::copy_n(bytes + first, second, spaces[1].data);
        connection.reader.Came(buffer, first + second, m_arrivals);
        connection.Came(m_now);
        return first + second;
    }

    void CheckArrivals(End& end, End& peer) {
        for (const std::string& name : m_arrivals.unknown) {
            Require(name == "?" || (name == "Stranger" && !end.hasToldUnknown),
                    "a name is no news");
            end.hasToldUnknown = end.hasToldUnknown || name != "?";
        }
        for (const auto& parcel : m_arrivals.messages) {
            const Sent* const sent = NextKnown(peer);
            Require(sent != nullptr && sent->kind <= kBare, "something came that nobody sent");
            Require(parcel->type == static_cast<unsigned>(sent->kind), "the type is another one");
            Require(parcel->wireSize == sent->end - sent->begin, "the size is another one");
            const auto* const bare = static_cast<Bare*>(parcel->object);
            std::string_view text = bare != nullptr ? bare->text : parcel->Body();
            Content content = bare != nullptr ? bare->content : Content();
            if (bare == nullptr) {
                text.copy(reinterpret_cast<char*>(&content), sizeof content);
                text.remove_prefix(sizeof content);
            }
            Require(content.Has(text, sent->content), "it is not whole");
            ++peer.arrived;
        }
        const Sent* const next = NextKnown(peer);
        const bool isLength = next != nullptr && next->kind >= kNoName;
        const bool isRefused =
            m_isShort || (next != nullptr && (next->kind == kThrows || next->kind == kTooLong));
        end.causes |= (isLength ? 1U << Event::kUnknownLength : 0) |
                      (isRefused ? 1U << Event::kRefusedBody : 0) |
                      (m_isShort ? 1U << Event::kNoMemory : 0);
    }

    static const Sent* NextKnown(End& peer) {
        while (peer.arrived < peer.sent.size() && peer.sent[peer.arrived].kind == kUnknown &&
               peer.sent[peer.arrived].end <= peer.gone) {
            ++peer.arrived;
        }
        return peer.arrived < peer.sent.size() ? &peer.sent[peer.arrived] : nullptr;
    }

    void TakeBack(End& end, End&) {
        if (end.sent.empty() || end.hasDropped) {
            return;
        }
        const std::size_t which = Below(end.sent.size());
        const Sent one = end.sent[which];
        const bool isFree = one.begin >= end.gone + (end.run ? end.run->size : 0);
        Require(end.connection.CutOut(one.begin, one.end) == isFree, "taken back too late, or not");
        if (isFree) {
            end.sent.erase(end.sent.begin() + static_cast<std::ptrdiff_t>(which));
            for (std::size_t i = which; i < end.sent.size(); ++i) {
                end.sent[i].begin -= one.end - one.begin;
                end.sent[i].end -= one.end - one.begin;
            }
        }
    }

    void Jump(End&, End&) {
        const Time before = m_now;
        m_now += std::chrono::milliseconds(Below(3) == 0 ? 31000 : Below(6000));
        for (auto& end : m_ends) {
            KLVMsgConnection& connection = end->connection;
            if (connection.IsOver() || connection.NextCheck(before) > m_now) {
                continue;
            }
            const bool isDead = Below(24) == 0;
            const std::chrono::milliseconds quiet(isDead ? 25000 : 24999);
            const bool isStill = connection.IsFull() && m_now - end->tookAt >= m_stall;
            const bool isCut = connection.reader.InMiddle() && connection.Reads() &&
                               !connection.Discards() && m_now - end->cameAt >= m_stall;
            end->causes |= isDead ? 1U << Event::kDead : 0;
            end->causes |= m_options.stallEnds && (isStill || isCut) ? 1U << Event::kStalled : 0;
            const bool stalls = connection.Check(m_now, {1, 0, quiet});
            Require(!stalls || isStill || isCut, "a stall was told of one that does not");
            Require(connection.IsOver() || connection.NextCheck(m_now) > m_now, "no end of checks");
        }
    }

    void Disturb(End& end, End& peer) {
        KLVMsgConnection& connection = end.connection;
        switch (Below(8)) {
            case 0:
                return FailOutput(end, Below(2) == 0 ? EPIPE : ETIMEDOUT);
            case 1:
                end.causes |= 1U << Event::kReset;
                end.hasDropped = peer.hasDropped = true;
                end.wire.clear();
                return connection.Failed(ECONNRESET);
            case 2:
                end.causes |= 1U << Event::kShutDownHere;
                end.hasDropped = true;
                return connection.Leave(m_now + std::chrono::seconds(5));
            case 3:
                return connection.EndOutput(Below(2) == 0);
            default:
                return connection.AllowReading(m_now, Below(2) == 0);
        }
    }

    static void FailOutput(End& end, int error) {
        end.causes |= 1U << (error == ETIMEDOUT ? Event::kDead : Event::kReset);
        end.hasDropped = true;
        end.connection.OutputFailed(error);
    }

    // After each step.
    void Keep() {
        for (auto& end : m_ends) {
            KLVMsgConnection& connection = end->connection;
            const KLVMsgOutput& output = connection.output;
            if (!connection.IsOver() && connection.EndsOutput() && !end->run) {
                Require(end->hasDropped || end->sent.empty() || end->sent.back().end <= end->gone,
                        "the output ends before all has gone");
                end->hasEnded = true;
                connection.OutputEnded();
            }
            Require((end->causes | 1U) >> connection.WhyOver() & 1,
                    "a cause that there was none for");
            Require(!connection.IsOver() || connection.WhyOver() != Event::kNoCause, "no cause");
            end->hasEnded = end->hasEnded || connection.IsOver();
            end->hasDropped = end->hasDropped || (connection.IsOver() && !output.IsEmpty());
            Require(!connection.IsFull() || connection.Writes() || connection.IsOver() || end->run,
                    "waits for the system, though nothing is queued");
            Require(!connection.IsFull() || connection.NextCheck(m_now) != Time::max() || end->run,
                    "waits for the system, and nobody looks after it");
            std::size_t queued = 0;
            for (const Sent& one : end->sent) {
                queued += one.end > end->gone ? 1 : 0;
            }
            Require(end->hasDropped || output.Messages() == queued, "the queue is another one");
        }
    }

    static void CheckCompleteness(End& end, End& peer) {
        if (end.hasDropped || peer.connection.IsOver() || peer.connection.Discards()) {
            return;
        }
        Require(NextKnown(end) == nullptr, "something that was sent never came");
        Require(end.connection.output.IsEmpty() && end.wire.empty(), "bytes are left");
        Require(!peer.connection.reader.InMiddle(), "a part of a message is left");
    }

    static const KLVMsgMessageTypes& Types() {
        static KLVMsgMessageTypes types;
        if (types.Size() == 0) {
            types.Add({"Framed", &typeid(Framed), std::make_unique<Framed>(), true, 300000});
            types.Add({"Bare", &typeid(Bare), std::make_unique<Bare>(), false, 0});
        }
        return types;
    }

    static void Require(bool holds, const char* what) {
        if (!holds) {
            throw what;
        }
    }

    unsigned Below(std::size_t limit) {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        return static_cast<unsigned>((m_state >> 32) % limit);
    }

    // The allocation for which there is no memory in this step; 0 when there is enough.
    int Shortage() {
        m_isShort = !m_isCalm && Below(12) == 0;
        return m_isShort ? 1 + static_cast<int>(Below(4)) : 0;
    }

    std::uint64_t m_state;
    KLVMsgSessionOptions m_options = [] {
        KLVMsgSessionOptions options;
        options.largestBareBody = 20000;
        return options;
    }();
    const std::chrono::milliseconds m_stall = m_options.stall.Duration();
    Time m_now = Time() + std::chrono::hours(1);
    std::optional<End> m_ends[2];
    KLVMsgWireReader::Arrivals m_arrivals;
    std::uint32_t m_number = 0;
    bool m_isShort = false;
    bool m_isCalm = false;  // nothing fails any more
};
