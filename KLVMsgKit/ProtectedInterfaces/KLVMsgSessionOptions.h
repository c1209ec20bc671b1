// For applications: the limits of a session.
#pragma once

#include <chrono>
#include <cstddef>

#include "KLVMsgTimeLimit.h"

// Sizes are in bytes. What waits counts with its size on the wire and what it takes beside it: 64
// bytes a message in a queue, 192 in the inbox. One message always has room where nothing else
// waits.
struct KLVMsgSessionOptions {
    // A connection on which no byte moves for that long, though one is due: bytes are queued and
    // the peer does not read, or it has stopped in the middle of a message. That is an event, and
    // ends nothing unless `stallEnds`. It never runs while the session itself does not read.
    KLVMsgTimeLimit stall = std::chrono::seconds(30);
    bool stallEnds = false;

    // A peer whose system does not answer for that long is dead, and its connection ends. It does
    // not concern peers that are slow, or stopped, on a machine that is there.
    KLVMsgTimeLimit silence = std::chrono::seconds(25);

    // Queued and not yet taken by the system, for one peer and for all.
    std::size_t queueLimit = std::size_t{64} << 20;
    std::size_t queueLimitOfAll = std::size_t{256} << 20;

    // Received and not yet asked for, of one peer and of all. Who is above is not read until half
    // of it is gone; TCP holds the sender, and nothing is dropped.
    std::size_t inboxLimit = std::size_t{64} << 20;
    std::size_t inboxLimitOfAll = std::size_t{256} << 20;

    // The largest body, sent or received: of any class, and of a received one that reads its body
    // itself. A class may have a lower limit.
    std::size_t largestBody = std::size_t{64} << 20;
    std::size_t largestBareBody = std::size_t{4} << 20;

    // How many connections there may be; one more is closed as soon as it is accepted.
    std::size_t connectionLimit = 10000;

    // Whether peers without a session get every header in one piece, as they need it. Between
    // sessions alone it may be off: small messages then go faster over a network.
    bool wholeHeaders = true;
};
