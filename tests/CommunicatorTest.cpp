#include <algorithm>
#include <cstring>
#include <random>

#include "Faults.h"
#include "Support.h"

namespace {

using Ids = std::vector<unsigned int>;

std::string Bytes(const std::string& text) { return TextBytes("Text", text); }

class CommunicatorTest : public MessagingTest {
protected:
    CommunicatorTest() {
        Communicator().AddConnection(KLVMsgChannel(server, "server"), true);
        static const unsigned int firstOfAll = ::Send(ChannelOf(-1), nullptr);
        EXPECT_EQ(1u, firstOfAll);
        lastId = ::Send(ChannelOf(-1), nullptr);
        Communicator().TransmitPendingMessage();
    }

    // A foreign client, and the channel under which the communicator knows it.
    struct Client {
        Client(const CommunicatorTest& test, const KLVString& label)
            : peer(test.server->address.port) {
            Cycle();
            channel = Known().back();
            channel.SetLabel(label);
        }
        PlainPeer peer;
        KLVMsgChannel channel;
    };

    // The ids here count from the start of the test.
    unsigned int Send(const KLVMsgChannel& channel, KLVMsgSocketMessage* message) const {
        return ::Send(channel, message) - lastId;
    }

    unsigned int Send(const char* label, KLVMsgSocketMessage* message) const {
        unsigned int id = 42;
        Communicator().ISendSocketMessage(label, message, id);
        return id == 0 ? 0 : id - lastId;
    }

    Ids Pending(Ids ids) const {
        KLVBasVector<unsigned int> pending = ListOf<unsigned int>({99});
        std::for_each(ids.begin(), ids.end(), [this](unsigned int& id) { id += lastId; });
        Communicator().QueryPendingStatus(ListOf(ids), pending);
        ids = VectorOf(pending);
        std::for_each(ids.begin(), ids.end(), [this](unsigned int& id) { id -= lastId; });
        return ids;
    }

    unsigned int lastId = 0;  // the last one before the test
    KLVMsgServerSocket* server = StartLoopbackServer();
};

}  // namespace

TEST_F(CommunicatorTest, AcceptedConnectionsAreKnownAndIdsCountThroughTheWholeProcess) {
    KLVMsgServerSocket* const other = StartLoopbackServer();
    Communicator().AddConnection(KLVMsgChannel(other, "other"), true);
    const PlainPeer a(server->address.port), b(other->address.port);
    Cycle();
    std::vector<KLVMsgChannel> known = Known();
    ASSERT_EQ(4u, known.size());
    EXPECT_FALSE(known[2] == known[3]);
    known[2].SetLabel("pair");
    known[3].SetLabel("pair");
    KLVMsgChannelQueryByLabel pair("pair");
    KLVBasVector<unsigned int> ids = ListOf<unsigned int>({77});
    EXPECT_EQ(1u, Send(ChannelOf(777), &hello));
    Communicator().ISendSocketMessage(&pair, &hello, ids);
    EXPECT_EQ((Ids{77, lastId + 2, lastId + 3}), VectorOf(ids));
    EXPECT_EQ(0u, Send("pair", &hello));     // two: 4 and 5
    EXPECT_EQ(0u, Send("nobody", &hello));   // none
    EXPECT_EQ(6u, Send("server", nullptr));  // queued as well
    EXPECT_EQ((Ids{1, 3, 5, 6}), Pending({6, 5, 7, 0, 3, 5, 1}));
    KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
    EXPECT_EQ("hello", hello.text);
    EXPECT_EQ((Ids{}), Pending({1, 2, 3}));
    EXPECT_EQ(7u, Send(ChannelOf(777), &hello));
}

