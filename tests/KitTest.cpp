#include <KLVMsgFramedMessage.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "Support.h"

namespace {

// Both ends of a connection in memory, which hands out one byte with each read.
struct Memory final : KLVMsgOutputStream, KLVMsgInputStream {
    void write(void* data, int length, int& count) override {
        bytes.append(static_cast<const char*>(data), static_cast<std::size_t>(length));
        count += length;
        ++writes;
    }
    void read(void* buffer, int length, int& count) override {
        largest = std::max(largest, length);
        count = bytes.empty() || length == 0 ? 0 : 1;
        std::memcpy(buffer, bytes.data(), static_cast<std::size_t>(count));
        bytes.erase(0, static_cast<std::size_t>(count));
    }
    std::string bytes;
    int writes = 0, largest = 0;
};

// Looks at its first byte only, and takes no question and no exclamation.
struct Letter : KLVMsgFramedMessage {
    explicit Letter(const std::string& content = "") : text(content) {}
    bool Encode(std::string& bytes) const override { return Takes(bytes = text); }
    bool Decode(std::string_view bytes) override { return Takes(std::string(bytes, 0, 1)); }
    static bool Takes(const std::string& bytes) {
        return bytes[0] != '!' ? bytes[0] != '?' : throw std::runtime_error("no letter");
    }
    std::size_t Limit() const override { return 200000; }
    KLVMsgSocketMessage* NewInstance() override { return new Letter; }
    KLVString GetMessageType() const override { return "Letter"; }
    std::string text;
};

TEST(KitTest, FramedBodyIsOneWriteAndLeavesTheStreamInStep) {
    for (const std::string& text :
         std::vector<std::string>{"yes", "!", "?", std::string(200001, 'x')}) {
        Memory memory;
        Letter received;
        EXPECT_EQ(text == "yes", Letter(text).WriteMessage(&memory));
        EXPECT_EQ(1, memory.writes);
        memory.bytes += "next";
        EXPECT_EQ(text == "yes", received.ReadMessage(&memory));
        EXPECT_EQ("next", memory.bytes);
    }
}

TEST(KitTest, FramedBodyIsNotWholeWhenItIsCutOrTooLongOrNoLetter) {
    for (const auto& [length, body] : {std::pair(200000U, "cut"), {200001U, "much"}, {1U, "!"}}) {
        Memory memory;
        memory.bytes.assign(reinterpret_cast<const char*>(&length), sizeof length).append(body);
        Letter letter;
        letter.ReadMessage(&memory);
        EXPECT_FALSE(letter.whole) << body;
        EXPECT_EQ(length == 200001 ? "much" : "", memory.bytes);
        EXPECT_LE(memory.largest, 65536) << "room for what has not come";
    }
}

}  // namespace
