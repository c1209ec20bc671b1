// For the session's own sources: how the bytes of one connection get out and in.
#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>

// One connection, never waited for. One thread reads and one writes at a time, which may be two.
// Its destructor closes; whatever the system still has is sent, unless bytes came that nobody read.
class KLVMsgTransport {
public:
    // What a transfer came to.
    struct Result {
        std::size_t count = 0;  // bytes
        int error = 0;          // EAGAIN: nothing more for now; else the connection has failed
        bool ended = false;     // of a read: the peer has ended its output
    };

    // What the system knows of the peer's system.
    struct Sample {
        unsigned unacknowledged = 0;              // segments sent
        unsigned probes = 0;                      // sent in a row without an answer
        std::chrono::milliseconds sinceAnswer{};  // since it last acknowledged anything
    };

    virtual ~KLVMsgTransport() = default;

    virtual Result Read(const iovec* spaces, int count) = 0;

    // `endsMessage`: the last byte is a message's last. What follows then begins a new segment.
    virtual Result Write(const iovec* pieces, int count, bool endsMessage) = 0;

    virtual void EndOutput() = 0;       // the peer reads the end of the stream
    virtual void Break() = 0;           // both directions end at once, on all threads
    virtual std::size_t Segment() = 0;  // bytes that travel in one piece; 0 where that is unknown
    virtual Sample TakeSample() = 0;
    virtual int Descriptor() const = 0;  // for epoll
};
