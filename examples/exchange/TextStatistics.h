// What hub and client each find out about a file by themselves, to compare.
#pragma once

#include <cstdint>
#include <string>

// Counts a text that comes in pieces: bytes, newlines, words between white space, and a CRC-32.
class TextStatistics {
public:
    void Add(const std::string& piece);

    std::uint64_t bytes = 0;
    std::uint64_t lines = 0;
    std::uint64_t words = 0;
    std::uint64_t crc = 0;

private:
    bool m_inWord = false;  // the last piece ended in the middle of a word
};

inline bool operator==(const TextStatistics& a, const TextStatistics& b) {
    return a.bytes == b.bytes && a.lines == b.lines && a.words == b.words && a.crc == b.crc;
}
