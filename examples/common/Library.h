// The library's own interface, as the examples that use it directly have it: brought up, opened to
// a peer, and taken down in order. What fails is thrown as a std::runtime_error with its cause.
#pragma once

#include <KLVMsgCommModules.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <string>

inline KLVMsgConnectionServicesUtils& Registry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

inline KLVMsgSocketCommunicator& Communicator() {
    return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
}

// One for the process. A message task has ended before it goes.
class Library {
public:
    Library() {
        KLVMsgCommModules_initialize(m_modules);
        Registry();  // both singletons are made here, before there is a second thread
        Communicator().SetDefaultInputStream(&m_input);
        Communicator().SetDefaultOutputStream(&m_output);
    }

    ~Library() {
        KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
        KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
        KLVMsgCommModules_finalize(m_modules);
    }

    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

private:
    int m_modules = 0;
    KLVMsgSimpleInputStream m_input;
    // Every write goes as one piece: one of several, on a connection that fails, would go on
    // trying.
    KLVMsgBufferedOutputStream m_output{INT_MAX};
};

[[noreturn]] inline void FailToOpen(const char* what, const KLVMsgSocketAddress& address,
                                    int error) {
    throw std::runtime_error(
        std::string("cannot ") + what + " " + address.host.Text() + ", port " +
        std::to_string(address.port) + ": " +
        (error == 0 ? "the host is unknown, or there is no socket for it" : std::strerror(error)));
}

// A watched listening socket. Port 0 lets the system choose.
inline KLVMsgChannel Serve(const KLVMsgSocketAddress& address, int backlog, const char* label) {
    KLVMsgServerSocket* const server = Registry().StartServer(address, backlog);
    if (server == nullptr) {
        FailToOpen("listen on", address, 0);
    }
    int error = 0;
    Registry().GetLastErrorCode(server->descriptor, error);
    if (error != 0) {  // it is registered all the same, and may listen on another port
        Registry().ShutDownConnection(server->descriptor);
        FailToOpen("listen on", address, error);
    }
    const KLVMsgChannel entrance(server, label);
    Communicator().AddConnection(entrance, true);
    return entrance;
}

// A watched connection to a server.
inline KLVMsgChannel Connect(const KLVMsgSocketAddress& address, const char* label) {
    errno = 0;
    KLVMsgSocket* const socket = Registry().ConnectToServer(KLVMsgSocketAddress(), address);
    if (socket == nullptr) {
        FailToOpen("connect to", address, errno);
    }
    const KLVMsgChannel server(socket, label);
    Communicator().AddConnection(server, true);
    return server;
}
