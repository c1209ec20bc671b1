// A message of any type with any bytes as its body.
#pragma once

#include <KLVMsgCommModules.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "Options.h"

// The body is the bytes alone where a size is fixed for the type; otherwise a 4-byte length in the
// byte order of the host stands before them.
class BodyMessage : public KLVMsgSocketMessage {
public:
    BodyMessage(const std::string& type, int fixedSize, const std::string& bytes = "")
        : body(bytes), m_type(type), m_fixedSize(fixedSize) {}

    // One write for length and bytes together.
    int WriteMessage(KLVMsgOutputStream* stream) override {
        std::string bytes = body;
        if (m_fixedSize == kNotFixed) {
            const auto length = static_cast<std::uint32_t>(body.size());
            bytes.insert(0, reinterpret_cast<const char*>(&length), sizeof length);
        }
        int count = 0;
        if (!bytes.empty()) {
            stream->write(bytes.data(), static_cast<int>(bytes.size()), count);
        }
        whole = count == static_cast<int>(bytes.size());
        return whole;
    }

    int ReadMessage(KLVMsgInputStream* stream) override {
        std::uint32_t length = static_cast<std::uint32_t>(m_fixedSize);
        if (m_fixedSize == kNotFixed) {
            std::string field;
            if (!ReadAll(stream, sizeof length, field)) {
                return 0;
            }
            std::memcpy(&length, field.data(), sizeof length);
        }
        possible = length <= static_cast<std::uint32_t>(kLargestBody);
        whole = possible && ReadAll(stream, length, body);
        return whole;
    }

    KLVMsgSocketMessage* NewInstance() override { return new BodyMessage(m_type, m_fixedSize); }
    KLVString GetMessageType() const override { return m_type.c_str(); }

    std::string body;
    bool whole = false;    // all of it was written or read
    bool possible = true;  // false: the length that came cannot be one

private:
    // Room is made as the bytes come: the length alone is not believed.
    static bool ReadAll(KLVMsgInputStream* stream, std::size_t length, std::string& bytes) {
        char piece[65536];
        while (bytes.size() < length) {
            const std::size_t missing = length - bytes.size();
            int count = 0;
            stream->read(piece, static_cast<int>(missing < sizeof piece ? missing : sizeof piece),
                         count);
            if (count <= 0) {
                return false;
            }
            bytes.append(piece, static_cast<std::size_t>(count));
        }
        return true;
    }

    std::string m_type;
    int m_fixedSize;
};
