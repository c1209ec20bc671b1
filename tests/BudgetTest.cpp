// The costs of one message that a clock cannot tell exactly, against the budget file.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "Faults.h"
#include "Support.h"
#include "SystemCalls.h"

namespace {

// A body of 8 bytes, written and read with one call; allocates nothing.
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

// The limits by name.
std::map<std::string, int> Limits() {
    std::map<std::string, int> limits;
    std::ifstream file(BUDGET_FILE);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line[0] == '#' ? "" : line);
        std::string name;
        words >> name >> limits[name];
    }
    return limits;
}

}  // namespace

TEST(Budget, OneMessageCostsNoMoreCallsAndAllocationsThanBefore) {
    FixedMessage message;
    KLVMsgSimpleInputStream input;
    KLVMsgBufferedOutputStream output(64);
    Communicator().SetDefaultInputStream(&input);
    Communicator().SetDefaultOutputStream(&output);
    Communicator().RegisterMessagePrototype("TwelveLetter", &message);
    KLVMsgServerSocket* const server = StartLoopbackServer();
    const KLVMsgChannel sender(Registry().ConnectToServer(KLVMsgSocketAddress(), server->address),
                               "");
    Communicator().AddConnection(KLVMsgChannel(server, ""), true);
    const auto wait = [] { Communicator().WaitConnectionsAndMessages(nullptr, 1000); };
    wait();
    KLVBasVector<KLVMsgChannel> known;
    Communicator().RetrieveConnections(nullptr, known);
    output.m_connectionNumber = sender.connection;
    input.m_connectionNumber = known[1].connection;

    const auto send = [&] {
        Registry().SendMessageHeader(sender.connection, message.GetMessageType());
        message.WriteMessage(&output);
    };
    const auto receive = [&] {
        KLVString type;
        Registry().RetrieveMessageTypeFromSocket(input.m_connectionNumber, type);
        Registry().GetMsgInstance(type)->ReadMessage(&input);
    };
    const auto transmit = [&] {
        unsigned int id = 0;
        Communicator().ISendSocketMessage(sender, &message, id);
        Communicator().TransmitPendingMessage();
    };
    // The scratch buffers of a received header stand outside the budget.
    const auto check = [limits = Limits()](const std::string& name, int buffers, auto action) {
        const CallLog log;
        const int before = Allocations() + buffers;
        action();
        const int allocations = Allocations() - before;
        EXPECT_LE(allocations, limits.at(name + "_allocations")) << name;
        EXPECT_LE(static_cast<int>(log.Calls().size()), limits.at(name + "_calls")) << name;
    };
    for (int i = 0; i < 5; ++i) {  // makes room in queue and inbox
        transmit();
        wait();
    }
    check("send", 0, send);
    check("receive", 2, receive);
    check("queue_and_transmit", 0, transmit);
    check("wait_and_receive", 2, wait);
}
