// For the kit's own headers: the sockets of a session, made with the cause of a failure and put
// into the objects of the library, which own them from then on.
#pragma once

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>

#include "KLVMsgCommSocket.h"
#include "KLVMsgOutcome.h"
#include "KLVMsgServerSocket.h"
#include "KLVMsgSocketAddress.h"
#include "KLVMsgTimeLimit.h"

// The operations of all sockets here; none of them throws but std::bad_alloc.
class KLVMsgSessionSockets {
public:
    using Clock = KLVMsgTimeLimit::Clock;
    using Time = Clock::time_point;

    // How many milliseconds are left, rounded up, for poll.
    static int Left(Time limit) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now());
        return static_cast<int>(std::clamp<long long>(left.count(), 0, 1000000000));
    }

    // Waits until the descriptor has one of the events or the time is over; 0 then.
    static short Await(int descriptor, short events, Time limit) {
        pollfd asked = {descriptor, events, 0};
        while (poll(&asked, 1, Left(limit)) == -1 && errno == EINTR) {
            asked.revents = 0;
        }
        return asked.revents;
    }

    // Connects to the first address of the host that answers, and sets `descriptor`.
    static KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, Time limit, int& descriptor) {
        const std::string what = "cannot connect to " + Text(address);
        if (address.port < 1 || address.port > 65535) {
            return Failure(what, EINVAL);
        }
        Addresses addresses;
        KLVMsgOutcome outcome = Resolve(address, what, addresses);
        for (const addrinfo* one = addresses.get(); one != nullptr; one = one->ai_next) {
            outcome = ConnectTo(*one, what, limit, descriptor);
            if (outcome.status == KLVMsgOutcome::kDone ||
                outcome.status == KLVMsgOutcome::kTooLate) {
                break;
            }
        }
        return outcome;
    }

    // Listens on the first address of the host that this machine has, and sets `descriptor` and the
    // port. A port whose last connections have only just gone can be had.
    static KLVMsgOutcome Listen(const KLVMsgSocketAddress& address, int& descriptor, int& port) {
        const std::string what = "cannot listen on " + Text(address);
        Addresses addresses;
        KLVMsgOutcome outcome = Resolve(address, what, addresses);
        for (const addrinfo* one = addresses.get(); one != nullptr; one = one->ai_next) {
            outcome = ListenOn(*one, what, descriptor, port);
            if (outcome) {
                break;
            }
        }
        return outcome;
    }

    // Both ends of a connection within the process.
    static KLVMsgOutcome Pair(int (&ends)[2]) {
        const std::string what = "cannot make a socket pair";
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == -1) {
            return Failure(what, errno);
        }
        if (ends[0] < FD_SETSIZE) {
            return {};
        }
        close(ends[0]);
        close(ends[1]);
        return Failure(what, EMFILE);
    }

    // Messages go at once, and no transfer stands still for longer than `stall`. Where an option is
    // refused the connection works, slower.
    static void SetOptions(int descriptor, std::chrono::milliseconds stall) {
        const int on = 1;
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
        const timeval time = {stall.count() / 1000, stall.count() % 1000 * 1000};
        setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
        setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
    }

    // How many bytes a segment of the connection holds; 0 where the system does not tell.
    static std::size_t SegmentSize(int descriptor) {
        int size = 0;
        socklen_t length = sizeof size;
        getsockopt(descriptor, IPPROTO_TCP, TCP_MAXSEG, &size, &length);
        return static_cast<std::size_t>(std::max(size, 0));
    }

    // Until the registry owns them. They have no virtual destructor, and are destroyed as what they
    // are.
    struct Destroy {
        template <class Socket>
        void operator()(Socket* socket) const {
            socket->Socket::~Socket();
            Socket::operator delete(socket);
        }
    };
    using StreamOwner = std::unique_ptr<KLVMsgCommSocket, Destroy>;
    using ServerOwner = std::unique_ptr<KLVMsgServerSocket, Destroy>;

    // An object of the library that owns the descriptor, for the registry.
    static StreamOwner StreamSocket(int descriptor, bool output) {
        StreamOwner socket(new KLVMsgCommSocket(KLVMsgSocketAddress()));
        socket->descriptor = descriptor;
        socket->closed = false;
        socket->inputOpen = true;
        socket->outputOpen = output;
        return socket;
    }
    static ServerOwner ServerSocket(int descriptor, const KLVMsgSocketAddress& address) {
        // Its constructor takes a port of its own, which is given back.
        ServerOwner socket(new KLVMsgServerSocket(KLVMsgSocketAddress(), 1));
        socket->Shutdown();
        socket->descriptor = descriptor;
        socket->address = address;
        socket->lastError = 0;
        socket->closed = false;
        return socket;
    }

    static KLVMsgOutcome Failure(const std::string& what, int error) {
        return {KLVMsgOutcome::kFailed, error,
                what + ": " + std::generic_category().message(error)};
    }

