// For the bridge's own sources: what happens, in words, on standard error.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

// May be used on every thread.
class Log {
public:
    explicit Log(bool isJson) : m_isJson(isJson) {}

    // A line: the words alone, or a JSON object of the time, the event's name and the words.
    void Say(const char* event, const std::string& words);

    // As the word of a JSON text, with quotation marks.
    static std::string Quoted(const std::string& text);

private:
    const bool m_isJson;
    std::mutex m_mutex;
};

// What has passed, since the start. Each that is taken is published, dropped or still open; each
// that came from NATS is handed on, left, or dropped.
struct Counts {
    std::atomic<std::uint64_t> taken{0};        // from sessions, with a subject to go to
    std::atomic<std::uint64_t> noRoute{0};      // from sessions, without one
    std::atomic<std::uint64_t> published{0};    // given to NATS; with a stream: stored
    std::atomic<std::uint64_t> again{0};        // sent again, under the same id
    std::atomic<std::uint64_t> dropped{0};      // not given to NATS, or too long for it
    std::atomic<std::uint64_t> came{0};         // from NATS
    std::atomic<std::uint64_t> handedOn{0};     // to sessions
    std::atomic<std::uint64_t> undelivered{0};  // nobody there, no room, or no body by the rule
    std::atomic<std::uint64_t> cameBack{0};     // from this site, and dropped

    std::string Words() const;
};
