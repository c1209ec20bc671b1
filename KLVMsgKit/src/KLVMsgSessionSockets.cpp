#include "KLVMsgSessionSockets.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

namespace {

const char* const kPort = ", port ";

using Clock = KLVMsgTimeLimit::Clock;
using Time = KLVMsgSessionSockets::Time;

struct FreeAddresses {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

const char* Host(const KLVMsgSocketAddress& address) {
    return address.host.Length() == 0 ? "127.0.0.1" : address.host.Text();
}

KLVMsgOutcome Resolve(const KLVMsgSocketAddress& address, const std::string& what, int flags,
                      Addresses& addresses) {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | flags;
    const std::string service = std::to_string(std::max(address.port, 0));
    addrinfo* list = nullptr;
    const int result = getaddrinfo(Host(address), service.c_str(), &hints, &list);
    addresses.reset(result == 0 ? list : nullptr);
    if (result == EAI_SYSTEM) {
        return KLVMsgSessionSockets::Failure(what, errno);
    }
    return result == 0
               ? KLVMsgOutcome()
               : KLVMsgOutcome{KLVMsgOutcome::kFailed, 0, what + ": " + gai_strerror(result)};
}

KLVMsgDescriptor Make(const addrinfo& address) {
    return KLVMsgDescriptor(
        socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol));
}

// In milliseconds for poll, rounded up.
int Left(Time limit) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, 1000000000));
}

