// The contenders of the session's benchmark: what an application talks through.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Bench.h"

namespace bench {

// 16 bytes: which message of which connection.
struct Item {
    std::uint64_t connection;
    std::uint64_t number;
};

// One process's end. A server has many clients, which are all in one process and one object.
class Talker {
public:
    virtual ~Talker() = default;

    virtual int Listen() = 0;  // returns the port
    virtual void Connect(int port, int connections) = 0;

    virtual void Send(const Item& item) = 0;    // of a client
    virtual Item Receive() = 0;                 // waits; in the order in which they were sent
    virtual void Answer(const Item& item) = 0;  // of a server, to the one it has just received from

    // False when nothing is there. Only of those that collect what comes while nobody asks.
    virtual bool ReceiveIfThere(Item&) { return false; }
};

enum class Use { ThereAndBack, OneWay };

std::unique_ptr<Talker> MakeSessionTalker(Use use);
std::unique_ptr<Talker> MakeNngTalker(Use use);
std::unique_ptr<Talker> MakeZeroMqTalker(Use use);

}  // namespace bench
