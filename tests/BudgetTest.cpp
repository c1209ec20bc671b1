// The costs of one message that a clock cannot tell exactly, against the budget file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <new>
#include <sstream>

#include "Support.h"
#include "SystemCalls.h"

// Every allocation of the libraries comes through here; the tests' own stand outside the count.
static long allocations = 0;

void* mem_Malloc(std::size_t size) {
    ++allocations;
    return std::malloc(size);
}
void* mem_OperatorNewThrow(std::size_t size) { return mem_Malloc(size); }
void* mem_OperatorNewThrowBuiltin(std::size_t size) { return mem_Malloc(size); }
void mem_Free(void* block) { std::free(block); }
void* operator new(std::size_t size) { return mem_Malloc(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return mem_Malloc(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace {

// A body of 8 bytes, written and read with one call; allocates nothing, nor does the log of its call.
class FixedMessage : public KLVMsgSocketMessage {
public:
    int WriteMessage(KLVMsgOutputStream* stream) override {
        int count = 0;
        stream->write(m_body, sizeof m_body, count);
        return count;
    }
    int ReadMessage(KLVMsgInputStream* stream) override {
        int count = 0;
        stream->read(m_body, sizeof m_body, count);
        return count;
    }
    KLVMsgSocketMessage* NewInstance() override { return this; }
    KLVString GetMessageType() const override { return m_type; }

private:
    char m_body[8] = {};
    KLVString m_type{"TwelveLetter"};
};

class Budget : public testing::Test {
protected:
    Budget() {
        std::ifstream file(BUDGET_FILE);
        for (std::string line; std::getline(file, line);) {
            std::istringstream words(line[0] == '#' ? "" : line);
            std::string name;
            words >> name >> m_limits[name];
        }
        Communicator().SetDefaultInputStream(&m_input);
        Communicator().SetDefaultOutputStream(&m_output);
        Communicator().RegisterMessagePrototype("TwelveLetter", &m_message);
        KLVMsgServerSocket* const server = StartLoopbackServer();
        m_sender =
            KLVMsgChannel(Registry().ConnectToServer(KLVMsgSocketAddress(), server->address), "");
        KLVMsgSocket* const accepted = server->Accept();
        Registry().AddConnection(accepted);
        m_receiver = KLVMsgChannel(accepted, "");
        Communicator().AddConnection(m_receiver, true);
        m_output.m_connectionNumber = m_sender.connection;
        m_input.m_connectionNumber = m_receiver.connection;
    }

    void Send() {
        Registry().SendMessageHeader(m_sender.connection, m_message.GetMessageType());
        m_message.WriteMessage(&m_output);
    }

    void Receive() {
        KLVString type;
        Registry().RetrieveMessageTypeFromSocket(m_receiver.connection, type);
        Registry().GetMsgInstance(type)->ReadMessage(&m_input);
    }

    void QueueAndTransmit() {
        unsigned int id = 0;
        Communicator().ISendSocketMessage(m_sender, &m_message, id);
        Communicator().TransmitPendingMessage();
    }

    void WaitAndReceive() { Communicator().WaitConnectionsAndMessages(nullptr, 1000); }

    // Counts what an action costs, the scratch buffers of a received header apart.
    template <class Action>
    void Check(const std::string& name, long scratchBuffers, Action action) {
        std::size_t calls = 0;
        long allocated = 0;
        {
            const CallLog log;
            action();
            calls = log.Calls().size();
        }
        Prepare(name);
        allocated = -allocations;
        action();
        allocated += allocations - scratchBuffers;
        EXPECT_LE(static_cast<long>(calls), m_limits.at(name + "_calls")) << name;
        EXPECT_LE(allocated, m_limits.at(name + "_allocations")) << name;
    }

    // Receiving needs something that was sent.
    void Prepare(const std::string& name) {
        if (name == "receive" || name == "wait_and_receive") {
            Send();
        }
    }

    std::map<std::string, long> m_limits;
    KLVMsgSimpleInputStream m_input;
    KLVMsgBufferedOutputStream m_output{64};
    FixedMessage m_message;
    KLVMsgChannel m_sender;
    KLVMsgChannel m_receiver;
};

TEST_F(Budget, OneMessageCostsNoMoreCallsAndAllocationsThanBefore) {
    for (int i = 0; i < 5; ++i) {  // makes room in queue and inbox
        QueueAndTransmit();
        WaitAndReceive();
    }
    Check("send", 0, [this] { Send(); });
    Receive();
    Check("receive", 2, [this] { Receive(); });
    Check("queue_and_transmit", 0, [this] { QueueAndTransmit(); });
    WaitAndReceive();
    Check("wait_and_receive", 2, [this] { WaitAndReceive(); });
}

}  // namespace
