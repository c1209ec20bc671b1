// For the bridge's own sources: streams of JetStream, and what is read of them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "Log.h"
#include "Nats.h"
#include "Options.h"

// How long a connection may be cut so that nothing comes twice for it, and how long a stream that
// the bridge makes knows the ids of its messages.
constexpr std::chrono::seconds kLongestCut(60);
constexpr std::chrono::seconds kKnowsIds(120);

// Sees to it that there is the stream, and that it has all subjects that the bridge uses. Says so
// where it forgets ids too early. Waits for servers that do not answer until `isOver`. Throws
// std::runtime_error.
void PrepareStream(Nats& nats, const Options& options, Log& log, const std::atomic<bool>& isOver);

// What a stream has for one route, in order. Who reads is known to the server by name, and goes on
// where the last one of that name has got to.
class StreamReader {
public:
    // Waits for a stream that does not answer until `isOver`. Throws std::runtime_error.
    StreamReader(Nats& nats, const Options& options, const Routes::Inward& route, Log& log,
                 const std::atomic<bool>& isOver);

    // So many of the next messages at the most: those that are there, after waiting for the first.
    // Those of the call before must be done with.
    std::vector<NatsMessage> Read(std::size_t most, std::chrono::milliseconds limit);

    // All up to this one need not come again.
    void Acknowledge(natsMsg* last);

    // It takes long: do not send them again yet.
    void StillAtIt(natsMsg* last);

private:
    using Time = std::chrono::steady_clock::time_point;

    // Where a message stands: in the stream, and among what was sent to this name, each time that
    // it was sent counted.
    struct Place {
        std::uint64_t stream = 0;
        std::uint64_t sent = 0;
    };
    static bool FindPlace(natsMsg* message, Place& place);

    void MakeConsumer(const std::string& subject, const std::atomic<bool>& isOver);
    void Ask(Time now);
    void ExpectAnswer(Time now);
    bool IsNext(natsMsg* message);
    void Settle();
    void Listen();

    Nats& m_nats;
    Log& m_log;
    const std::string m_stream;
    const std::string m_name;
    std::string m_inbox;
    NatsSubscription m_messages;
    std::uint64_t m_returns = 0;  // of the connection, when it was asked last
    std::size_t m_asked = 0;      // messages that may still come
    Time m_askedAt = {};
    Time m_quietUntil = {};  // what is in doubt has been given up by the server then
    Place m_last;            // that was handed out
    Time m_heard = std::chrono::steady_clock::now();
    bool m_saidAway = false;  // that nobody answers
};
