#include "KLVMsgPeerInfo.h"

#include "KLVMsgPeerInfoData.h"

const KLVMsgPeerInfoData& KLVMsgPeerInfo::Known() const {
    static const KLVMsgPeerInfoData nothing;
    return m_known == nullptr ? nothing : *m_known;
}

const std::string& KLVMsgPeerInfo::Host() const { return Known().host; }

int KLVMsgPeerInfo::Port() const { return Known().port; }

const std::string& KLVMsgPeerInfo::ServedHost() const { return Known().servedHost; }

int KLVMsgPeerInfo::ServedPort() const { return Known().servedPort; }

const std::vector<std::string>& KLVMsgPeerInfo::Names() const { return Known().names; }

KLVMsgPeer KLVMsgPeerInfo::Peer() const { return Known().peer; }

const std::string& KLVMsgPeerInfo::Label() const { return Known().label; }

std::chrono::system_clock::time_point KLVMsgPeerInfo::Since() const { return Known().since; }

const KLVMsgCounts& KLVMsgPeerInfo::Counts() const { return Known().counts; }
