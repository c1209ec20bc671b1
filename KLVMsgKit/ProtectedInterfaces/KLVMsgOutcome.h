// For applications: what has become of an operation of a session.
#pragma once

#include <string>

// How an operation ended. It is true when it is done.
struct KLVMsgOutcome {
    // Done, or why not.
    enum Status {
        kDone,      // all of it
        kTooLate,   // the time was over
        kPeerGone,  // there is, or was, no such connection
        kFailed,    // `text` and `error` tell the cause
        kFull       // a limit of the session's options left no room
    };

    // True when done.
    explicit operator bool() const { return status == kDone; }

    Status status = kDone;  // nothing has failed at first
    int error = 0;          // the errno of a failed system call; 0 where there was none
    std::string text;       // the cause in words; empty when done
};
