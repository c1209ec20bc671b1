#include <KLVMsgFramedMessage.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#if __has_include(<google/protobuf/descriptor.pb.h>)
#include <KLVMsgProtobufMessage.h>
#include <google/protobuf/descriptor.pb.h>
#endif

#include "Support.h"

namespace {

// Both ends of a connection in memory, which hands out little with each read.
struct Memory final : KLVMsgOutputStream, KLVMsgInputStream {
    void write(void* data, int length, int& count) override {
        bytes.append(static_cast<const char*>(data), static_cast<std::size_t>(length));
        count += length - (takes ? 0 : 1);
        ++writes;
    }
    void read(void* buffer, int length, int& count) override {
        largest = std::max(largest, length);
        const std::size_t piece = bytes.size() > 5000 ? 1000 : 1;
        count = std::min(length, static_cast<int>(std::min(piece, bytes.size())));
        std::memcpy(buffer, bytes.data(), static_cast<std::size_t>(count));
        bytes.erase(0, static_cast<std::size_t>(count));
    }
    std::string bytes;
    int writes = 0, largest = 0;
    bool takes = true;
};

// Looks at its first byte only, and takes no question and no exclamation.
struct Letter : KLVMsgFramedMessage {
    explicit Letter(const std::string& content = "") : text(content) {}
    bool Encode(std::string& bytes) const override { return Takes(bytes = text); }
    bool Decode(std::string_view bytes) override { return Takes(std::string(bytes, 0, 1)); }
    static bool Takes(const std::string& bytes) {
        return bytes[0] != '!' ? bytes[0] != '?' : throw std::runtime_error("no letter");
    }
    std::size_t Limit() const override { return 70000; }
    KLVMsgSocketMessage* NewInstance() override { return new Letter; }
    KLVString GetMessageType() const override { return "Letter"; }
    std::string text;
};

std::string Left(KLVMsgFramedMessage& message, unsigned length, const std::string& bytes) {
    Memory memory;
    memory.bytes.assign(reinterpret_cast<const char*>(&length), sizeof length).append(bytes);
    message.ReadMessage(&memory);
    EXPECT_LE(memory.largest, 65536) << "room for what has not come";
    return memory.bytes;
}

TEST(FramedMessage, GoesOutWithOneWrite) {
    for (const auto& [text, sent] : {std::pair<std::string, bool>("yes", true),
                                     {"!", false},
                                     {"?", false},
                                     {std::string(70000, 'x'), true},
                                     {std::string(70001, 'x'), false}}) {
        Memory memory, full;
        full.takes = false;
        EXPECT_EQ(0, Letter(text).WriteMessage(&full));
        EXPECT_EQ(sent, Letter(text).WriteMessage(&memory));
        EXPECT_EQ(1, memory.writes);
        Letter received;
        memory.bytes += "next";
        EXPECT_EQ(sent, received.ReadMessage(&memory));
        EXPECT_EQ("next", memory.bytes) << "out of step";
    }
}

TEST(FramedMessage, IsNotWholeWhenItIsNoLetter) {
    Letter letter;
    for (const auto& [length, body] : {std::pair(70000U, "cut"), {1U, "!"}, {1U, "?"}}) {
        EXPECT_EQ("", Left(letter, 3, "yes"));
        EXPECT_TRUE(letter.whole);
        EXPECT_EQ("", Left(letter, length, body));
        EXPECT_FALSE(letter.whole) << body;
    }
    EXPECT_EQ("", Left(letter, 3, "yes"));
    Memory ended;
    EXPECT_EQ(0, letter.ReadMessage(&ended));
    struct Endless : Letter {
        std::size_t Limit() const override { return SIZE_MAX; }
    } endless;
    EXPECT_EQ("much", Left(letter, 70001, "much")) << "beyond its limit";
    EXPECT_EQ("much", Left(endless, 0x7ffffffc, "much"));
    EXPECT_EQ("", Left(endless, 0x7ffffffb, "much"));
}

#if __has_include(<google/protobuf/descriptor.pb.h>)
// Two required fields, and a name of several words.
using NamePart = google::protobuf::UninterpretedOption::NamePart;

TEST(ProtobufMessage, WithoutARequiredFieldIsRefused) {
    KLVMsgProtobufMessage<NamePart> sent, received;
    std::string bytes;
    sent.content.set_name_part("name");
    EXPECT_FALSE(sent.Encode(bytes));
    sent.content.set_is_extension(true);
    EXPECT_TRUE(sent.Encode(bytes = ""));
    EXPECT_FALSE(received.Decode("\n\4name"));
    EXPECT_TRUE(received.Decode(bytes));
    EXPECT_EQ("name", received.content.name_part());
    EXPECT_STREQ("google.protobuf.UninterpretedOption.NamePart", sent.GetMessageType().Text());
}
#endif

}  // namespace
