// The library as hub and client use it: brought up, running, and taken down in order.
#pragma once

#include <KLVMsgCommModules.h>

#include <memory>
#include <utility>
#include <vector>

#include "Messages.h"

inline KLVMsgConnectionServicesUtils& Registry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

inline KLVMsgSocketCommunicator& Communicator() {
    return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
}

// One for the process. Its destruction closes all connections and destroys the messages that are
// still with the library.
class Session {
public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Starts the message task, when the first connection has been added.
    void Start();

    // Queues a message for everybody with the label and returns at once. The session keeps the
    // message until it has been written.
    void Post(const char* label, std::unique_ptr<KLVMsgSocketMessage> message);

    // Destroys the posted messages that are no longer pending.
    void DropWritten();

    // The received messages of one type with the channels that they came from, the oldest first.
    template <class Message>
    std::vector<std::pair<KLVMsgChannel, std::unique_ptr<Message>>> Take() {
        KLVMsgMessageQueryByType query(Message::type);
        KLVBasVector<KLVMsgChannelMsgStruct> records;  // the newest first
        Communicator().IRetrieveMessagesWithChannel(&query, records);
        std::vector<std::pair<KLVMsgChannel, std::unique_ptr<Message>>> taken;
        for (std::size_t i = records.Size(); i-- > 0;) {
            taken.emplace_back(records[i].channel, static_cast<Message*>(records[i].message));
        }
        return taken;
    }

private:
    int m_modules = 0;
    std::vector<std::unique_ptr<KLVMsgSocketMessage>> m_prototypes;
    std::vector<std::pair<unsigned int, std::unique_ptr<KLVMsgSocketMessage>>> m_posted;
    KLVMsgSimpleInputStream m_input;
    KLVMsgBufferedOutputStream m_output{maximalTextBytes};  // no write is longer than one piece
    KLVMsgMessageTask m_task;
    std::unique_ptr<KLVBasAtiThread> m_thread;
};
