#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <stdexcept>

#include "Faults.h"
#include "KLVMsgFramedMessage.h"
#include "KLVMsgWireReader.h"
#include "KLVMsgWireWriter.h"

namespace {

using Event = KLVMsgEvent;

// Its body is its text, or what a test says.
struct Letter : KLVMsgFramedMessage {
    explicit Letter(const std::string& content = "") : text(content) {}
    bool Encode(std::string& bytes) const override { return encode ? encode(bytes) : Put(bytes); }
    bool Put(std::string& bytes) const { return bytes = text, true; }
    bool Decode(std::string_view bytes) override { return text = bytes, true; }
    std::size_t Limit() const override { return 400000; }
    KLVMsgSocketMessage* NewInstance() override { return new Letter; }
    KLVString GetMessageType() const override { return KLVString(name.data(), int(name.size())); }
    std::string name = "Letter", text;
    std::function<bool(std::string&)> encode;
};

// Reads and writes its body by itself: a length and so many bytes, `step` of them at a time.
struct Bare : KLVMsgSocketMessage {
    int WriteMessage(KLVMsgOutputStream* stream) override {
        int count = 0, size = int(text.size());
        stream->write(&size, sizeof size, count);
        stream->write(text.data(), size, count);
        return 0;
    }
    int ReadMessage(KLVMsgInputStream* stream) override { return reading(*this, *stream), 1; }
    static void ReadWhole(Bare& bare, KLVMsgInputStream& stream) {
        int count = 0, size = 0;
        stream.read(&size, sizeof size, count);
        bare.text.resize(std::size_t(size));
        for (int done = 0; done < size; done += step) {
            stream.read(&bare.text[std::size_t(done)], std::min(step, size - done), count);
        }
    }
    KLVMsgSocketMessage* NewInstance() override { return ++made, makes ? new Bare : nullptr; }
    KLVString GetMessageType() const override { return "Bare"; }
    std::string text;
    static inline std::function<void(Bare&, KLVMsgInputStream&)> reading;
    static inline bool makes;
    static inline int made, step;
};

std::string Length(std::size_t length) {
    return std::string(reinterpret_cast<const char*>(&length), 4);
}
std::string Header(const std::string& name) { return Length(name.size()) + name; }
std::string Frame(const std::string& body, const std::string& name = "Letter") {
    return Header(name) + Length(body.size()) + body;
}
std::string BareBytes(const std::string& body) { return Frame(body, "Bare"); }

struct WireTest : testing::Test {
    WireTest() {
        Bare::reading = Bare::ReadWhole;
        Bare::makes = true;
        Bare::made = 0;
        Bare::step = 1 << 20;
        types.Add({"Letter", &typeid(Letter), std::make_unique<Letter>(), true, 400000});
        types.Add({"Bare", &typeid(Bare), std::make_unique<Bare>(), false, 0});
        Renew();
    }
    void Renew() { reader.emplace(types, largest, 300000), arrivals = {}; }

    // In pieces; false when a fault was found.
    bool Feed(std::string_view bytes, std::size_t piece = 1 << 20) {
        while (!bytes.empty()) {
            KLVMsgWireReader::Space spaces[2];
            reader->MakeRoom(buffer, spaces);
            room = spaces[0].size;
            const std::size_t first = std::min({piece, bytes.size(), spaces[0].size});
            const std::size_t rest =
                std::min({piece, bytes.size(), first + spaces[1].size}) - first;
            std::copy_n(bytes.data(), first, spaces[0].data);
            std::copy_n(bytes.data() + first, rest, spaces[1].data);
            reader->Came(buffer, first + rest, arrivals);
            bytes.remove_prefix(first + rest);
        }
        return reader->Fault() == Event::kNoCause;
    }
    // What has come so far: bodies, each behind its size on the wire, and unknown names.
    std::string Came() {
        std::string all;
        for (auto& parcel : std::exchange(arrivals.messages, {})) {
            const auto* const bare = static_cast<Bare*>(parcel->object);
            all += std::to_string(parcel->wireSize) + ":";
            all.append(bare != nullptr ? std::string_view(bare->text) : parcel->Body()) += " ";
        }
        for (const std::string& name : std::exchange(arrivals.unknown, {})) {
            all += "?" + name + " ";
        }
        return all;
    }
    KLVMsgOutcome Write(Letter& letter, std::size_t limit = 1 << 20) {
        return writer.Write(letter, &letter, limit);
    }
    std::string Written() { return std::string(writer.Head()).append(writer.Body()); }

