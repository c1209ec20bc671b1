// The contenders of the exchange: ways to carry a type name and a body between two processes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Sockets.h"

namespace bench {

// One end of a connection over TCP. One process listens and accepts, the other one connects.
class Endpoint {
public:
    virtual ~Endpoint() = default;

    virtual int Listen() = 0;  // returns the port
    virtual void Accept() = 0;
    virtual void Connect(int port) = 0;

    virtual void Send(const char* body, int size) = 0;

    // Sees that nothing sent so far is held back.
    virtual void Flush() {}

    // The body of the next message, valid until the next call. Its type and size are checked.
    virtual const char* Receive(int size) = 0;
};

// The low-water mark there and back, as long as a header. No body is shorter, so a receiver that
// sleeps is always woken: what it waits for, or what follows it, reaches the mark.
inline constexpr int shortMark = 4 + typeNameLength;

// The one of a stream: a receiver that is faster than its sender sleeps until there is work for a
// while, instead of having the sender wake it for every few bytes.
inline constexpr int streamMark = 1 << 14;

// What is set on the connected sockets. A contender that hides its sockets sees to it itself.
enum class Tuning {
    OneWay,              // SO_RCVLOWAT
    ThereAndBack,        // TCP_NODELAY
    ThereAndBackMarked,  // both
};

// Without a mark a receiver that has caught up meets the pieces of a header one by one. There and
// back that costs it a wake-up for each; one way it may even meet a part of the length, where the
// sender's segment was full.
inline void Tune(int descriptor, Tuning tuning) {
    if (tuning != Tuning::ThereAndBack) {
        const int mark = tuning == Tuning::OneWay ? streamMark : shortMark;
        SetOption(descriptor, SOL_SOCKET, SO_RCVLOWAT, mark);
    }
    if (tuning != Tuning::OneWay) {
        SetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    }
}

// Switching Nagle's algorithm off sends what it holds. It would keep the end of a turn until an
// acknowledgement that the other side delays by 40 ms.
inline void FlushSocket(int descriptor) {
    SetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 0);
}

inline constexpr int largestBody = 1 << 20;

struct Contender {
    std::string name;
    std::unique_ptr<Endpoint> (*make)(Tuning);
};

std::unique_ptr<Endpoint> MakeLibraryEndpoint(Tuning tuning);
std::unique_ptr<Endpoint> MakeBareEndpoint(Tuning tuning);
std::unique_ptr<Endpoint> MakeAsioEndpoint(Tuning tuning);
std::unique_ptr<Endpoint> MakeNngEndpoint(Tuning tuning);
std::unique_ptr<Endpoint> MakeZeroMqEndpoint(Tuning tuning);

}  // namespace bench
