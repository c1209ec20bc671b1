// The contenders of the session's benchmark: what an application talks through.
//
// Each hands over bodies that it has put together from a stamp and a filling, with one copy, and
// looks at what has come where its library has put it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Bench.h"

struct KLVMsgTlsOptions;

namespace bench {

// The first 16 bytes of every body. A lane is what keeps an order: a connection, or a thread of
// those that send on the same one.
struct Stamp {
    std::uint64_t lane;
    std::uint64_t number;
};

// Where one asks, Send returns with the answer, and what Receive has taken it has answered. Each
// lane is then a thread that asks.
enum class Use { kThereAndBack, kOneWay, kAsking };

// How a contender is to talk. Only a session looks at the lower half, which has its defaults.
struct Manner {
    Use use = Use::kOneWay;
    std::size_t size = sizeof(Stamp);  // of a body

    bool together = false;     // the receiver takes all that is there at once
    bool wholeHeaders = true;  // the option of this name
    int waiting = 0;           // threads of the server that wait for what never comes

    const KLVMsgTlsOptions* tls = nullptr;  // how it is protected; null: it is not
};

// One process's end. A server has many clients, which are all in one process and one object.
class Talker {
public:
    virtual ~Talker() = default;

    virtual int Listen(const std::string& host) = 0;  // returns the port
    virtual void Connect(const std::string& host, int port, int connections) = 0;

    // Of a client. Waits where the contender holds its sender back. Only a session's may be called
    // on several threads, and where one asks each lane on its own.
    virtual void Send(std::size_t connection, const Stamp& stamp) = 0;

    // Waits, and appends the stamps of at least one message, in the order in which they came.
    virtual void Receive(std::vector<Stamp>& stamps) = 0;

    // Of a server there and back, to whom it has just received from.
    virtual void Answer(const Stamp& stamp) = 0;
};

// One that has a socket for each connection or asker, and a server's only one. `Own` is derived
// from it, and has PutIn and TakeOut: without a virtual call, which would be measured.
template <class Own, class Socket>
class SocketsTalker : public Talker {
public:
    explicit SocketsTalker(const Manner& manner) : m_manner(manner) {}

    void Send(std::size_t connection, const Stamp& stamp) override {
        if (m_manner.use != Use::kAsking) {
            Self().PutIn(m_sockets[connection], stamp);
            return;
        }
        const Socket asker = m_sockets[stamp.lane];
        Self().PutIn(asker, stamp);
        Require(Self().TakeOut(asker).number == stamp.number, "answer");
    }

    void Receive(std::vector<Stamp>& stamps) override {
        stamps.push_back(Self().TakeOut(m_sockets[0]));
        if (m_manner.use == Use::kAsking) {
            Answer(stamps.back());
        }
    }

    void Answer(const Stamp& stamp) override { Self().PutIn(m_sockets[0], stamp); }

protected:
    const Manner m_manner;
    std::vector<Socket> m_sockets;  // a server's only one, or a client's

private:
    const Own& Self() const { return static_cast<const Own&>(*this); }
};

using MakeTalker = std::unique_ptr<Talker>(const Manner&);
MakeTalker MakeSessionTalker;
MakeTalker MakeHandTalker;     // one connection, one way
MakeTalker MakeHandTlsTalker;  // the same
MakeTalker MakeNngTalker;
MakeTalker MakeZeroMqTalker;

// What stands behind the stamp in every body.
inline const char* Filling() {
    static const std::string bytes(std::size_t{1} << 20, 'x');
    return bytes.data();
}

// Writes a body of that size.
inline void PutBody(char* to, const Stamp& stamp, std::size_t size) {
    std::memcpy(to, &stamp, sizeof stamp);
    std::memcpy(to + sizeof stamp, Filling(), size - sizeof stamp);
}

inline Stamp StampOf(const void* body) {
    Stamp stamp = {};
    std::memcpy(&stamp, body, sizeof stamp);
    return stamp;
}

}  // namespace bench