    KLVMsgMessageTypes types;
    std::size_t largest = 500000, room = 0;
    KLVMsgWireReader::Buffer buffer;
    std::optional<KLVMsgWireReader> reader;
    KLVMsgWireReader::Arrivals arrivals;
    KLVMsgWireWriter writer;
};

TEST_F(WireTest, MessagesComeWholeHoweverTheyAreCut) {
    const std::string large(399999, 'x'), medium(299000, 'y');
    std::string ends, came;
    for (int i = 0; i < 100; ++i) {
        ends += Frame("end"), came += "17:end ";
    }
    const std::string bytes = Frame("one") + BareBytes("two") + Frame("") + Frame(large) +
                              BareBytes("") + BareBytes(medium) + ends;
    const std::string all =
        "17:one 15:two 14: 400013:" + large + " 12: 299012:" + medium + " " + came;
    for (const std::size_t piece : {std::size_t{977}, std::size_t{70000}, bytes.size()}) {
        Renew();
        ASSERT_TRUE(Feed(bytes, piece)) << reader->FaultText();
        EXPECT_TRUE(all == Came()) << piece;
        EXPECT_FALSE(reader->InMiddle());
    }
}

TEST_F(WireTest, LengthIsOnlyAPromise) {
    Feed(Header("Letter") + Length(400000) + "little");
    Feed("more");
    EXPECT_LE(room, 65536U);
    Feed(std::string(399990, 'x'), 1000);
    EXPECT_EQ(400014U, arrivals.messages.at(0)->wireSize);
}

TEST_F(WireTest, RefusedBytesEndTheReadingWithTheirCause) {
    Bare::reading = [](Bare& bare, KLVMsgInputStream& stream) {
        Bare::ReadWhole(bare, stream);
        bare.text == "int" ? throw 1 : bare.text == "text" ? throw std::runtime_error("why") : 0;
    };
    const struct {
        std::string bytes;
        Event::Cause cause;
        const char* words;
    } rows[] = {{Length(65536), Event::kUnknownLength, "65536"},
                {Header("Letter") + Length(400001), Event::kRefusedBody, "of which 400000"},
                {Header("?") + Length(500001), Event::kUnknownLength, "behind an unknown type"},
                {BareBytes(std::string(299997, 'x')), Event::kRefusedBody, "more than 300000"},
                {BareBytes("int"), Event::kRefusedBody, "reading Bare failed"},
                {BareBytes("text"), Event::kRefusedBody, "reading Bare failed: why"}};
    for (const auto& row : rows) {
        Renew();
        EXPECT_FALSE(Feed(Frame("good") + row.bytes + Frame("bad"))) << row.words;
        EXPECT_EQ(row.cause, reader->Fault()) << row.words;
        EXPECT_NE(std::string::npos, reader->FaultText().find(row.words)) << reader->FaultText();
        Feed(Frame("bad"));
        EXPECT_EQ("18:good ", Came().substr(0, 8)) << row.words;
        EXPECT_EQ("", Came());
    }
    largest = 9;
    Renew();
    EXPECT_FALSE(Feed(Header("Letter") + Length(10)));
    largest = 5;
    Renew();
    EXPECT_TRUE(Feed(Header("?") + Frame("x"))) << "a name may be longer than a body";
    Bare::makes = false;
    Renew();
    EXPECT_FALSE(Feed(BareBytes("none"))) << "made no object";
}

TEST_F(WireTest, WhatHasTheLargestSizeIsTaken) {
    EXPECT_TRUE(Feed(Header(std::string(65535, 'n')) + Length(500000) + std::string(500000, 'x')));
    EXPECT_TRUE(Feed(BareBytes(std::string(299996, 'x'))));
    EXPECT_TRUE(Feed(Frame(std::string(400000, 'x'))));
    EXPECT_EQ(2U, arrivals.messages.size());
}

TEST_F(WireTest, UnknownTypesArePassedOverAndToldOnce) {
    for (const std::size_t piece : {1U << 20, 1U}) {
        Renew();
        Feed(Frame("body", "U") + Frame("x") + Frame("no", "Better") + Frame("", "U") +
                 Header("V") + BareBytes("in V") + Frame("LetterX", "W") + Length(0) +
                 Frame("z", std::string("Letter\0z", 8)) + Frame("y"),
             piece);
        EXPECT_EQ("15:x 16:in V 17:z 15:y ?U ?Better ?V ?W ", Came());
    }
    for (int i = 0; i < 200; ++i) {
        Feed(Frame("", "N" + std::to_string(i)), 3);
    }
    EXPECT_EQ(96U, arrivals.unknown.size()) << "a hundred are remembered";
    EXPECT_TRUE(Feed(Frame("still")));
}

TEST_F(WireTest, KnowsWhetherItIsInTheMiddleOfAMessage) {
    const std::string bytes = Frame("ab", "Unknown") + Frame("ab") + BareBytes("ab") + Length(0);
    std::string between;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        Feed(bytes.substr(i, 1));
        between += reader->InMiddle() ? "" : std::to_string(i) + " ";
    }
    EXPECT_EQ("10 16 32 46 50 ", between) << "behind an unknown name all may have come";
}

