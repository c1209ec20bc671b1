#include "KLVMsgResolvedAddress.h"

#include "KLVString.h"

static const char loopback[] = "127.0.0.1";

KLVMsgResolvedAddress KLVMsgResolveAddress(const KLVString& host, const char* service) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;

    addrinfo* list = nullptr;
    const char* const node = host.Length() == 0 ? loopback : host.Text();
    if (getaddrinfo(node, service, &hints, &list) != 0) {
        return nullptr;
    }
    return KLVMsgResolvedAddress(list);
}
