// For applications and the library's own sources: the socket that carries messages.
#pragma once

#include "KLVMsgExport.h"
#include "KLVMsgSocket.h"

// A stream socket, connected by Connect or by KLVMsgServerSocket::Accept. Reads and writes block.
//
// An error that tells that the peer or the network is gone (ENETDOWN, ENETUNREACH, ENETRESET,
// ECONNABORTED, ECONNRESET, ENOTCONN, ESHUTDOWN) shuts the socket down in both directions and
// closes it. EPIPE is not among them. No operation blocks or ignores SIGPIPE.
class KLVMSG_EXPORT KLVMsgCommSocket : public KLVMsgSocket {
public:
    // The argument is not used: the address to connect to is given to Connect.
    explicit KLVMsgCommSocket(KLVMsgSocketAddress unused);

    // Connects (getaddrinfo, socket, connect) to the first address that the host resolves to, and
    // waits until that has succeeded or failed. The socket then resets the connection when it is
    // closed (SO_LINGER with 0 seconds) and keeps idle ones alive (SO_KEEPALIVE). A socket that is
    // open in either direction is shut down first.
    //
    // Success is read from IsConnected, the cause of a failure from `lastError`; where the host
    // does not resolve that is whatever the resolver left in errno. After a failure a descriptor
    // that was made stays open and stored: call Shutdown before you connect again, or it is lost.
    void Connect(KLVMsgSocketAddress peer);

    // Sends `length` bytes with one send and returns how many the system took, which may be fewer,
    // or -1. Without an open output, or with a negative length, -1 without a system call.
    int write(const char* data, int length);

    // Receives at most `length` bytes with one recv. Returns how many there were, 0 when the peer
    // has closed the connection (the socket is shut down then), or -1. Waits only while there is
    // nothing to read. Without an open input, or with a negative length, -1 without a system call.
    int read(char* buffer, int length);

    // True while the socket is open in at least one direction.
    bool IsConnected();

    // End one direction (shutdown with SHUT_RD or SHUT_WR). Without effect when it has ended. When
    // the connection is gone already the direction counts as ended and no error is recorded; after
    // any other failure it stays open.
    void ShutDownInput();
    void ShutDownOutput();

    // Ends both directions and closes the descriptor.
    void Shutdown() override;

    bool inputOpen = false;   // the receiving direction is usable
    bool outputOpen = false;  // the sending direction is usable

private:
    friend class KLVMsgServerSocket;  // which makes connected ones

    static unsigned char Directions(const KLVMsgSocket& socket);  // the two flags
    void TakeOver(int connected);
    void SetDirections(bool open);
    void ShutDownDirection(bool& open, int how);
    [[gnu::cold]] void FailAndShutDownWhenLost(int error);
};
