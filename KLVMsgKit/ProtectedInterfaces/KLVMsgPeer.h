// For applications: who is at the other end of a session's connections, and what came from there.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KLVMsgOutcome.h"

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
    // How they are meant.
    enum Kind {
        kOne,    // one by itself
        kLabel,  // all that have a label
        kAll     // every one
    };

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

    // How they are meant, and the one or the label; empty where another kind is meant.
    Kind HowMeant() const { return m_kind; }
    KLVMsgPeer One() const { return m_peer; }
    const std::string& Label() const { return m_label; }

private:
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

// Received messages of one class, the oldest first; at least one when it is done.
template <class Message>
struct KLVMsgReceivedAll : KLVMsgOutcome {
    // One of them.
    struct Item {
        // The message.
        Message* operator->() const { return message.get(); }
        Message& operator*() const { return *message; }

        std::unique_ptr<Message> message;  // never null
        KLVMsgPeer peer;                   // whose connection it came on
    };

    std::vector<Item> messages;  // empty unless done
};