TEST_F(WireTest, BareClassIsTriedAsSoonAsWhatItAskedForHasCome) {
    Feed(Header("Bare"));
    Feed(Length(50) + std::string(49, 'x'), 1);
    EXPECT_EQ(2, Bare::made) << "for the length, and for the text";
    Feed("x" + Frame("next"));
    EXPECT_EQ(3, Bare::made);
    EXPECT_EQ("62:" + std::string(50, 'x') + " 18:next ", Came());
    Feed(BareBytes("again"));
    EXPECT_EQ(4, Bare::made) << "each message begins anew";
}

TEST_F(WireTest, TriesOfADrippingBodyReadNoMoreThanTheirShare) {
    Bare::step = 1;
    std::size_t read = 0, come = 0;
    Bare::reading = [&](Bare& bare, KLVMsgInputStream& stream) {
        Bare::ReadWhole(bare, stream);
        read += come;
    };
    Feed(Header("Bare") + Length(100000));
    for (come = 4; come < 100004; ++come) {
        Feed("x");
        ASSERT_LE(read, 4 * (come + 1) + 65536);
    }
    EXPECT_GT(Bare::made, 200) << "tried with each byte at first";
}

TEST_F(WireTest, ShortReadOfABareClassIsNoFaultWhateverItMakesOfIt) {
    int zeros = 0;
    Bare::reading = [&](Bare& bare, KLVMsgInputStream& stream) {
        char bytes[8] = {};
        int count = 77;
        stream.read(bytes, 4, count);
        EXPECT_TRUE(count == 4 || bare.text.empty());
        while (count == 0 || bytes[0] == 'x') {
            stream.read(bytes, 8, count);
            zeros += count == 0 ? 1 : 0;
        }
        count == 4 ? void() : throw std::runtime_error("short");
        bare.text.assign(bytes, 4);
    };
    EXPECT_TRUE(Feed(Header("Bare") + "ab")) << "throws";
    EXPECT_TRUE(Feed("cd"));
    EXPECT_EQ("12:abcd ", Came());
    zeros = 0;
    EXPECT_TRUE(Feed(Header("Bare") + "xxxx")) << "asks for ever";
    EXPECT_EQ(99, zeros);
}

