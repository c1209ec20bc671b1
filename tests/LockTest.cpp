// Every public operation of both singletons, with memory at hand and with each allocation failing,
// those of a message's own code among them: how often it takes its lock, that it holds it across its
// system calls, and that the lock is free afterwards.

#include <functional>

#include "Faults.h"
#include "Support.h"
#include "SystemCalls.h"

namespace {

// Moves nothing and needs memory for everything.
struct NeedyMessage : KLVMsgSocketMessage {
    int WriteMessage(KLVMsgOutputStream*) override { return mem_Free(mem_OperatorNewThrow(1)), 1; }
    int ReadMessage(KLVMsgInputStream*) override { return WriteMessage(nullptr); }
    KLVMsgSocketMessage* NewInstance() override { return WriteMessage(nullptr), this; }
    KLVString GetMessageType() const override { return "Type"; }
};

// Operations that take the lock so often each.
using Operations = std::vector<std::pair<int, std::function<void()>>>;

void Check(const WatchedMutex& lock, const Operations& operations) {
    const Interposed inside([&](SystemCall& call) -> std::optional<long> {
        EXPECT_TRUE(lock.held || Exempt::depth != 0) << call.name;
        return std::nullopt;
    });
    int row = 0;
    for (const auto& [times, operation] : operations) {
        SCOPED_TRACE(++row);
        int before = lock.taken;
        FailEachAllocation(operation, [&, most = times](int, bool) {
            EXPECT_LE(lock.taken, before + most);
            EXPECT_FALSE(lock.held);
            before = lock.taken;
        });
        EXPECT_EQ(before + times, lock.taken);
        EXPECT_FALSE(lock.held);
    }
}

}  // namespace

TEST(Lock, OfTheRegistryIsTakenOnceForAnOperation) {
    ConnectedPair pair;
    NeedyMessage message;
    const KLVString name("Type");
    KLVString text;
    int code = 0;
    KLVMsgConnectionServicesUtils& registry = Registry();
    const KLVMsgSocketAddress here("", pair.listener.address.port);
    pair.peer.Send(HeaderBytes("Type") + HeaderBytes("Type"));
    Check(LockOf<KLVMsgConnectionServicesUtils>(),
          {
              {1, [&] { registry.AddConnection(pair.socket); }},
              {1, [&] { registry.GetSocket(pair.number); }},
              {1, [&] { registry.SetName(-5, name); }},
              {1, [&] { registry.GetName(-5, text); }},
              {1, [&] { registry.StartServer(KLVMsgSocketAddress(), 1); }},
              {1, [&] { registry.ConnectToServer(here, here); }},
              {1, [&] { registry.RegisterMessagePrototype(name, &message); }},
              {1, [&] { registry.GetMsgInstance(name); }},
              {1, [&] { registry.SendMessageHeader(pair.number, name); }},
              {1, [&] { registry.RetrieveMessageTypeFromSocket(pair.number, text); }},
              {1, [&] { registry.HasError(pair.number); }},
              {1, [&] { registry.ClearError(pair.number); }},
              {1, [&] { registry.GetLastErrorCode(pair.number, code); }},
              {1, [&] { registry.IsConnectionOpen(pair.number); }},
              {0, [&] { registry.RemoveConnection(-5); }},
              {1, [&] { registry.ShutDownConnection(pair.number); }},
          });
}

TEST(Lock, OfTheCommunicatorIsTakenOnceUnlessTheOperationSleeps) {
    ConnectedPair pair("label");
    NeedyMessage message;
    Messaging messaging;
    Communicator().SetDefaultOutputStream(nullptr);
    KLVMsgChannelQueryByLabel label("label");
    KLVMsgMessageQueryByType texts("Type");
    KLVBasVector<KLVMsgChannel> channels;
    KLVBasVector<KLVMsgSocketMessage*> messages;
    KLVBasVector<KLVMsgChannelMsgStruct> records;
    const KLVMsgChannelMsgStruct record{pair.channel, &message, 0};
    KLVBasVector<unsigned int> ids, pending;
    KLVString text;
    unsigned int id = 0;
    int code = 0;
    KLVMsgSocketCommunicator& communicator = Communicator();
    const auto receive = [&] {
        {
            const Exempt exempt;
            pair.peer.Send(HeaderBytes("Type"));
        }
        communicator.WaitConnectionsAndMessages(nullptr, 1000);
    };
    Check(LockOf<KLVMsgSocketCommunicator>(),
          {
              {1, [&] { communicator.SetDefaultInputStream(&messaging.input); }},
              {0, [&] { communicator.TransmitPendingMessage(); }},
              {1, [&] { communicator.SetDefaultOutputStream(&messaging.output); }},
              {0, [&] { communicator.RegisterMessagePrototype("Type", &message); }},
              {1, [&] { communicator.AddConnection(pair.channel, true); }},
              {1, [&] { communicator.RetrieveConnections(&label, channels); }},
              {1, [&] { communicator.ISendSocketMessage(pair.channel, &message, id); }},
              {1, [&] { communicator.ISendSocketMessage(&label, &message, ids); }},
              {1, [&] { communicator.ISendSocketMessage("label", &message, id); }},
              {1, [&] { communicator.QueryPendingStatus(id); }},
              {1, [&] { communicator.QueryPendingStatus(ids, pending); }},
              {1, [&] { communicator.TransmitPendingMessage(); }},
              {2, [&] { communicator.SendSocketMessage("nobody", &message); }},
              {1, receive},
              {1, [&] { communicator.AddMessage(record); }},
              {1, [&] { communicator.IRetrieveMessages(&texts, messages); }},
              {1, [&] { communicator.IRetrieveMessagesWithChannel(&texts, records); }},
              {1, [&] { communicator.GetErrorsOnChannel(pair.channel, code, text); }},
              {0, [&] { communicator.PrepareStartupMessageTask(); }},
              {0, [&] { communicator.IsOkToShutDownMessageTask(); }},
              {1, [&] { communicator.RemoveConnection(&label, true); }},
              {1, [&] { communicator.ShutdownMessageTask(); }},
          });
}
