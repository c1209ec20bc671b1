// The two processes of one measurement of the session's benchmark: a server, and its clients.
#pragma once

#include <algorithm>
#include <memory>
#include <thread>

#include "Process.h"
#include "Talker.h"
#include "Wire.h"

namespace bench {

// Who talks, and over what.
struct Talk {
    std::string who;
    MakeTalker* make = nullptr;
    Manner manner = {};
    int connections = 1;
    int threads = 1;             // that send; more than one on one connection alone
    const Wire* wire = nullptr;  // null: within this machine
};

// Does the work in a new process, and returns what it tells.
template <class Result, class Work>
Result Apart(Work work) {
    Process process([&](Process& main) {
        main.Tell(Result(work()));
        for (;;) {
            pause();
        }
    });
    return process.Hear<Result>();
}

// The server, which is this process, and its clients in another one. Each client has said who it
// is. A talk that is over is left by the end of both processes.
class Meeting {
public:
    // What the clients do is their process's; it does not return.
    using Clients = void (*)(Process& server, const Talk& talk, Talker& talker);

    Meeting(const Talk& talk, Clients clients)
        : m_latest(static_cast<std::size_t>(std::max(talk.connections, talk.threads))),
          m_far([&](Process& near) { BeClients(near, talk, clients); }) {
        if (talk.wire != nullptr) {
            talk.wire->EnterNear();
        }
        m_talker = talk.make(talk.manner);
        m_far.Tell(m_talker->Listen(talk.wire == nullptr ? "127.0.0.1" : Wire::nearHost));
        for (std::vector<Stamp> stamps; stamps.size() < Count(talk.connections);) {
            m_talker->Receive(stamps);
        }
    }

    // The clients begin.
    void Begin() { m_far.Tell(char{0}); }

    Process& Far() { return m_far; }
    Talker& Server() { return *m_talker; }

    // Each lane's messages come once and in order.
    void Check(const Stamp& stamp) {
        Require((stamp.number & ~kLast) == ++m_latest[stamp.lane], "the next message");
    }

    static constexpr std::uint64_t kLast = std::uint64_t{1}
                                           << 63;  // in the number of a lane's last

private:
    static std::size_t Count(int number) { return static_cast<std::size_t>(number); }

    [[noreturn]] static void BeClients(Process& near, const Talk& talk, Clients clients) {
        if (talk.wire != nullptr) {
            talk.wire->EnterFar();
        }
        const std::unique_ptr<Talker> talker = talk.make(talk.manner);
        talker->Connect(talk.wire == nullptr ? "127.0.0.1" : Wire::nearHost, near.Hear<int>(),
                        talk.connections);
        for (std::size_t i = 0; i < Count(talk.connections); ++i) {
            talker->Send(i, {i, 0});
        }
        near.Hear<char>();
        clients(near, talk, *talker);
        for (;;) {
            pause();
        }
    }

    std::unique_ptr<Talker> m_talker;
    std::vector<std::uint64_t> m_latest;  // by lane
    Process m_far;  // ends first, so that the server waits for no peer to close
};

}  // namespace bench
