// The library as hub and client use it, with the messages of the exchange.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "Library.h"
#include "Messages.h"

// One for the process.
class Session {
public:
    Session();

    // Starts the message task, when the first connection has been added.
    void Start() { m_library.Start(); }

    // Queues a message for everybody with the label and returns at once. The session keeps the
    // message until it has been written.
    void Post(const char* label, std::unique_ptr<KLVMsgSocketMessage> message);

    // Destroys the posted messages that are no longer pending.
    void DropWritten();

    // The received messages of one type with the channels that they came from, the oldest first.
    template <class Message>
    auto Take() {
        return ::Take<Message>(std::get<Message>(m_prototypes).type);
    }

private:
    MessageTypes m_prototypes;  // outlive the library's use of them, as do the posted messages
    std::vector<std::pair<unsigned int, std::unique_ptr<KLVMsgSocketMessage>>> m_posted;
    Library m_library;
};
