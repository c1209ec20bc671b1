#include "KLVMsgNetwork.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>

#include "KLVMsgPeerInfo.h"

namespace {

using Address = std::array<unsigned char, 16>;

// How an IPv4 address begins as an IPv6 one.
constexpr Address kIPv4 = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
constexpr int kIPv4Bits = 96;

bool IsIPv4(const Address& address) {
    return std::equal(kIPv4.begin(), kIPv4.begin() + kIPv4Bits / 8, address.begin());
}

// As an IPv6 address, whichever it is. False: it is none.
bool Read(const std::string& text, Address& address) {
    address = kIPv4;
    return inet_pton(AF_INET, text.c_str(), address.data() + kIPv4Bits / 8) == 1 ||
           inet_pton(AF_INET6, text.c_str(), address.data()) == 1;
}

bool IsSet(const Address& address, int bit) {
    return (address[static_cast<std::size_t>(bit / 8)] >> (7 - bit % 8) & 1) != 0;
}

// -1: it is no number of so many at the most.
int ReadBits(const std::string& text, int most) {
    const auto isDigit = [](unsigned char one) { return std::isdigit(one) != 0; };
    if (text.empty() || text.size() > 3 || !std::all_of(text.begin(), text.end(), isDigit)) {
        return -1;
    }
    const int bits = std::stoi(text);
    return bits <= most ? bits : -1;
}

}  // namespace

KLVMsgNetwork::KLVMsgNetwork(const std::string& text) {
    const std::size_t slash = text.find('/');
    const std::string first = text.substr(0, slash);
    if (!Read(first, m_address)) {
        return;
    }
    m_isIPv4 = IsIPv4(m_address);
    // The bits of an address are counted as it is written.
    const int before = first.find(':') == std::string::npos ? kIPv4Bits : 0;
    const int bits =
        slash == std::string::npos ? 128 - before : ReadBits(text.substr(slash + 1), 128 - before);
    if (bits == -1 || (m_isIPv4 && before + bits < kIPv4Bits)) {
        return;
    }
    for (int bit = before + bits; bit < 128; ++bit) {
        if (IsSet(m_address, bit)) {
            return;
        }
    }
    m_bits = before + bits;
}

bool KLVMsgNetwork::Contains(const KLVMsgPeerInfo& info) const { return Contains(info.Host()); }

bool KLVMsgNetwork::Contains(const std::string& address) const {
    Address other;
    // Behind a % stands by which interface a local address is reached.
    if (m_bits < 0 || !Read(address.substr(0, address.find('%')), other) ||
        IsIPv4(other) != m_isIPv4) {
        return false;
    }
    int bit = 0;
    while (bit < m_bits && IsSet(other, bit) == IsSet(m_address, bit)) {
        ++bit;
    }
    return bit == m_bits;
}
