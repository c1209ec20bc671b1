// The costs of one message that a clock cannot tell exactly, against the budget file.
#include <fstream>
#include <map>

#include "Faults.h"
#include "Support.h"

namespace {

// A body of 8 bytes, written and read with one call; allocates nothing.
struct FixedMessage : KLVMsgSocketMessage {
    int WriteMessage(KLVMsgOutputStream* to) override { return to->write(body, 8, count), 1; }
    int ReadMessage(KLVMsgInputStream* from) override { return from->read(body, 8, count), 1; }
    KLVMsgSocketMessage* NewInstance() override { return this; }
    KLVString GetMessageType() const override { return type; }

    char body[8] = {};
    int count = 0;
    KLVString type{"TwelveLetter"};
};

// The limits by name.
std::map<std::string, int> Limits() {
    std::map<std::string, int> limits;
    std::ifstream file(BUDGET_FILE);
    for (std::string word; file >> word;) {
        word[0] == '#' ? file.ignore(1000, '\n') : file >> limits[word];
    }
    return limits;
}

}  // namespace

using Budget = MessagingTest;

TEST_F(Budget, OneMessageCostsNoMoreCallsAndAllocationsThanBefore) {
    FixedMessage message;
    Communicator().RegisterMessagePrototype("TwelveLetter", &message);
    ConnectedPair pair;
    Communicator().AddConnection(pair.channel, true);
    const auto transmit = [&] {
        Send(pair.channel, &message);
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
        pair.peer.Send(HeaderBytes("TwelveLetter") + "12345678");
        Cycle();
    }
    pair.peer.Send(HeaderBytes("TwelveLetter") + "12345678");
    check("queue_and_transmit", 0, transmit);
    check("wait_and_receive", 2, [] { Cycle(); });
}
