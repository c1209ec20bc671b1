// For applications: what happens to a session's connections, and how much has passed over them.
#pragma once

#include <cstdint>
#include <string>

#include "KLVMsgOutcome.h"
#include "KLVMsgPeer.h"

// Something that happened, when the outcome is done; `text` is empty then.
struct KLVMsgEvent : KLVMsgOutcome {
    // What has happened.
    enum Kind {
        kNone,         // no event: the outcome is not done
        kCame,         // a connection was accepted or made
        kGone,         // a connection has ended, for `cause`
        kStalls,       // no byte has moved for the stall's time, though one is due
        kRefused,      // a connection was accepted and closed at once: `error` EACCES, not admitted
        kLeftOut,      // a message to a label had no room in this peer's queue
        kUnknownType,  // a message of a type that was never registered was passed over
        kServingFailed,  // a listening socket failed; it is tried again
        kAway,  // a connection that is kept could not be made; told when the cause is another one
        kLost,  // messages for such a connection are lost: `what` says how many, and why
        kNotRenewed  // what protects new connections has changed and is of no use: they go on with
                     // what was there before
    };

    // Why a connection has ended.
    enum Cause {
        kNoCause,        // it has not
        kClosed,         // the peer closed it, or ended its output, between two messages
        kCut,            // the same in the middle of a message
        kReset,          // the peer or the system between broke it
        kDead,           // the peer's system does not answer any more
        kRefusedBody,    // a body was refused: too long, or not taken by its class
        kUnknownLength,  // a length that no name and no body can have
        kStalled,        // it stalled, and the options say that this ends it
        kShutDownHere,   // by Disconnect or End
        kNoMemory        // there was no memory for what came
    };

    Kind kind = kNone;       // which
    Cause cause = kNoCause;  // of kGone
    KLVMsgPeer peer;         // whom it concerns; none where there is no connection
    std::string label;       // of the peer, at that moment
    std::string address;     // of the peer, or where was to be served: "127.0.0.1, port 4711"
    std::string type;  // of kUnknownType: its first 256 bytes, with ? for what cannot be printed
    std::string what;  // all of it in words
    std::uint64_t missed =
        0;  // how many events were dropped right before this one, as nobody asked
};

// Numbers since the beginning of a connection, or of the session; a message's bytes are those on
// the wire.
struct KLVMsgCounts {
    std::uint64_t connections = 0;       // that are there
    std::uint64_t messagesSent = 0;      // whose last byte was taken by the system
    std::uint64_t bytesSent = 0;         // taken by the system
    std::uint64_t messagesReceived = 0;  // that came whole
    std::uint64_t bytesReceived = 0;     // by the session, of whole messages or not
    std::uint64_t messagesQueued = 0;    // now: not yet taken by the system, the whole of them
    std::uint64_t bytesQueued = 0;       // now
    std::uint64_t messagesInInbox = 0;   // now: not yet asked for
    std::uint64_t bytesInInbox = 0;      // now
    std::uint64_t stalled = 0;  // now: connections on which no byte moves, though one is due
};
