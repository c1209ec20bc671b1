// For the session's own sources: how the bytes of one connection get out and in.
#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "KLVMsgOutcome.h"

// One connection, never waited for. Its destructor closes; whatever the system still has is sent,
// unless bytes came that nobody read.
//
// A plain one moves the bytes as they are, and one thread reads and one writes at a time, which may
// be two. Any other talks with the peer beside that: it greets before anything is read or written,
// it may hold bytes of either direction that the system knows nothing of, and one thread at a time
// does anything with it.
class KLVMsgTransport {
public:
    // What a transfer came to.
    struct Result {
        std::size_t count = 0;  // bytes
        int error = 0;          // EAGAIN: nothing more for now; else the connection has failed
        bool ended = false;     // of a read: the peer has ended its output
        bool cut = false;       // of a read: somebody else has ended it
        std::size_t held = 0;   // of a write: bytes behind `count` that come first the next time
    };

    // What a greeting has come to.
    struct Greeting {
        enum State { kGoesOn, kDone, kFailed };

        State state = kDone;
        bool waitsForRoom = false;  // it goes on when the system takes bytes, not when some come
        int error = 0;              // the errno of a failed system call
        std::string text;           // why it has failed
        std::string warning;        // what the owner should know, whatever has become of it
    };

    // What the system knows of the peer's system.
    struct Sample {
        unsigned unacknowledged = 0;              // segments sent
        unsigned probes = 0;                      // sent in a row without an answer
        std::chrono::milliseconds sinceAnswer{};  // since it last acknowledged anything
    };

    explicit KLVMsgTransport(bool isPlain) : m_isPlain(isPlain) {}
    virtual ~KLVMsgTransport() = default;

    bool IsPlain() const { return m_isPlain; }

    virtual Result Read(const iovec* spaces, int count) = 0;

    // `endsMessage`: the last byte is a message's last. What follows then begins a new segment.
    virtual Result Write(const iovec* pieces, int count, bool endsMessage) = 0;

    virtual void EndOutput() = 0;       // the peer reads the end of the stream
    virtual void Break() = 0;           // both directions end at once, on all threads
    virtual std::size_t Segment() = 0;  // bytes that travel in one piece; 0 where that is unknown
    virtual Sample TakeSample() = 0;
    virtual int Descriptor() const = 0;  // for epoll

    // Of those that are not plain ----------------------------------------------------------------

    // Goes on with the greeting; throws nothing. A client's is done when the server has admitted
    // it, a server's when it knows who has come: Admit then tells the client, and returns the errno
    // of why it cannot.
    virtual Greeting Greet() { return {}; }
    virtual int Admit() { return 0; }

    // Who the peer is, by the names that somebody who is trusted has given it.
    virtual std::vector<std::string> Names() const { return {}; }

    // Bytes may be there to be read although the system has none.
    virtual bool HoldsInput() const { return false; }

    // Bytes of its own, of EndOutput as well, are still to be written: Flush tries.
    virtual bool HoldsOutput() const { return false; }
    virtual Result Flush() { return {}; }

    // The bytes that the last write said are held, once the system has taken all of them: told
    // once, here or as the first ones of the next write.
    virtual std::size_t TakeHeld() { return 0; }

    // Why it has failed, where that is more than the errno says; valid as long as it is there.
    virtual std::string_view Why() const { return ""; }

private:
    const bool m_isPlain;
};

// Makes transports that are not plain, each around a plain one. For several sessions and threads at
// a time.
class KLVMsgTransportFactory {
public:
    virtual ~KLVMsgTransportFactory() = default;

    // Whether it can make any.
    virtual KLVMsgOutcome Check() = 0;

    // To a client that was accepted, and to the server at that host. Throw std::bad_alloc.
    virtual std::unique_ptr<KLVMsgTransport> ToClient(std::unique_ptr<KLVMsgTransport> way) = 0;
    virtual std::unique_ptr<KLVMsgTransport> ToServer(std::unique_ptr<KLVMsgTransport> way,
                                                      const std::string& host) = 0;

    // How long a greeting may take, and how many clients a session greets at a time.
    virtual std::chrono::milliseconds GreetingLimit() const = 0;
    virtual std::size_t MostGreetings() const = 0;
};