private:
    struct FreeAddresses {
        void operator()(addrinfo* list) const { freeaddrinfo(list); }
    };
    using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

    static std::string Text(const KLVMsgSocketAddress& address) {
        return std::string(Host(address)) + ", port " + std::to_string(address.port);
    }

    static const char* Host(const KLVMsgSocketAddress& address) {
        return address.host.Length() == 0 ? "127.0.0.1" : address.host.Text();
    }

    static KLVMsgOutcome Resolve(const KLVMsgSocketAddress& address, const std::string& what,
                                 Addresses& addresses) {
        addrinfo hints = {};
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_NUMERICSERV;
        const std::string service = std::to_string(std::max(address.port, 0));
        addrinfo* list = nullptr;
        const int result = getaddrinfo(Host(address), service.c_str(), &hints, &list);
        addresses.reset(result == 0 ? list : nullptr);
        if (result == EAI_SYSTEM) {
            return Failure(what, errno);
        }
        return result == 0
                   ? KLVMsgOutcome()
                   : KLVMsgOutcome{KLVMsgOutcome::kFailed, 0, what + ": " + gai_strerror(result)};
    }

    // A descriptor that the library's waits have room for, or -1 with errno set.
    static int Make(const addrinfo& address, int flags) {
        const int made = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
        if (made < FD_SETSIZE) {
            return made;
        }
        close(made);
        errno = EMFILE;
        return -1;
    }

    static KLVMsgOutcome Refused(const std::string& what, int error, int descriptor) {
        if (descriptor != -1) {
            close(descriptor);
        }
        return Failure(what, error);
    }

    static KLVMsgOutcome ConnectTo(const addrinfo& address, const std::string& what, Time limit,
                                   int& descriptor) {
        const int made = Make(address, SOCK_NONBLOCK);
        if (made == -1) {
            return Refused(what, errno, made);
        }
        if (connect(made, address.ai_addr, address.ai_addrlen) == -1) {
            int error = errno;
            if (error == EINPROGRESS) {
                const bool answered = Await(made, POLLOUT, limit) != 0;
                socklen_t length = sizeof error;
                getsockopt(made, SOL_SOCKET, SO_ERROR, &error, &length);
                if (!answered) {
                    KLVMsgOutcome late = Refused(what, ETIMEDOUT, made);
                    late.status = KLVMsgOutcome::kTooLate;
                    return late;
                }
            }
            if (error != 0) {
                return Refused(what, error, made);
            }
        }
        fcntl(made, F_SETFL, fcntl(made, F_GETFL) & ~O_NONBLOCK);
        descriptor = made;
        return {};
    }

    static KLVMsgOutcome ListenOn(const addrinfo& address, const std::string& what, int& descriptor,
                                  int& port) {
        const int made = Make(address, SOCK_NONBLOCK);  // no accept waits
        const int on = 1;
        sockaddr_storage bound = {};
        socklen_t length = sizeof bound;
        if (made == -1 || setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1 ||
            bind(made, address.ai_addr, address.ai_addrlen) == -1 ||
            listen(made, SOMAXCONN) == -1 ||
            getsockname(made, reinterpret_cast<sockaddr*>(&bound), &length) == -1) {
            return Refused(what, errno, made);
        }
        sockaddr_in internet = {};  // an IPv6 address has its port at the same place
        std::memcpy(&internet, &bound, sizeof internet);
        port = ntohs(internet.sin_port);
        descriptor = made;
        return {};
    }
};