TEST_F(CommunicatorTest, QueueWaitsForAStreamAndGoesOutInOrderWithoutWhatCannotBeWritten) {
    Client a(*this, "pair"), b(*this, "pair"), ended(*this, "ended");
    dynamic_cast<KLVMsgCommSocket*>(b.channel.GetSocket())->ShutDownInput();
    dynamic_cast<KLVMsgCommSocket*>(ended.channel.GetSocket())->ShutDownOutput();
    TextMessage second("Text", "2"), third("Text", "3");
    Communicator().SetDefaultOutputStream(nullptr);
    Send("pair", &hello);
    Send(b.channel, &second);
    Send(a.channel, &third);
    for (const KLVMsgChannel& nowhere : {ended.channel, ChannelOf(777), Known()[0]}) {
        Send(nowhere, &hello);
    }
    Send(b.channel, nullptr);
    Communicator().TransmitPendingMessage();
    EXPECT_EQ((Ids{1, 2, 3, 4, 5, 6, 7, 8}), Pending({8, 7, 6, 5, 4, 3, 2, 1}));
    Communicator().SetDefaultOutputStream(&output);
    const CallLog log;
    Communicator().TransmitPendingMessage();
    Communicator().TransmitPendingMessage();
    EXPECT_EQ((Ids{}), Pending({1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(12u, log.Calls().size());  // length, name and body of each
    EXPECT_EQ(Bytes("hello") + Bytes("3"), a.peer.Receive(Bytes("hello3").size() + 12));
    EXPECT_EQ(Bytes("hello") + Bytes("2"), b.peer.Receive(Bytes("hello2").size() + 12));
    const FailingCall failing("send", EIO, 1);
    Send(a.channel, &hello);
    Communicator().TransmitPendingMessage();
    EXPECT_EQ(1, failing.Count());
    EXPECT_EQ((Ids{}), Pending({9}));
}

TEST_F(CommunicatorTest, ErrorStaysUntilItIsClearedAndLeavesTheTextAloneWithoutOne) {
    Client client(*this, "client");
    KLVString text("before");
    const auto errorOn = [&](const KLVMsgChannel& channel) {
        int code = 42;
        Communicator().GetErrorsOnChannel(channel, code, text);
        return code;
    };
    EXPECT_EQ(0, errorOn(client.channel) + errorOn(ChannelOf(777)));
    EXPECT_STREQ("before", text.Text());
    client.channel.GetSocket()->lastError = EIO;
    EXPECT_EQ(EIO, errorOn(client.channel));
    EXPECT_STREQ(std::strerror(EIO), text.Text());
    EXPECT_EQ(EIO, errorOn(client.channel));
    Registry().ClearError(client.channel.connection);
    EXPECT_EQ(0, errorOn(client.channel));
}

TEST_F(CommunicatorTest, BlockingOperationsReturnWhileTheTaskRunsAndItStopsInOrder) {
    {
        const CallLog log;
        EXPECT_EQ(1, KLVMsgMessageTask().Run(0));
        EXPECT_EQ("", log.Names());
    }
    Client client(*this, "client");
    client.peer.Send(Bytes("a"));
    Send(client.channel, &hello);
    const CallLog log;
    Communicator().PrepareStartupMessageTask();
    KLVMsgMessageTask task;
    KLVBasAtiThread thread(task);
    EXPECT_FALSE(Communicator().SendSocketMessage(client.channel, &hello));
    Communicator().SendSocketMessage("nobody", &hello);
    EXPECT_EQ(Bytes("hello") + Bytes("hello"), client.peer.Receive(2 * Bytes("hello").size()));
    KLVMsgMessageQueryByType query("Text");
    KLVBasVector<KLVMsgSocketMessage*> messages = ListOf<KLVMsgSocketMessage*>({&hello});
    ASSERT_EQ(2u, Communicator().RetrieveMessages(&query, messages));
    EXPECT_EQ("a", TextOf(messages[1]));
    delete messages[1];
    Communicator().ShutdownMessageTask();
    EXPECT_EQ(1, thread.Join());
    EXPECT_EQ(0u, log.Names().find(theWait + " recv recv recv recv send send send "));
    EXPECT_EQ("0 20000 ", log.Calls()[0].rest);
    EXPECT_EQ("", client.peer.Receive(1));
    EXPECT_EQ(0u, Known().size());
    EXPECT_TRUE(Communicator().IsOkToShutDownMessageTask());
    EXPECT_EQ((Ids{3}), Pending({Send(client.channel, &hello)}));
}

// Selects messages by chance, each twice and some that are not there, and keeps which ones.
struct Lottery : KLVMsgMessageQuery {
    void Search(const KLVBasVector<KLVMsgSocketMessage*>& messages,
                KLVBasVector<int>& indexes) const override {
        const int size = static_cast<int>(messages.Size());
        for (int i = 0; i < size; ++i) {
            if (random() % 3 == 0) {
                chosen.push_back(i);
                indexes.PushBack(i);
                indexes.PushBack(i);
            }
        }
        indexes.PushBack(-1);
        indexes.PushBack(size);
    }
    mutable std::mt19937 random;
    mutable std::vector<int> chosen;
};

TEST_F(CommunicatorTest, InboxFollowsTheModelFromWhichOneElementIsTakenAtATime) {
    Lottery query;
    std::vector<int> inbox;  // the channels of the messages
    for (int step = 0; step < 3000; ++step) {
        Communicator().AddMessage({ChannelOf(step), &hello, 0});
        inbox.push_back(step);
        if (query.random() % 8 == 0) {
            KLVBasVector<KLVMsgChannelMsgStruct> records;
            query.chosen.clear();
            Communicator().IRetrieveMessagesWithChannel(&query, records);
            ASSERT_EQ(query.chosen.size(), records.Size());
            for (const KLVMsgChannelMsgStruct& record : VectorOf(records)) {
                const auto position = inbox.begin() + query.chosen.back();
                ASSERT_EQ(*position, record.channel.connection);
                inbox.erase(position);
                query.chosen.pop_back();
            }
        }
    }
}
