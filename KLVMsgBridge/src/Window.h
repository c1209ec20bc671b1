// For the bridge's own sources: what is under way to a stream and not yet stored.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

// A message on its way from a session, and who sent it.
struct Parcel {
    std::size_t Size() const { return subject.size() + type.size() + body.size() + id.size(); }

    std::string subject;
    std::string type;
    std::string body;
    std::string id;            // the same each time that it is sent
    std::uint64_t peer = 0;    // whose connection it came on
    std::uint64_t number = 0;  // among that sender's messages
};

// Keeps messages until they are stored, and says what is to be sent next. Many are open at a time.
// When one fails, or is not answered within the limit, nothing new is sent; what is open is waited
// for, then the oldest that is not stored is tried alone, after a pause that grows, and when it is
// stored the rest follows, in order. No input, no output, no clock and no lock: it is told the
// time.
class Window {
public:
    using Duration = std::chrono::steady_clock::duration;
    using Time = std::chrono::steady_clock::time_point;

    struct Limits {
        std::size_t messages = 8192;
        std::size_t bytes = std::size_t{32} << 20;
        Duration answer = std::chrono::seconds(5);       // to a message that was sent
        Duration pause = std::chrono::milliseconds(50);  // before the first try; doubles up to
        Duration longestPause = std::chrono::seconds(1);
    };
    explicit Window(const Limits& limits) : m_limits(limits), m_pause(limits.pause) {}

    // Whether one more may be put in: always where there is none.
    bool HasRoom() const {
        return m_entries.size() < m_limits.messages && (m_bytes < m_limits.bytes || IsEmpty());
    }
    bool IsEmpty() const { return m_entries.empty(); }
    std::size_t Size() const { return m_entries.size(); }

    // Behind all others.
    void Put(Parcel parcel);

    // What is to be sent now; null: nothing. It is open from then on, under its key.
    struct Sending {
        std::uint64_t key = 0;
        const Parcel* parcel = nullptr;
        const Parcel* before = nullptr;  // that goes somewhere and was put in before; null: unknown
        bool isAgain = false;
    };
    Sending Next(Time now);

    // What has become of one that was sent; of others it is ignored. Stored: returns how many of
    // the oldest are done with, all stored; they are in Done until the next call.
    std::size_t Stored(std::uint64_t key);
    void Failed(std::uint64_t key, Time now);
    const std::vector<Parcel>& Done() const { return m_done; }
    bool Knows(std::uint64_t key);  // that it is not stored yet

    // So late it is: what has had no answer within the limit has failed. Returns how many.
    std::size_t Tick(Time now);

    // All that are open have failed: the connection is lost.
    void FailAll(Time now);

    // Whether something has failed and has not been stored since.
    bool IsInTrouble() const { return m_isInTrouble; }

    // How often the oldest has been tried alone since then.
    std::size_t Tries() const { return m_tries; }

    // How many were stored while one before them was not: if that was lost it comes behind them.
    std::uint64_t Overtaken() const { return m_overtaken; }

private:
    enum State { kWaits, kOpen, kStored };
    struct Entry {
        Parcel parcel;
        State state = kWaits;
        bool wasSent = false;
        Time sent = {};
    };
    Entry* Find(std::uint64_t key);
    void Fail(Entry& entry, Time now);
    Sending Send(std::size_t place, Time now);
    const Parcel* Before(std::size_t place) const;

    const Limits m_limits;
    std::deque<Entry> m_entries;
    std::uint64_t m_firstKey = 1;  // of the oldest; the others follow
    std::size_t m_next = 0;        // the place of the first that may not have been sent
    std::size_t m_open = 0;
    std::size_t m_bytes = 0;
    bool m_isInTrouble = false;
    bool m_isTrying = false;  // the oldest one, alone
    std::size_t m_tries = 0;
    Time m_tryAgain = {};
    Duration m_pause;
    std::uint64_t m_overtaken = 0;
    std::vector<Parcel> m_done;
};
