// The messages of the exchange. A client says Hello and sends its files in Chunks, one at a time:
// the hub answers each with a Receipt, and the last one of a file with a Report. When everybody has
// been served the hub says Farewell to all.
#pragma once

#include <KLVMsgCommModules.h>

#include <cstdint>
#include <string>
#include <tuple>

#include "TextStatistics.h"

// No text in a message is longer than this, so that a broken length cannot ask for all the memory.
const int maximalTextBytes = 64 << 20;

// Nor is a client's name.
const std::size_t maximalNameBytes = 100;

// Carries the fields of a message body, one after the other, to or from a stream.
class Body {
public:
    explicit Body(KLVMsgOutputStream* output) : m_output(output) {}
    explicit Body(KLVMsgInputStream* input) : m_input(input) {}

    void Number(std::uint64_t& number) { Bytes(&number, sizeof number); }
    void Text(std::string& text);

    bool complete = true;  // false as soon as a field could not be carried whole

private:
    void Bytes(void* field, int length);

    KLVMsgOutputStream* m_output = nullptr;  // one of the two is null
    KLVMsgInputStream* m_input = nullptr;
};

// Writing and reading run the same list of fields, so that they cannot disagree about the body: a
// byte too many or too few, and the next header would be read from the wrong place.
template <class Message>
class TypedMessage : public KLVMsgSocketMessage {
public:
    int WriteMessage(KLVMsgOutputStream* stream) override { return Carry(Body(stream)); }
    int ReadMessage(KLVMsgInputStream* stream) override { return Carry(Body(stream)); }
    KLVMsgSocketMessage* NewInstance() override { return new Message; }
    KLVString GetMessageType() const override { return Message::type; }

    bool complete = true;  // false when the connection ended in the middle

private:
    int Carry(Body body) {
        static_cast<Message*>(this)->Fields(body);
        complete = body.complete;
        return complete ? 1 : 0;
    }
};

struct Hello : TypedMessage<Hello> {
    static constexpr const char* type = "Hello";
    std::string name;
    std::uint64_t files = 0;  // how many will follow

    void Fields(Body& body) {
        body.Text(name);
        body.Number(files);
    }
};

struct Chunk : TypedMessage<Chunk> {
    static constexpr const char* type = "Chunk";
    std::uint64_t last = 0;  // 1: the file ends here
    std::string data;

    void Fields(Body& body) {
        body.Number(last);
        body.Text(data);
    }
};

struct Receipt : TypedMessage<Receipt> {
    static constexpr const char* type = "Receipt";
    std::uint64_t bytes = 0;  // of this file so far

    void Fields(Body& body) { body.Number(bytes); }
};

struct Report : TypedMessage<Report> {
    static constexpr const char* type = "Report";
    TextStatistics found;

    void Fields(Body& body) {
        body.Number(found.bytes);
        body.Number(found.lines);
        body.Number(found.words);
        body.Number(found.crc);
    }
};

struct Farewell : TypedMessage<Farewell> {
    static constexpr const char* type = "Farewell";
    std::string reason;  // for a client that has not been served

    void Fields(Body& body) { body.Text(reason); }
};

// All of them: a type is added here, once. To ask for one that is not here fails at once, and so
// does the start when one is here twice.
using MessageTypes = std::tuple<Hello, Chunk, Receipt, Report, Farewell>;
