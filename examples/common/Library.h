// The library as the examples use it: brought up, running, and taken down in order. What fails is
// thrown as a std::runtime_error with its cause.
#pragma once

#include <KLVMsgCommModules.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

inline KLVMsgConnectionServicesUtils& Registry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

inline KLVMsgSocketCommunicator& Communicator() {
    return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
}

// One for the process. Its destruction closes all connections, ends the message task and destroys
// the received messages that nobody has taken.
class Library {
public:
    Library() {
        KLVMsgCommModules_initialize(m_modules);
        Registry();  // both singletons are made here, before there is a second thread
        Communicator().SetDefaultInputStream(&m_input);
        Communicator().SetDefaultOutputStream(&m_output);
    }

    ~Library() {
        Communicator().ShutdownMessageTask();
        if (m_thread != nullptr) {
            m_thread->Join();
        }
        KLVBasVector<KLVMsgSocketMessage*> left;
        Everything everything;
        Communicator().IRetrieveMessages(&everything, left);
        for (std::size_t i = 0; i < left.Size(); ++i) {
            delete left[i];
        }
        KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
        KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Finalize();
        KLVMsgCommModules_finalize(m_modules);
    }

    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    // The prototype outlives this object.
    void Register(KLVMsgSocketMessage& prototype) {
        Communicator().RegisterMessagePrototype(prototype.GetMessageType().Text(), &prototype);
    }

    // Runs the message task.
    void Start() {
        Communicator().PrepareStartupMessageTask();
        try {
            m_thread = std::make_unique<KLVBasAtiThread>(m_task);
        } catch (const std::system_error& error) {
            throw std::runtime_error(std::string("cannot start a thread: ") + error.what());
        }
    }

private:
    struct Everything : KLVMsgMessageQuery {
        void Search(const KLVBasVector<KLVMsgSocketMessage*>& messages,
                    KLVBasVector<int>& indexes) const override {
            for (std::size_t i = 0; i < messages.Size(); ++i) {
                indexes.PushBack(static_cast<int>(i));
            }
        }
    };

    int m_modules = 0;
    KLVMsgSimpleInputStream m_input;
    // Every write goes as one piece: several, on a connection that fails, would go on trying.
    KLVMsgBufferedOutputStream m_output{INT_MAX};
    KLVMsgMessageTask m_task;
    std::unique_ptr<KLVBasAtiThread> m_thread;
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

// The received messages of one type with the channels that they came from, the oldest first.
template <class Message>
std::vector<std::pair<KLVMsgChannel, std::unique_ptr<Message>>> Take(const char* type) {
    KLVMsgMessageQueryByType query(type);
    KLVBasVector<KLVMsgChannelMsgStruct> records;  // the newest first
    Communicator().IRetrieveMessagesWithChannel(&query, records);
    std::vector<std::pair<KLVMsgChannel, std::unique_ptr<Message>>> taken;
    for (std::size_t i = records.Size(); i-- > 0;) {
        taken.emplace_back(records[i].channel, static_cast<Message*>(records[i].message));
    }
    return taken;
}

// Waits for a message of the prototype's type and hands over the oldest with its channel.
// Requires: there is one of them to come, since this looks at no other.
template <class Message>
std::pair<KLVMsgChannel, std::unique_ptr<Message>> Await(const Message& prototype) {
    for (;; KLVBasUtlsleep(20)) {
        auto received = Take<Message>(prototype.GetMessageType().Text());
        if (!received.empty()) {
            if (!received[0].second->whole) {
                throw std::runtime_error("the peer's message has not come to its end");
            }
            return std::move(received[0]);
        }
    }
}
