// For applications: what has become of an operation of a session, and who its peer was.
#pragma once

#include <memory>
#include <string>

// How an operation ended. It is true when it is done.
struct KLVMsgOutcome {
    // Done, or why not.
    enum Status {
        kDone,      // all of it
        kTooLate,   // the time was over
        kPeerGone,  // there is, or was, no such connection
        kFailed     // `text` and `error` tell the cause
    };

    // True when done.
    explicit operator bool() const { return status == kDone; }

    Status status = kDone;  // nothing has failed at first
    int error = 0;          // the errno of a failed system call; 0 where there was none
    std::string text;       // the cause in words; empty when done
};

// A connection of a session, a plain value. Unlike a connection number it never comes back: that of a
// connection which has gone stands for nobody.
struct KLVMsgPeer {
    // By id; later ones sort behind.
    bool operator==(const KLVMsgPeer& other) const { return id == other.id; }
    bool operator!=(const KLVMsgPeer& other) const { return id != other.id; }
    bool operator<(const KLVMsgPeer& other) const { return id < other.id; }

    unsigned long long id = 0;  // 0: none
};

// Which connections are meant: one, or all that have a label.
struct KLVMsgPeers {
    // One connection, or those with a label.
    KLVMsgPeers(KLVMsgPeer one) : peer(one) {}
    KLVMsgPeers(const char* labelText) : label(labelText) {}
    KLVMsgPeers(std::string labelText) : label(std::move(labelText)) {}

    // True when the connection with this label is meant.
    bool Include(KLVMsgPeer other, const std::string& otherLabel) const {
        return peer.id != 0 ? peer == other : label == otherLabel;
    }

    KLVMsgPeer peer;    // none: those with the label
    std::string label;  // not looked at when there is a peer
};

// A received message, when it is done: the message, which is the caller's, and where it came from.
template <class Message>
struct KLVMsgReceived : KLVMsgOutcome {
    // Requires: the outcome is done.
    Message* operator->() const { return message.get(); }
    Message& operator*() const { return *message; }

    std::unique_ptr<Message> message;  // null unless done
    KLVMsgPeer peer;                   // whose connection it came on
};
