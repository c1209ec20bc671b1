// For applications: where to listen, or whom to connect to.
#pragma once

#include "KLVMsgExport.h"
#include "KLVString.h"

// Host and port of a TCP endpoint, a plain value.
class KLVMSG_EXPORT KLVMsgSocketAddress {
public:
    KLVMsgSocketAddress() = default;
    // The port `portNumber` of `hostText`, see below for what they may be.
    KLVMsgSocketAddress(const KLVString& hostText, int portNumber)
        : host(hostText), port(portNumber) {}

    // A host name or a numeric IPv4 or IPv6 address. Empty means "127.0.0.1", which is put in its
    // place when the address is resolved; the text here stays empty.
    KLVString host;

    // In host byte order. For listening, 0 or less lets the system choose.
    int port = 0;
};
