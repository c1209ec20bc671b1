// For the session's own sources: a connection that comes back.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "KLVMsgFifo.h"
#include "KLVMsgLoop.h"
#include "KLVMsgPeerBook.h"

// How long to wait before the next attempt: twice as long each time, and by chance up to twice that
// again, so that those who lost the same peer at one moment do not come back at one moment.
class KLVMsgPauses {
public:
    using Duration = std::chrono::milliseconds;

    static constexpr Duration kShortest{50};
    static constexpr Duration kLongest{5000};

    // `chance` is any number.
    Duration Next(std::uint64_t chance) {
        const Duration pause = m_next + m_next * (chance % 1024) / 1024;
        m_next = std::min(2 * m_next, kLongest / 2);
        return pause;
    }

    // The connection was there for so long: one that was only made to be closed again, as where it
    // is refused, is no reason to come back at once.
    void Lasted(KLVMsgLoop::Clock::duration time) {
        if (time >= std::chrono::seconds(1)) {
            m_next = kShortest;
        }
    }

private:
    Duration m_next = kShortest;
};

// Either its connection is there, or its place is open: an entry in the book of peers that takes
// messages as a connection does, and sends none. What is queued goes from one to the other.
//
//     place open --made, hello queued--> connected --takes no more, or is over--> place open
//
// One that is not plain greets the server first: its place stays open until it is let in.
//
// While a connection that is over is still being written to, what is left of it stays there, and
// what comes meanwhile is put behind it.
struct KLVMsgKeep {
    KLVMsgSessionPeer* place = nullptr;       // its link is null while the connection is there
    KLVMsgSessionPeer* connection = nullptr;  // null while there is none
    KLVMsgLoop::LinkPtr spareLink;            // the next one of the place

    std::shared_ptr<KLVMsgTransportFactory> transports;  // null: plain
    std::string host;                                    // of the server
    KLVMsgLoop::LinkPtr guest;                           // null unless it greets the server

    // What is sent first each time.
    std::string helloHead;
    std::shared_ptr<const std::string> helloBody;  // null where the head is all of it

    std::size_t HelloSize() const {
        return helloHead.size() + (helloBody != nullptr ? helloBody->size() : 0);
    }

    // Of a connection that is over and still being written to.
    KLVMsgLoop::LinkPtr leaving;
    KLVMsgFifo<KLVMsgSessionPeer::Awaited> leavingAwaited;

    KLVMsgPauses pauses;
    KLVMsgLoop::Time since{};  // when it was last made
    std::string told;          // why it could not be made, as far as events have told it
};
