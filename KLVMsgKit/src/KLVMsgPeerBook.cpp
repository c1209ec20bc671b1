#include "KLVMsgPeerBook.h"

#include <algorithm>
#include <utility>

namespace {

bool IsOlder(const KLVMsgSessionPeer* a, const KLVMsgSessionPeer* b) { return a->peer < b->peer; }

}  // namespace

KLVMsgSessionPeer& KLVMsgPeerBook::Add(const std::string& label, const std::string& address) {
    auto made = std::make_unique<Peer>();
    made->peer.id = NextId();
    made->label = label;
    made->address = address;
    Peer& peer = *made;
    m_peers.emplace(peer.peer.id, std::move(made));
    try {
        m_labels[label].push_back(&peer);
    } catch (...) {
        m_peers.erase(peer.peer.id);
        throw;
    }
    return peer;
}

KLVMsgSessionPeer* KLVMsgPeerBook::LookUp(KLVMsgPeer peer) {
    const auto found = m_peers.find(peer.id);
    if (found == m_peers.end()) {
        return nullptr;
    }
    m_found = found->second.get();
    return m_found;
}

void KLVMsgPeerBook::Find(const KLVMsgPeers& meant, std::vector<Peer*>& found) {
    ForMeant(meant, [&](Peer& peer) { found.push_back(&peer); });
    std::sort(found.begin(), found.end(), IsOlder);
}

bool KLVMsgPeerBook::IsAnyThere(const KLVMsgPeers& meant) {
    if (meant.HowMeant() == KLVMsgPeers::kAll) {
        // Mostly the first one is.
        return std::any_of(m_peers.begin(), m_peers.end(),
                           [](const auto& one) { return one.second->IsThere(); });
    }
    bool isAny = false;
    ForMeant(meant, [&](const Peer& peer) { isAny = isAny || peer.IsThere(); });
    return isAny;
}

void KLVMsgPeerBook::SetLabel(Peer& peer, const std::string& label) {
    if (label == peer.label) {
        return;
    }
    std::string kept = label;
    std::vector<Peer*>& those = m_labels[label];
    those.reserve(those.size() + 1);
    RemoveLabel(peer);
    those.insert(std::upper_bound(those.begin(), those.end(), &peer, IsOlder), &peer);
    peer.label.swap(kept);
}

void KLVMsgPeerBook::RemoveLabel(Peer& peer) {
    const auto found = m_labels.find(peer.label);
    std::vector<Peer*>& those = found->second;
    those.erase(std::find(those.begin(), those.end(), &peer));
    if (those.empty()) {
        m_labels.erase(found);
    }
}

void KLVMsgPeerBook::NoteGone(const Peer& peer, const std::string& cause) {
    m_causes.emplace(peer.peer.id, cause);
    if (m_causes.size() > kMostCauses) {
        m_causes.erase(m_causes.begin());
    }
    if (m_labelCauses.size() < kMostCauses || m_labelCauses.count(peer.label) != 0) {
        m_labelCauses[peer.label] = cause;
    } else {
        m_isLabelForgotten = true;
    }
}

void KLVMsgPeerBook::Remove(Peer& peer) {
    RemoveLabel(peer);
    m_found = nullptr;
    m_peers.erase(peer.peer.id);
}

std::string KLVMsgPeerBook::WhyGone(const KLVMsgPeers& meant) const {
    if (meant.HowMeant() == KLVMsgPeers::kOne) {
        const auto cause = m_causes.find(meant.One().id);
        return cause != m_causes.end()                            ? cause->second
               : meant.One().id == 0 || meant.One().id > m_lastId ? "there is no such peer"
                                                                  : "the peer has gone";
    }
    if (meant.HowMeant() == KLVMsgPeers::kLabel) {
        const auto cause = m_labelCauses.find(meant.Label());
        if (cause == m_labelCauses.end() && !m_isLabelForgotten) {
            return "no connection has had the label " + meant.Label();
        }
        return "no connection has the label " + meant.Label() + " now" +
               (cause == m_labelCauses.end() ? "" : ": " + cause->second);
    }
    return "there is no connection";
}