int ErrorOf(int descriptor) {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

// Where nobody listens at a port from which the system also connects, a socket may by chance meet
// itself there.
bool HasMetItself(int descriptor) {
    sockaddr_storage ends[2] = {};
    socklen_t lengths[] = {sizeof ends[0], sizeof ends[1]};
    return getsockname(descriptor, reinterpret_cast<sockaddr*>(&ends[0]), &lengths[0]) == 0 &&
           getpeername(descriptor, reinterpret_cast<sockaddr*>(&ends[1]), &lengths[1]) == 0 &&
           lengths[0] == lengths[1] && std::memcmp(&ends[0], &ends[1], lengths[0]) == 0;
}

// As BeginConnect, but waits.
int ConnectTo(const KLVMsgSessionSockets::Address& address, Time limit, int cancel,
              KLVMsgDescriptor& made) {
    int error = KLVMsgSessionSockets::BeginConnect(address, made);
    if (error == EINPROGRESS) {
        error = KLVMsgSessionSockets::Await(made.Number(), POLLOUT, limit, cancel);
        error = error == 0 ? KLVMsgSessionSockets::EndConnect(made) : error;
    }
    return error;
}

// An IPv6 address has its port at the same place as an IPv4 one.
void SetPort(sockaddr_storage& address, int port) {
    reinterpret_cast<sockaddr_in*>(&address)->sin_port = htons(static_cast<in_port_t>(port));
}

// The errno; 0 when it listens. `port` 0 is replaced by the one that the system has chosen.
int ListenOn(const addrinfo& address, KLVMsgDescriptor& made, int& port) {
    KLVMsgDescriptor descriptor = Make(address);
    const int number = descriptor.Number();
    const int on = 1;
    sockaddr_storage local = {};
    socklen_t length = address.ai_addrlen;
    std::memcpy(&local, address.ai_addr, address.ai_addrlen);
    SetPort(local, port);
    // Without IPV6_V6ONLY the IPv6 socket would take the IPv4 one's port as well.
    if (number == -1 || setsockopt(number, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1 ||
        (address.ai_family == AF_INET6 &&
         setsockopt(number, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == -1) ||
        bind(number, reinterpret_cast<sockaddr*>(&local), length) == -1 ||
        listen(number, SOMAXCONN) == -1) {
        return errno;
    }
    length = sizeof local;
    if (getsockname(number, reinterpret_cast<sockaddr*>(&local), &length) == -1) {
        return errno;
    }
    port = ntohs(reinterpret_cast<sockaddr_in*>(&local)->sin_port);
    made = std::move(descriptor);
    return 0;
}

// Listens on all of them; the errno of what failed, 0 when at least one works and no other failed
// but for not being this machine's.
int ListenOnAll(const addrinfo* list, std::vector<KLVMsgDescriptor>& made, int& port) {
    int absent = EADDRNOTAVAIL;
    for (; list != nullptr; list = list->ai_next) {
        KLVMsgDescriptor one;
        const int error = ListenOn(*list, one, port);
        if (error == 0) {
            made.push_back(std::move(one));
        } else if (error == EADDRNOTAVAIL || error == EAFNOSUPPORT) {
            absent = error;
        } else {
            return error;
        }
    }
    return made.empty() ? absent : 0;
}

std::string TextOf(const sockaddr_storage& address, socklen_t length) {
    char host[NI_MAXHOST] = {};
    char port[NI_MAXSERV] = {};
    if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, sizeof host, port,
                    sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return "";
    }
    return std::string(host) + kPort + port;
}

}  // namespace

KLVMsgDescriptor::~KLVMsgDescriptor() {
    if (m_number != -1) {
        close(m_number);
    }
}

KLVMsgDescriptor& KLVMsgDescriptor::operator=(KLVMsgDescriptor&& other) noexcept {
    std::swap(m_number, other.m_number);
    return *this;
}

int KLVMsgDescriptor::Release() { return std::exchange(m_number, -1); }

std::string KLVMsgSessionSockets::Text(const KLVMsgSocketAddress& address) {
    return std::string(Host(address)) + kPort + std::to_string(address.port);
}

KLVMsgOutcome KLVMsgSessionSockets::Failure(const std::string& what, int error) {
    return {KLVMsgOutcome::kFailed, error, what + ": " + std::generic_category().message(error)};
}

int KLVMsgSessionSockets::Await(int descriptor, short event, Time limit, int cancel) {
    pollfd asked[] = {{descriptor, event, 0}, {cancel, POLLIN, 0}};
    int count = poll(asked, 2, Left(limit));
    while ((count == -1 && errno == EINTR) || (count == 0 && Clock::now() < limit)) {
        count = poll(asked, 2, Left(limit));
    }
    if (count < 1) {
        return count == 0 ? ETIMEDOUT : errno;
    }
    return asked[1].revents != 0 ? ECANCELED : 0;
}

KLVMsgOutcome KLVMsgSessionSockets::Connect(const KLVMsgSocketAddress& address, Time limit,
                                            int cancel, KLVMsgDescriptor& made) {
    std::vector<Address> found;
    KLVMsgOutcome outcome = Find(address, false, found);
    std::size_t left = found.size();
    for (const Address& one : found) {
        const Time now = Clock::now();
        const auto part = (limit - now) / static_cast<Time::rep>(left--);
        const int error = ConnectTo(one, now + part, cancel, made);
        if (error == 0) {
            return {};
        }
        made = KLVMsgDescriptor();
        outcome = Failure("cannot connect to " + Text(address), error);
        const bool isLate = Clock::now() >= limit;
        outcome.status = error == ETIMEDOUT && isLate ? KLVMsgOutcome::kTooLate : outcome.status;
        if (error == ECANCELED || isLate) {
            break;
        }
    }
    return outcome;
}

KLVMsgOutcome KLVMsgSessionSockets::Find(const KLVMsgSocketAddress& address, bool isNumeric,
                                         std::vector<Address>& found) {
    const std::string what = "cannot connect to " + Text(address);
    if (address.port < 1 || address.port > 65535) {
        return Failure(what, EINVAL);
    }
    Addresses addresses;
    KLVMsgOutcome outcome = Resolve(address, what, isNumeric ? AI_NUMERICHOST : 0, addresses);
    for (const addrinfo* one = addresses.get(); one != nullptr; one = one->ai_next) {
        Address& made = found.emplace_back();
        std::memcpy(&made.bytes, one->ai_addr, one->ai_addrlen);
        made.length = one->ai_addrlen;
    }
    if (!outcome && isNumeric) {
        outcome.error = ENOENT;
    }
    return outcome;
}

int KLVMsgSessionSockets::BeginConnect(const Address& address, KLVMsgDescriptor& made) {
    const int family = address.bytes.ss_family;
    made = KLVMsgDescriptor(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.Number() == -1) {
        return errno;
    }
    if (connect(made.Number(), reinterpret_cast<const sockaddr*>(&address.bytes), address.length) ==
        -1) {
        return errno == EINTR ? EINPROGRESS : errno;
    }
    return EndConnect(made);
}

int KLVMsgSessionSockets::EndConnect(const KLVMsgDescriptor& made) {
    const int error = ErrorOf(made.Number());
    return error == 0 && HasMetItself(made.Number()) ? ECONNREFUSED : error;
}

KLVMsgOutcome KLVMsgSessionSockets::Listen(const KLVMsgSocketAddress& address,
                                           std::vector<KLVMsgDescriptor>& made, int& port) {
    const std::string what = "cannot listen on " + Text(address);
    if (address.port > 65535) {
        return Failure(what, EINVAL);
    }
    Addresses addresses;
    KLVMsgOutcome outcome = Resolve(address, what, AI_PASSIVE, addresses);
    if (!outcome) {
        return outcome;
    }
    // A port that the system chose for one address may be taken on another: then it chooses again.
    int error = EADDRINUSE;
    for (int tries = address.port > 0 ? 1 : 10; error == EADDRINUSE && tries > 0; --tries) {
        made.clear();
        port = std::max(address.port, 0);
        error = ListenOnAll(addresses.get(), made, port);
    }
    if (error != 0) {
        made.clear();
        return Failure(what, error);
    }
    return {};
}

KLVMsgDescriptor KLVMsgSessionSockets::Accept(int listener, std::string& address) {
    sockaddr_storage peer = {};
    socklen_t length = sizeof peer;
    KLVMsgDescriptor made(accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length,
                                  SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (made.Number() != -1) {
        address = TextOf(peer, length);
    }
    return made;
}

std::pair<std::string, int> KLVMsgSessionSockets::Parts(const std::string& text) {
    const std::size_t end = text.rfind(kPort);
    return end == std::string::npos
               ? std::pair<std::string, int>()
               : std::pair(text.substr(0, end), std::stoi(text.substr(end + std::strlen(kPort))));
}

std::string KLVMsgSessionSockets::PeerText(int descriptor) {
    sockaddr_storage peer = {};
    socklen_t length = sizeof peer;
    return getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0
               ? TextOf(peer, length)
               : "";
}
