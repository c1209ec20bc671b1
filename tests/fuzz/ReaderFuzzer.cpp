// Bytes from a peer, for libFuzzer: into the reader of a session. What it makes of them must not
// depend on how they were cut, which the first two bytes say.
#include <KLVMsgFramedMessage.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "KLVMsgWireReader.h"

namespace {

// With a limit of its own as a framed one; by itself it reads pairs of length and bytes until a
// length is zero, asks for ever when one is 255, and throws at 254.
struct Pairs : KLVMsgFramedMessage {
    explicit Pairs(const char* ownName) : name(ownName) {}
    bool Encode(std::string&) const override { return false; }
    bool Decode(std::string_view) override { return true; }
    int ReadMessage(KLVMsgInputStream* stream) override {
        unsigned char length = 1;
        for (int count = 0; length != 0;) {
            char bytes[256];
            stream->read(&length, 1, count);
            length = count == 1 ? length : static_cast<unsigned char>(0);
            stream->read(bytes, length != 254 ? length : throw length, count);
            text.append(bytes, static_cast<std::size_t>(count));
            length = length == 255 && count == 255 ? static_cast<unsigned char>(1) : length;
        }
        return 1;
    }
    KLVMsgSocketMessage* NewInstance() override { return new Pairs(name); }
    KLVString GetMessageType() const override { return name; }
    const char* name;
    std::string text;
};

KLVMsgMessageTypes types;

// All that the reader makes of the bytes, as text.
std::string Feed(const unsigned char* data, std::size_t size, unsigned pace) {
    static KLVMsgWireReader::Buffer buffer;
    KLVMsgWireReader reader(types, 200, 90);
    KLVMsgWireReader::Arrivals arrivals;
    for (std::size_t position = 0; position != size;) {
        KLVMsgWireReader::Space spaces[2];
        reader.MakeRoom(buffer, spaces);
        std::size_t piece = pace == 0 ? size : 1 + (pace >> 24) % 61;
        pace = pace == 0 ? 0 : pace * 1664525 + 1013904223;
        piece = std::min({piece, size - position, spaces[0].size + spaces[1].size});
        const std::size_t first = std::min(piece, spaces[0].size);
        std::copy_n(data + position, first, spaces[0].data);
        std::copy_n(data + position + first, piece - first, spaces[1].data);
        reader.Came(buffer, piece, arrivals);
        position += piece;
    }
    std::string made = std::to_string(reader.Fault()) + reader.FaultText();
    made += reader.InMiddle() ? " in the middle" : "";
    for (const auto& parcel : arrivals.messages) {
        const auto* const pairs = static_cast<Pairs*>(parcel->object);
        parcel->ForEach([&, &one = *parcel] {
            made += "\n" + std::to_string(one.type) + " " + std::to_string(one.FirstSize()) + " ";
            made += pairs == nullptr ? one.Body() : pairs->text;
        });
    }
    for (const std::string& name : arrivals.unknown) {
        made += "\nunknown " + name;
    }
    return made;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const auto add = [](const char* name, bool framed, std::size_t limit) {
        types.Add({name, &typeid(Pairs), std::make_unique<Pairs>(name), framed, limit});
    };
    add("F", true, 150);
    add("Framed", true, 30);
    add("B", false, 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::string whole = Feed(data + 2, size - 2, 0);
    const std::string cut = Feed(data + 2, size - 2, 1U + data[0] + 256U * data[1]);
    if (whole != cut) {
        std::fprintf(stderr, "at once: %s\nin pieces: %s\n", whole.c_str(), cut.c_str());
        std::abort();
    }
    return 0;
}
