// Socket code without the library: what a program would write by hand.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "Bench.h"

namespace bench {

inline constexpr char typeName[] = "BenchMessage";
inline constexpr int typeNameLength = 12;
static_assert(sizeof typeName == typeNameLength + 1);

inline void SetOption(int descriptor, int level, int option, int value) {
    Require(setsockopt(descriptor, level, option, &value, sizeof value) == 0, "setsockopt");
}

inline sockaddr_in Loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A listening socket on a port of the system's choice, which is stored in `port`.
inline int ListenOnLoopback(int& port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    Require(bind(descriptor, generic, length) == 0 && listen(descriptor, 16) == 0, "listen");
    Require(getsockname(descriptor, generic, &length) == 0, "getsockname");
    port = ntohs(address.sin_port);
    return descriptor;
}

// A connected socket with the options that the library sets on the ones that it connects.
inline int ConnectToLoopback(int port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Loopback(port);
    Require(connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
            "connect");
    const linger resetOnClose = {1, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &resetOnClose, sizeof resetOnClose);
    SetOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
    return descriptor;
}

// One message as the library sends it: three sends.
inline void SendBare(int descriptor, const char* body, int size) {
    const int length = typeNameLength;
    const auto bytes = static_cast<std::size_t>(size);
    Require(send(descriptor, &length, sizeof length, 0) == sizeof length &&
                send(descriptor, typeName, typeNameLength, 0) == typeNameLength &&
                send(descriptor, body, bytes, 0) == static_cast<ssize_t>(bytes),
            "bare send");
}

// One message as the library reads it: a recv for the length, one for the name, and as many for the
// body as it takes.
inline void ReceiveBare(int descriptor, char* body, int size) {
    int length = 0;
    char name[typeNameLength];
    Require(recv(descriptor, &length, sizeof length, 0) == sizeof length &&
                length == typeNameLength &&
                recv(descriptor, name, sizeof name, 0) == typeNameLength &&
                std::memcmp(name, typeName, sizeof name) == 0,
            "bare header");
    for (int got = 0; got < size;) {
        const auto wanted = static_cast<std::size_t>(size - got);
        const ssize_t more = recv(descriptor, body + got, wanted, 0);
        Require(more > 0, "bare body");
        got += static_cast<int>(more);
    }
}

// The message that the library carries: a body of a fixed size, written from and read into memory
// that is not the message's, so that what is measured is the way there and not the copying.
class Message : public KLVMsgSocketMessage {
public:
    Message(char* bodyMemory, const int& bodySize) : body(bodyMemory), size(bodySize) {}

    int WriteMessage(KLVMsgOutputStream* stream) override {
        int count = 0;
        stream->write(body, size, count);
        return count;
    }

    int ReadMessage(KLVMsgInputStream* stream) override {
        int got = 0;
        for (int more = 1; more > 0 && got < size; got += more) {
            stream->read(body + got, size - got, more);
        }
        Require(got == size, "library body");
        return got;
    }

    KLVMsgSocketMessage* NewInstance() override { return new Message(body, size); }
    KLVString GetMessageType() const override {
        static const KLVString type(typeName);
        return type;
    }

    char* body;
    const int& size;  // in force at the moment for all messages of the process
};

}  // namespace bench
