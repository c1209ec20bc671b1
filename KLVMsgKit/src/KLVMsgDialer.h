// For the session's own sources: connections that are being made, without waiting for any of them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "KLVMsgOutcome.h"
#include "KLVMsgResolver.h"
#include "KLVMsgSessionSockets.h"
#include "KLVMsgSocketAddress.h"

// Addresses to be connected to, each at its time and known by an id. Whoever waits for Descriptor
// calls Work when that is readable, and is told there what has come of each attempt. No lock; only
// names are found out on another thread.
class KLVMsgDialer {
public:
    using Time = KLVMsgSessionSockets::Time;
    // A socket, or why there is none.
    using Told =
        std::function<void(std::uint64_t id, KLVMsgOutcome outcome, KLVMsgDescriptor socket)>;

    KLVMsgDialer() = default;
    KLVMsgDialer(const KLVMsgDialer&) = delete;
    KLVMsgDialer& operator=(const KLVMsgDialer&) = delete;

    // Asks the system for what it needs.
    KLVMsgOutcome Prepare();
    int Descriptor() const { return m_epoll.Number(); }

    // An address that is connected to when Dial says so. Throws std::bad_alloc, and has none then.
    void Add(std::uint64_t id, const KLVMsgSocketAddress& address) {
        m_calls[id].address = address;
    }

    // Tries once, at that time. Requires: the id was added, and no attempt is under way.
    void Dial(std::uint64_t id, Time at);

    // Gives up what is under way.
    void Forget(std::uint64_t id);

    // Does what is due. Those who are told may dial again, and not forget. Nothing throws: words
    // for which there is no memory are left out.
    void Work(const Told& told);

private:
    enum State { kIdle, kWaits, kAsks, kConnects };

    struct Call {
        KLVMsgSocketAddress address;
        State state = kIdle;
        Time due = Time::max();  // when it begins, or this address is given up
        std::vector<KLVMsgSessionSockets::Address> found;
        std::size_t next = 0;  // of them
        KLVMsgDescriptor socket;
    };

    void Begin(std::uint64_t id, Call& call, const Told& told);
    KLVMsgOutcome Ask(std::uint64_t id, const Call& call);
    void TryNext(std::uint64_t id, Call& call, int error, const Told& told);
    void TakeAnswers(const Told& told);
    void TakeConnections(const Told& told);
    void TakeDue(const Told& told);
    bool Watch(int descriptor, std::uint64_t id, unsigned interest);
    void CloseSocket(Call& call);
    void SetTimer(Time at);
    template <class Step>
    static void Guard(std::uint64_t id, Call& call, const Told& told, const Step& step);

    KLVMsgDescriptor m_epoll;
    KLVMsgDescriptor m_timer;
    std::map<std::uint64_t, Call> m_calls;
    Time m_timerAt = Time::max();                // when Work is called if nothing else happens
    std::unique_ptr<KLVMsgResolver> m_resolver;  // null before there was a name
};
