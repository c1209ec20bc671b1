// For the session's own sources: who is at the other end of each connection.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "KLVMsgEvent.h"
#include "KLVMsgFifo.h"
#include "KLVMsgInbox.h"
#include "KLVMsgLoop.h"
#include "KLVMsgPeer.h"

struct KLVMsgDelivery;
struct KLVMsgQuestion;
struct KLVMsgKeep;

// What the session knows of one connection, from its beginning until it is over and nothing of it
// waits in the inbox.
struct KLVMsgSessionPeer : KLVMsgLoop::Client {
    // A message that somebody waits for.
    struct Awaited {
        KLVMsgOutput::Position begin;
        KLVMsgOutput::Position end;
        KLVMsgDelivery* delivery;
    };

    // Whether something may still come; whether it takes messages, and those to a label.
    bool IsThere() const { return link != nullptr && !isPlace && link->connection.Gives(); }
    bool Takes() const { return link != nullptr && link->connection.Takes(); }
    bool TakesByLabel() const { return Takes() && (isPlace || IsThere()); }

    KLVMsgPeer peer;
    std::string label;
    std::string address;
    std::string served;  // where it was accepted; empty for one that was made here
    std::chrono::system_clock::time_point since = std::chrono::system_clock::now();
    KLVMsgLoop::LinkPtr link;    // null when it is over
    KLVMsgKeep* keep = nullptr;  // whose connection it is, if it is one's
    bool isPlace = false;        // the place of a Keep's connection while that is away
    KLVMsgInbox::Sender sent;    // what it has sent and nobody has asked for
    KLVMsgFifo<Awaited> awaited;
    std::map<std::uint64_t, KLVMsgQuestion*> questions;  // by number: those it has not answered
    std::uint64_t lastTurn = 0;                          // when it was last asked; 0: never
    std::size_t cost = 0;    // of its output, as far as the session has counted it
    std::size_t inHand = 0;  // threads that have its message and have not asked for the next one
    bool isTold = false;     // that it has gone
    bool isReadingPaused = false;
    bool isHalf = false;  // its output has ended, and an answer may come
    std::uint64_t messagesReceived = 0;
};

// By id, which never comes back, and by label. The mutex of the session guards it.
class KLVMsgPeerBook {
public:
    using Peer = KLVMsgSessionPeer;

    // A new entry, under a label. Throws std::bad_alloc and leaves none then.
    Peer& Add(const std::string& label, const std::string& address);

    // Null when there is none.
    Peer* Find(KLVMsgPeer peer) {
        // Mostly the one that was found last.
        return m_found != nullptr && m_found->peer == peer ? m_found : LookUp(peer);
    }
    // Those that are meant, the oldest first, those that have gone included.
    void Find(const KLVMsgPeers& meant, std::vector<Peer*>& found);
    bool IsAnyThere(const KLVMsgPeers& meant);

    // The same without memory, in no order. Requires: `work` adds and removes none.
    template <class Work>
    void ForMeant(const KLVMsgPeers& meant, const Work& work) {
        if (meant.HowMeant() == KLVMsgPeers::kAll) {
            ForEach(work);
        } else if (meant.HowMeant() == KLVMsgPeers::kLabel) {
            const auto those = m_labels.find(meant.Label());
            for (std::size_t i = 0; those != m_labels.end() && i < those->second.size(); ++i) {
                work(*those->second[i]);
            }
        } else if (Peer* const one = Find(meant.One()); one != nullptr) {
            work(*one);
        }
    }

    // Throws std::bad_alloc and changes nothing then.
    void SetLabel(Peer& peer, const std::string& label);

    // It has gone: the cause is kept for who asks later.
    void NoteGone(const Peer& peer, const std::string& cause);
    void Remove(Peer& peer);

    // Why those who are meant are not there.
    std::string WhyGone(const KLVMsgPeers& meant) const;

    // An id for a listening socket, out of the same numbers.
    std::uint64_t NextId() { return ++m_lastId; }

    // Every one, in no order.
    template <class Work>
    void ForEach(const Work& work) {
        for (auto& [id, peer] : m_peers) {
            work(*peer);
        }
    }

private:
    static constexpr std::size_t kMostCauses = 1000;

    Peer* LookUp(KLVMsgPeer peer);
    void RemoveLabel(Peer& peer);

    std::unordered_map<std::uint64_t, std::unique_ptr<Peer>> m_peers;
    std::unordered_map<std::string, std::vector<Peer*>> m_labels;  // in the order of their ids
    std::map<std::uint64_t, std::string> m_causes;                 // of peers that have gone
    std::unordered_map<std::string, std::string> m_labelCauses;    // the last one of a label
    bool m_isLabelForgotten = false;                               // one that had a cause
    Peer* m_found = nullptr;                                       // by the last look-up
    std::uint64_t m_lastId = 0;
};
