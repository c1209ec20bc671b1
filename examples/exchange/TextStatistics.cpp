#include "TextStatistics.h"

#include <array>

static bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The remainders of all bytes under the reflected polynomial of Ethernet and zip.
static std::array<std::uint32_t, 256> MakeCrcTable() {
    std::array<std::uint32_t, 256> table = {};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t rest = byte;
        for (int bit = 0; bit < 8; ++bit) {
            rest = (rest >> 1) ^ ((rest & 1) != 0 ? 0xEDB88320u : 0u);
        }
        table[byte] = rest;
    }
    return table;
}

void TextStatistics::Add(const std::string& piece) {
    static const std::array<std::uint32_t, 256> table = MakeCrcTable();
    std::uint32_t rest = ~static_cast<std::uint32_t>(crc);
    for (const char c : piece) {
        rest = (rest >> 8) ^ table[(rest ^ static_cast<unsigned char>(c)) & 0xFF];
        lines += c == '\n' ? 1 : 0;
        const bool inWord = !IsSpace(c);
        words += inWord && !m_inWord ? 1 : 0;
        m_inWord = inWord;
    }
    crc = static_cast<std::uint32_t>(~rest);
    bytes += piece.size();
}
