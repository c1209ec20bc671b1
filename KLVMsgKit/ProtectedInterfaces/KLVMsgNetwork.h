// For applications: a network in words, for who decides by address.
#pragma once

#include <array>
#include <string>

#include "KLVMsgKitExport.h"

class KLVMsgPeerInfo;

// All addresses that begin with the same bits. It is true when its text was understood; one that
// was not contains nobody, so that a slip of the pen shuts out and does not let in.
//
//     static const KLVMsgNetwork ours("10.1.0.0/16");
//     session.Serve({"", 4711}, [](const KLVMsgPeerInfo& info) { return ours.Contains(info); });
//
// An IPv4 address that is written as an IPv6 one, as some systems do, counts as the IPv4 one; apart
// from that a network has addresses of its own kind alone: "::/0" is every IPv6 address.
class KLVMSGKIT_EXPORT KLVMsgNetwork {
public:
    // "10.1.0.0/16", "fd00:1::/32", or one address. Not understood: what is neither, a name, and a
    // network with bits behind its own, as "10.1.2.3/16".
    explicit KLVMsgNetwork(const std::string& text);

    // Whether it was understood.
    explicit operator bool() const { return m_bits >= 0; }

    // Whether an address, in digits and without a port, is one of them: that of a connection, or
    // any. What is no address is none of them.
    bool Contains(const KLVMsgPeerInfo& info) const;
    bool Contains(const std::string& address) const;

private:
    std::array<unsigned char, 16> m_address = {};
    bool m_isIPv4 = false;
    int m_bits = -1;  // how many they share, of 128; -1: not understood
};
