#include <gtest/gtest.h>
#include "Support.h"
#include "SystemCalls.h"
TEST(Smoke, RoundTrip) {
    KLVMsgSimpleInputStream in; KLVMsgBufferedOutputStream out(65536);
    Communicator().SetDefaultInputStream(&in); Communicator().SetDefaultOutputStream(&out);
    TextMessage proto("Hello"); Communicator().RegisterMessagePrototype("Hello", &proto);
    auto* server = StartLoopbackServer();
    Communicator().AddConnection(KLVMsgChannel(server, "server"), true);
    PlainPeer peer(server->address.port);
    Communicator().WaitConnectionsAndMessages(nullptr, 1000);
    peer.Send(TextBytes("Hello", "world"));
    CallLog log;
    Communicator().WaitConnectionsAndMessages(nullptr, 1000);
    EXPECT_EQ("select recv recv recv recv", log.Names());
    KLVBasVector<KLVMsgSocketMessage*> got; KLVMsgMessageQueryByType q("Hello");
    Communicator().IRetrieveMessages(&q, got);
    ASSERT_EQ(1u, got.Size()); EXPECT_EQ("world", TextOf(got[0]));
    delete got[0];
}
