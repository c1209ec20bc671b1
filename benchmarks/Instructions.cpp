// The library's own instructions for one message, for callgrind: the calls on sockets are answered
// here. Usage: instructions PATH COUNT, with the collection toggled on Measured.
#include <sys/select.h>

#include <map>

#include "Sockets.h"

// The library finds these first. Everything is sent; what is read is one message after the other.
extern "C" {

ssize_t send(int, const void*, std::size_t length, int) { return static_cast<ssize_t>(length); }

ssize_t recv(int, void* buffer, std::size_t length, int) {
    if (length == sizeof bench::typeNameLength) {
        std::memcpy(buffer, &bench::typeNameLength, length);
    } else if (length == bench::typeNameLength) {
        std::memcpy(buffer, bench::typeName, length);
    }
    return static_cast<ssize_t>(length);
}

int select(int, fd_set*, fd_set*, fd_set*, timeval*) { return 1; }

}  // extern "C"

namespace bench {
namespace {

int bodySize = 16;
char body[16];
constexpr int number = 5;
KLVMsgBufferedOutputStream output(1 << 16);
KLVMsgSimpleInputStream input;
Message message(body, bodySize);
KLVMsgChannel channel;

void SetUp() {
    auto* const socket = new KLVMsgCommSocket(KLVMsgSocketAddress());
    socket->descriptor = number;
    socket->closed = false;
    socket->inputOpen = true;
    socket->outputOpen = true;
    Require(Registry().AddConnection(socket) == 1, "connection");
    channel.connection = number;
    Communicator().AddConnection(channel, true);
    Communicator().RegisterMessagePrototype(typeName, &message);
    Communicator().SetDefaultInputStream(&input);
    Communicator().SetDefaultOutputStream(&output);
    output.m_connectionNumber = number;
    input.m_connectionNumber = number;
}

void Send() {
    Require(Registry().SendMessageHeader(number, message.GetMessageType()) == 1, "send");
    message.WriteMessage(&output);
}

void Receive() {
    KLVString type;
    Require(Registry().RetrieveMessageTypeFromSocket(number, type) == 1, "receive");
    KLVMsgSocketMessage* const received = Registry().GetMsgInstance(type);
    received->ReadMessage(&input);
    delete received;
}

void QueueAndTransmit() {
    unsigned int id = 0;
    Communicator().ISendSocketMessage(channel, &message, id);
    Communicator().TransmitPendingMessage();
}

void WaitAndReceive() { Communicator().WaitConnectionsAndMessages(nullptr, 20); }

}  // namespace
}  // namespace bench

extern "C" __attribute__((noinline, used)) void Measured(void (*path)(), int count) {
    for (int i = 0; i < count; ++i) {
        path();
    }
}

int main(int argc, char** argv) {
    const std::map<std::string, void (*)()> paths = {
        {"send", &bench::Send},
        {"receive", &bench::Receive},
        {"queue_and_transmit", &bench::QueueAndTransmit},
        {"wait_and_receive", &bench::WaitAndReceive}};
    bench::Require(argc == 3 && paths.count(argv[1]) == 1, "usage: instructions PATH COUNT");
    bench::SetUp();
    const auto path = paths.at(argv[1]);
    path();  // the first call resolves symbols and grows vectors
    Measured(path, std::atoi(argv[2]));
    return 0;
}
