// For the library's own sources: the one way from host and port to a system address.
#pragma once

#include <netdb.h>

#include <memory>

class KLVString;

struct KLVMsgFreeAddresses {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using KLVMsgResolvedAddress = std::unique_ptr<addrinfo, KLVMsgFreeAddresses>;

// The addresses of a host for stream sockets (getaddrinfo), of which callers use the first. An
// empty host means the loopback address, a null service none. Null when the host does not resolve:
// errno is then whatever the resolver left there.
KLVMsgResolvedAddress KLVMsgResolveAddress(const KLVString& host, const char* service);