TEST_F(WireTest, WritesWhatReceiversWithoutASessionRead) {
    Letter letter("text");
    Bare bare;
    bare.text = "bare";
    ASSERT_TRUE(Write(letter));
    EXPECT_EQ(Frame("text"), Written());
    ASSERT_TRUE(writer.Write(letter, nullptr, 1 << 20));
    EXPECT_EQ(Frame("text"), Written()) << "by WriteMessage";
    ASSERT_TRUE(writer.Write(bare, nullptr, 1 << 20));
    EXPECT_EQ(BareBytes("bare"), Written());
    EXPECT_EQ(4U, writer.NameSize());
    EXPECT_EQ(nullptr, writer.Shared());
    letter.text.assign(400000, 's');
    ASSERT_TRUE(Write(letter));
    EXPECT_TRUE(writer.Shared() != nullptr && Written() == Frame(letter.text));
    EXPECT_EQ(Written().size(), writer.Size());
    letter.text = "small";
    ASSERT_TRUE(Write(letter));
    EXPECT_EQ(Frame("small"), Written());
}

TEST_F(WireTest, WhatCannotBePutIntoBytesFailsWithWords) {
    Bare bare;
    bare.text.assign(100, 'x');
    EXPECT_EQ(EMSGSIZE, writer.Write(bare, nullptr, 103).error);
    EXPECT_TRUE(writer.Write(bare, nullptr, 104));
    const struct {
        std::function<void(Letter&)> make;
        int error;
        const char* words;
    } rows[] = {
        {[](Letter& one) { one.name.assign(65536, 'n'); }, EINVAL, "65536"},
        {[](Letter& one) { one.name = ""; }, EINVAL, "empty"},
        {[](Letter& one) { one.name += '\0'; }, EINVAL, "zero"},
        {[](Letter& one) { one.encode = [](auto&) { return false; }; }, EINVAL, "refused"},
        {[](Letter& one) { one.encode = [](auto&) { return throw 1, true; }; }, EINVAL, "failed"},
        {[](Letter& one) {
             one.encode = [](auto&) { return throw std::logic_error("why"), true; };
         },
         EINVAL, "why"},
        {[](Letter& one) { one.encode = [](auto&) { return throw std::bad_alloc(), true; }; },
         ENOMEM, "memory"},
        {[](Letter& one) { one.text.assign(400001, 'x'); }, EMSGSIZE, "400000"}};
    for (const auto& row : rows) {
        Letter letter;
        row.make(letter);
        const KLVMsgOutcome outcome = Write(letter);
        EXPECT_EQ(KLVMsgOutcome::kFailed, outcome.status) << row.words;
        EXPECT_EQ(row.error, outcome.error) << row.words;
        EXPECT_NE(std::string::npos, outcome.text.find(row.words)) << outcome.text;
    }
    Letter refused("more");
    EXPECT_EQ(EMSGSIZE, Write(refused, 3).error);
    refused.encode = [](auto&) { return false; };
    EXPECT_FALSE(writer.Write(refused, nullptr, 1 << 20)) << "by WriteMessage";
}

TEST_F(WireTest, EncodeMaySendAndSmallMessagesTakeNoMemory) {
    Letter inner("inner"), outer("outer");
    outer.encode = [&](std::string& bytes) {
        KLVMsgWireWriter another;
        return bytes = outer.text, static_cast<bool>(another.Write(inner, &inner, 100));
    };
    ASSERT_TRUE(Write(outer));
    EXPECT_EQ(Frame("outer"), Written());
    const auto another = [&] { EXPECT_TRUE(KLVMsgWireWriter().Write(outer, &outer, 100)); };
    outer.text.assign(60, 'x');
    another();
    another();
    const int before = Allocations();
    another();
    EXPECT_GE(before + 2, Allocations()) << "the two type names";
}

TEST_F(WireTest, ShortMemoryCostsTheConnectionOrTheMessage) {
    const std::string bytes = Frame("", "U") + Frame(std::string(200000, 'x')) + BareBytes("b");
    FailEachAllocation(
        [&] {
            Renew();
            Feed(bytes, 70001);
        },
        [&](int n, bool thrown) {
            const bool isRefused = reader->FaultText() == "reading Bare failed: std::bad_alloc";
            EXPECT_TRUE(thrown || isRefused || reader->FaultText() == "no memory") << n;
        });
    Letter letter(std::string(70000, 'x'));
    KLVMsgOutcome outcome;
    FailEachAllocation([&] { outcome = Write(letter); },
                       [&](int n, bool) { EXPECT_EQ(ENOMEM, outcome.error) << n; });
    EXPECT_TRUE(outcome);
}

}  // namespace
