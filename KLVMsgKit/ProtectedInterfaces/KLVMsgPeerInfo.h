// For applications: what is known of a connection, and who decides whether it may be one.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KLVMsgEvent.h"
#include "KLVMsgKitExport.h"
#include "KLVMsgOutcome.h"
#include "KLVMsgPeer.h"

struct KLVMsgPeerInfoData;

// What is known of a connection at one moment; a plain value, which does not change afterwards. Not
// done: there is no such connection, and the rest is empty.
class KLVMSGKIT_EXPORT KLVMsgPeerInfo : public KLVMsgOutcome {
public:
    // Of nobody, for an outcome; and what a session knows.
    KLVMsgPeerInfo() = default;
    explicit KLVMsgPeerInfo(const KLVMsgOutcome& outcome) : KLVMsgOutcome(outcome) {}
    explicit KLVMsgPeerInfo(std::shared_ptr<const KLVMsgPeerInfoData> known)
        : m_known(std::move(known)) {}

    // The peer's address: "10.1.2.3" or "fd00::1", and the port at its end.
    const std::string& Host() const;
    int Port() const;

    // The address that was given to Serve, and the port that Serve told; empty and 0 for a
    // connection that was made from here.
    const std::string& ServedHost() const;
    int ServedPort() const;

    // Who it is by its certificate, which somebody who is trusted has signed: names and addresses.
    // Empty for a connection that is not protected, and for one that is over.
    const std::vector<std::string>& Names() const;

    // Who it is, under which label, since when, and what has passed. While it is asked whether a
    // connection may be one it is nobody yet, and nothing has.
    KLVMsgPeer Peer() const;
    const std::string& Label() const;
    std::chrono::system_clock::time_point Since() const;
    const KLVMsgCounts& Counts() const;

private:
    const KLVMsgPeerInfoData& Known() const;

    std::shared_ptr<const KLVMsgPeerInfoData> m_known;  // null: nothing
};

// Whether a new connection may be one; see KLVMsgSession::Serve.
using KLVMsgAdmit = std::function<bool(const KLVMsgPeerInfo& info)>;
