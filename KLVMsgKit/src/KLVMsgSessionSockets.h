// For the session's own sources: sockets that are opened, with the cause of a failure in words. All
// are closed on exec and never wait by themselves. Nothing here throws but std::bad_alloc.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "KLVMsgOutcome.h"
#include "KLVMsgSocketAddress.h"
#include "KLVMsgTimeLimit.h"

// A descriptor that is closed at the end, unless it was released.
class KLVMsgDescriptor {
public:
    explicit KLVMsgDescriptor(int number = -1) : m_number(number) {}
    ~KLVMsgDescriptor();
    KLVMsgDescriptor(KLVMsgDescriptor&& other) noexcept : m_number(other.Release()) {}
    KLVMsgDescriptor& operator=(KLVMsgDescriptor&& other) noexcept;

    int Number() const { return m_number; }
    int Release();

private:
    int m_number;  // -1: none
};

struct KLVMsgSessionSockets {
    using Time = KLVMsgTimeLimit::Clock::time_point;

    // What a host and a port stand for.
    struct Address {
        sockaddr_storage bytes = {};
        socklen_t length = 0;
    };

    // "127.0.0.1, port 4711"
    static std::string Text(const KLVMsgSocketAddress& address);

    // A failed system call.
    static KLVMsgOutcome Failure(const std::string& what, int error);

    // Connects to the first address of the host that answers. The resolver takes as long as it
    // takes; each address gets an equal part of the time that is left then. Gives up when `cancel`
    // becomes readable.
    static KLVMsgOutcome Connect(const KLVMsgSocketAddress& address, Time limit, int cancel,
                                 KLVMsgDescriptor& made);

    // Waits until poll has this event to tell of a descriptor; errno otherwise: ETIMEDOUT when the
    // time is over, ECANCELED when `cancel` is readable.
    static int Await(int descriptor, short event, Time limit, int cancel);

    // What Connect does, in steps that do not wait. What an address stands for: as long as the
    // resolver takes, or at once where it `isNumeric`, and ENOENT then for a name.
    static KLVMsgOutcome Find(const KLVMsgSocketAddress& address, bool isNumeric,
                              std::vector<Address>& found);

    // Begins to connect, and tells what came of it: errno, EINPROGRESS where that takes time, 0
    // where it is done. The socket can be written to when there is more to tell.
    static int BeginConnect(const Address& address, KLVMsgDescriptor& made);
    static int EndConnect(const KLVMsgDescriptor& made);

    // Listens on every address of the host that this machine has, all on one port, and sets it. A
    // port whose last connections have only just gone can be had.
    static KLVMsgOutcome Listen(const KLVMsgSocketAddress& address,
                                std::vector<KLVMsgDescriptor>& made, int& port);

    // The next connection that waits, and the peer's address in words; none with errno set.
    static KLVMsgDescriptor Accept(int listener, std::string& address);

    // The parts of an address in words; "" and 0 of what is none.
    static std::pair<std::string, int> Parts(const std::string& text);

    // The peer's address in words; empty where the system does not tell.
    static std::string PeerText(int descriptor);
};
