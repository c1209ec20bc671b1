// For applications: what has become of an operation of a session, and who its peer was.
#pragma once

#include <memory>
#include <string>
#include <utility>

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

// A connection of a session, a plain value. Unlike a connection number it never comes back: that of
// a connection which has gone stands for nobody.
struct KLVMsgPeer {
    // By id; later ones sort behind.
    bool operator==(const KLVMsgPeer& other) const { return id == other.id; }
    bool operator!=(const KLVMsgPeer& other) const { return id != other.id; }
    bool operator<(const KLVMsgPeer& other) const { return id < other.id; }

    unsigned long long id = 0;  // 0: none
};

// Which connections are meant: one, all that have a label, or every one.
class KLVMsgPeers {
public:
    // Those, each by itself; a peer that is none stands for nobody.
    KLVMsgPeers(KLVMsgPeer peer) : m_kind(kOne), m_peer(peer) {}
    KLVMsgPeers(const char* label) : m_kind(kLabel), m_label(label) {}
    KLVMsgPeers(std::string label) : m_kind(kLabel), m_label(std::move(label)) {}

    // Every one.
    static KLVMsgPeers All() { return KLVMsgPeers(); }

    // Whether a connection is one of them.
    bool Include(KLVMsgPeer peer, const std::string& label) const {
        return m_kind == kOne ? peer == m_peer : m_kind == kAll || label == m_label;
    }

private:
    enum Kind { kOne, kLabel, kAll };

    KLVMsgPeers() : m_kind(kAll) {}

    Kind m_kind;
    KLVMsgPeer m_peer;
    std::string m_label;
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
