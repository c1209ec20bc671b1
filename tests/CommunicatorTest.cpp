#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>

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

TEST_F(CommunicatorTest, IdsOfSendsToAcceptedConnectionsCountThroughTheWholeProcess) {
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

TEST_F(CommunicatorTest, QueueGoesOutInOrderWithoutWhatCannotBeWritten) {
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

TEST_F(CommunicatorTest, ErrorIsThatUnderTheNumberThatTheSocketHasNow) {
    ConnectedPair pair;
    const auto error = [&pair] {
        const WatchedMutex& lock = LockOf<KLVMsgConnectionServicesUtils>();
        const int before = lock.taken;
        int code = 42;
        KLVString text("none");
        Communicator().GetErrorsOnChannel(pair.channel, code, text);
        EXPECT_EQ(before + 1, lock.taken) << "socket and error are looked up in one step";
        return std::to_string(code) + " " + text.Text();
    };
    EXPECT_EQ("0 none", error());
    pair.socket->lastError = EPIPE;
    EXPECT_EQ(std::to_string(EPIPE) + " " + std::strerror(EPIPE), error());
    pair.socket->Shutdown();
    const Listener other;  // it has the number now
    pair.socket->Connect(other.address);
    pair.socket->lastError = EPIPE;
    ASSERT_NE(pair.number, pair.socket->descriptor);
    EXPECT_EQ("0 none", error()) << "connected anew";
    Registry().ShutDownConnection(pair.number);
    EXPECT_EQ("0 none", error()) << "without a socket";
}

TEST_F(CommunicatorTest, WhatAFailingWaitHasAcceptedIsMadeKnownByTheNextOne) {
    KLVMsgServerSocket* const other = StartLoopbackServer();
    Communicator().AddConnection(KLVMsgChannel(other, "other"), true);
    std::vector<std::unique_ptr<PlainPeer>> peers;
    const auto acceptOnBoth = [&] {
        for (const KLVMsgServerSocket* at : {server, other}) {
            const Exempt exempt;
            peers.push_back(std::make_unique<PlainPeer>(at->address.port));
        }
        Cycle();
    };
    FailEachAllocation(acceptOnBoth, [](int n, bool) {
        Cycle(nullptr, 0);
        std::set<int> known, registered;
        for (const KLVMsgChannel& channel : Known()) {
            known.insert(channel.connection);
        }
        for (int number = 0; number < 200; ++number) {
            Registry().GetSocket(number) != nullptr ? void(registered.insert(number)) : void();
        }
        EXPECT_EQ(registered, known) << n;
    });
}

TEST_F(CommunicatorTest, NumberGivenAwayRightBeforeTheLookUpIsNotServed) {
    for (const bool waits : {false, true}) {
        ConnectedPair gone;
        Communicator().AddConnection(gone.channel, true);
        Send(gone.channel, &hello);
        std::unique_ptr<ConnectedPair> now;
        LockOf<KLVMsgConnectionServicesUtils>().before = [&] {
            ::close(gone.number);  // behind its socket's back
            now = std::make_unique<ConnectedPair>(gone.listener, "now");
            now->peer.Send(Bytes("nobody watches that"));
        };
        waits ? Cycle(nullptr, 20) : Communicator().TransmitPendingMessage();
        ASSERT_EQ(gone.number, now->number);
        now->socket->ShutDownOutput();
        EXPECT_EQ("", now->peer.Receive(1));
        EXPECT_EQ(Texts{}, Take());
    }
}

TEST(IdleCommunicator, MakesNoRegistry) {
    KLVMsgBufferedOutputStream output(1);
    Communicator().SetDefaultOutputStream(&output);
    KLVMsgChannelWaitable nothing;
    const int blocks = Blocks();
    nothing.WaitForConnectionAndMessages(1000);
    EXPECT_EQ(blocks, Blocks()) << "a wait without channels";
    Communicator().WaitConnectionsAndMessages(nullptr, 1000);
    EXPECT_EQ(blocks, Blocks()) << "a cycle without connections";
    Communicator().TransmitPendingMessage();
    EXPECT_EQ(blocks, Blocks()) << "a transmission of an empty queue";
    Registry();
    EXPECT_LT(blocks, Blocks()) << "which would have shown";
}

TEST_F(CommunicatorTest, LostConnectionIsWatchedUntilAllReadsAreOver) {
    for (const bool throws : {false, true}) {
        ConnectedPair lost, other;
        std::unique_ptr<ConnectedPair> next;
        KLVMsgChannelWaitable waitable(ListOf<KLVMsgChannel>({lost.channel, other.channel}));
        lost.peer.Reset();
        other.peer.Send(Bytes("read after that"));
        TextMessage::hook = [&] {
            EXPECT_EQ(nullptr, lost.channel.GetSocket());
            EXPECT_EQ(2u, waitable.channels.Size()) << "while others are read";
            next = std::make_unique<ConnectedPair>(lost.listener, "next");
            EXPECT_EQ(lost.number, next->number);
            throws ? throw std::runtime_error("a read") : void();
        };
        bool thrown = false;
        try {
            Cycle(&waitable);
        } catch (const std::runtime_error&) {
            thrown = true;
        }
        EXPECT_EQ(throws, thrown);
        EXPECT_EQ(1u, Take().size());
        ASSERT_EQ(1u, waitable.channels.Size()) << "though somebody else has the number";
        EXPECT_TRUE(waitable.channels[0] == other.channel);
    }
}

TEST_F(CommunicatorTest, TakingOutLeavesTheOthersInTheirOrder) {
    struct : KLVMsgMessageQuery {
        void Search(const KLVBasVector<KLVMsgSocketMessage*>& messages,
                    KLVBasVector<int>& indexes) const override {
            const int size = static_cast<int>(messages.Size());
            indexes = ListOf<int>({-1, 1, 1, 4, 5, size - 1, size});  // some not there, some twice
        }
    } some;
    const auto take = [&some] {
        KLVBasVector<KLVMsgChannelMsgStruct> records;
        Communicator().IRetrieveMessagesWithChannel(&some, records);
        std::vector<int> numbers;
        for (const KLVMsgChannelMsgStruct& record : VectorOf(records)) {
            numbers.push_back(record.channel.connection);
        }
        return numbers;
    };
    const auto add = [this](int first, int last) {
        for (; first != last; ++first) {
            Communicator().AddMessage({ChannelOf(first), &hello, 0});
        }
    };
    add(0, 9);
    EXPECT_EQ((std::vector{8, 5, 4, 1}), take());
    add(10, 14);
    EXPECT_EQ((std::vector{13, 10, 7, 2}), take());
    EXPECT_EQ((std::vector{12, 3}), take());
}

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

// What a clock cannot tell exactly.
TEST_F(CommunicatorTest, OneMessageCostsNoMoreThanBefore) {
    FixedMessage message;
    Communicator().RegisterMessagePrototype("TwelveLetter", &message);
    ConnectedPair pair;
    Communicator().AddConnection(pair.channel, true);
    const auto transmit = [&] {
        Send(pair.channel, &message);
        Communicator().TransmitPendingMessage();
    };
    const auto check = [](int calls, int allocations, auto action) {
        const CallLog log;
        const int before = Allocations();
        action();
        EXPECT_GE(allocations, Allocations() - before);
        EXPECT_GE(calls, static_cast<int>(log.Calls().size()));
    };
    for (int i = 0; i < 6; ++i) {  // makes room in queue and inbox
        pair.peer.Send(HeaderBytes("TwelveLetter") + "12345678");
        i < 5 ? transmit() : check(3, 0, transmit);
        i < 5 ? Cycle()
              : check(
                    4, 3, [] { Cycle(); });  // two allocations are for the header
    }
}
