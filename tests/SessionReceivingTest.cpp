#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <thread>
#include <tuple>

#include "Sessions.h"

namespace {

bool IsReadable(int descriptor) {
    pollfd asked = {descriptor, POLLIN, 0};
    return poll(&asked, 1, 0) == 1;
}

TEST(SessionReceiving, HandsOverTheOldestOfAClassOfWhoeverIsMeant) {
    Session session;
    PlainPeer one(session.port);
    const KLVMsgPeer a = session.Came("a");
    PlainPeer other(session.port);
    const KLVMsgPeer b = session.Came("b");
    one.Send(WordBytes("1") + WordBytes("2") + TextBytes("Other", "3"));
    EXPECT_EQ("3", session.Next<Other>());
    other.Send(WordBytes("4") + TextBytes("Other", "5"));
    EXPECT_EQ("5", session.Next<Other>(b));
    EXPECT_EQ("4", session.Next("b"));
    EXPECT_EQ("1", session.Next(KLVMsgPeers::All()));
    one.Close();
    EXPECT_TRUE(session.WaitUntilGone(a, ever));
    EXPECT_EQ("2", session.Next("a")) << "under its last label";
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Receive<Word>(ever, "a").status);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Receive<Word>(ever, a).status);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.Receive<Word>(1ms, "b").status);
    struct Unregistered : Word {};
    EXPECT_EQ(EINVAL, session.Receive<Unregistered>(ever).error);
    EXPECT_TRUE(session.StopServing(session.port));
    other.Close();
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Receive<Word>(ever).status) << "none can come";
}

TEST(SessionReceiving, ReceiveAllTakesAllOfAClassThatAreThere) {
    MutePair pair;
    pair.mute.Send(WordBytes("1") + TextBytes("Other", "other") + WordBytes("2") +
                   WordBytes("refused") + WordBytes("3") + TextBytes("Other", "last"));
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts().messagesInInbox == 6; }));
    const auto words = pair.session.ReceiveAll<Word>(ever, "mute");
    ASSERT_EQ(3U, words.messages.size()) << "one was refused";
    EXPECT_EQ("123", words.messages[0]->text + words.messages[1]->text + words.messages[2]->text);
    EXPECT_EQ(pair.id, words.messages[2].peer);
    EXPECT_EQ(KLVMsgEvent::kRefusedBody, pair.session.Await(KLVMsgEvent::kGone).cause);
    EXPECT_EQ(2U, pair.session.ReceiveAll<Other>(ever).messages.size());
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.ReceiveAll<Word>(1ms).status);
}

// Each is woken for its own, whoever else waits.
TEST(SessionReceiving, EachOfManyThreadsGetsWhatItWaitsFor) {
    Pair pair;
    std::vector<std::future<std::string>> threads;
    for (int i = 0; i < 8; ++i) {
        threads.push_back(std::async(std::launch::async, [&] { return pair.there.Next(); }));
        threads.push_back(
            std::async(std::launch::async, [&] { return pair.there.Next<Other>("peer"); }));
    }
    for (int i = 0; i < 8; ++i) {
        pair.here.Post("peer", Other("other"));
        pair.here.Post("peer", Word("word"));
    }
    for (std::size_t i = 0; i < threads.size(); ++i) {
        EXPECT_EQ(i % 2 == 0 ? "word" : "other", threads[i].get());
    }
}

TEST(SessionReceiving, AFullInboxStopsItsSenderAndLosesNothing) {
    KLVMsgSessionOptions options;
    options.inboxLimit = 100000;
    for (const bool ofAll : {false, true}) {
        std::swap(options.inboxLimit, options.inboxLimitOfAll);
        Pair pair(options);
        for (int i = 0; i < 4000; ++i) {
            pair.there.Post("peer", Word(std::to_string(i) + std::string(10000, 'x')));
        }
        EXPECT_TRUE(Eventually([&] { return pair.here.Counts().bytesInInbox > 90000; }));
        const auto waiting = pair.here.Receive<Bare>(ever, "peer");
        EXPECT_EQ(KLVMsgOutcome::kFull, waiting.status) << ofAll;
        EXPECT_GT(pair.here.Counts().bytesInInbox, 380000U) << "four times the limit";
        EXPECT_LT(pair.here.Counts().bytesInInbox, 1500000U) << "and what one read brought";
        for (int i = 0; i < 4000; ++i) {
            ASSERT_EQ(std::to_string(i) + std::string(10000, 'x'), pair.here.Next());
        }
        EXPECT_TRUE(pair.there.Counts().bytesQueued == 0);
    }
}

TEST(SessionReceiving, WaitingReadsPastAFullInboxAndNotForSomebodyElse) {
    KLVMsgSessionOptions options;
    options.inboxLimit = 1 << 20;
    MutePair pair(options);
    PlainPeer another(pair.session.port);
    const KLVMsgPeer quiet = pair.session.Came("quiet");
    std::thread sender([&] {
        for (int i = 0; i < 30; ++i) {
            pair.mute.Send(WordBytes(std::string(100000, 'x')));
        }
        pair.mute.Send(TextBytes("Other", "behind"));
    });
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts().bytesInInbox >= 1 << 20; }));
    auto elsewhere = std::async([&] { return pair.session.Next<Other>(quiet); });
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.Receive<Other>(10ms, quiet).status);
    EXPECT_LT(pair.session.Counts().bytesInInbox, 2000000U);
    EXPECT_EQ("behind", pair.session.Next<Other>("mute"));
    another.Send(TextBytes("Other", "another"));
    EXPECT_EQ("another", elsewhere.get());
    sender.join();
}

TEST(SessionReceiving, ALabelThatIsGivenBringsWhatIsBehindAFullInbox) {
    KLVMsgSessionOptions options;
    options.inboxLimit = 1000;
    MutePair pair(options);
    PlainPeer another(pair.session.port);
    pair.session.Came("wanted");
    pair.mute.Send(WordBytes(std::string(2000, 'x')));
    EXPECT_TRUE(Eventually([&] { return pair.session.Counts().messagesInInbox == 1; }));
    pair.mute.Send(TextBytes("Other", "behind"));
    auto waiting = std::async([&] { return pair.session.Next<Other>("wanted"); });
    std::this_thread::sleep_for(20ms);  // whether it waits by then or not, it is to get it
    pair.session.SetLabel(pair.id, "wanted");
    EXPECT_EQ("behind", waiting.get());
}

// Whoever sends what cannot be read goes, with the cause, and nobody else notices.
TEST(SessionReceiving, ABrokenPeerGoesWithItsCauseAndAGoodOneStays) {
    Pair pair;
    const std::string absurd(8, '\xff');
    for (const auto& [bytes, cause, text] :
         std::vector<std::tuple<std::string, KLVMsgEvent::Cause, std::string>>{
             {WordBytes("refused"), KLVMsgEvent::kRefusedBody, "refused"},
             {WordBytes("throws at the receiver"), KLVMsgEvent::kRefusedBody, "failed"},
             {HeaderBytes("Word") + absurd, KLVMsgEvent::kRefusedBody, "4294967295"},
             {HeaderBytes("Bare") + "\xff", KLVMsgEvent::kRefusedBody, "Bare"},
             {absurd, KLVMsgEvent::kUnknownLength, "4294967295"},
             {WordBytes("cut").substr(0, 14), KLVMsgEvent::kCut, "middle"},
             {"", KLVMsgEvent::kClosed, "closed"}}) {
        PlainPeer bad(pair.here.port);
        const KLVMsgPeer peer = pair.here.Came();
        auto reading = std::async([&] { return pair.here.Receive<Word>(ever, peer).status; });
        bad.Send(bytes);
        if (cause == KLVMsgEvent::kCut || cause == KLVMsgEvent::kClosed) {
            bad.Close();
        } else {
            EXPECT_EQ("", bad.Receive(1)) << "it is closed";
        }
        EXPECT_EQ(KLVMsgOutcome::kPeerGone, reading.get());
        const KLVMsgEvent gone = pair.here.Await(KLVMsgEvent::kGone);
        EXPECT_EQ(cause, gone.cause);
        EXPECT_EQ(peer, gone.peer);
        EXPECT_NE(std::string::npos, gone.what.find(text)) << gone.what;
        pair.there.Post("peer", Word("good"));
        EXPECT_EQ("good", pair.here.Next("peer"));
    }
}

TEST(SessionReceiving, AnUnknownTypeIsPassedOverAndToldOnce) {
    MutePair pair;
    pair.mute.Send(TextBytes("Odd", "1") + TextBytes("Odd", "2") + WordBytes("known"));
    EXPECT_EQ("known", pair.session.Next());
    const KLVMsgEvent event = pair.session.NextEvent(ever);
    EXPECT_EQ(KLVMsgEvent::kUnknownType, event.kind);
    EXPECT_EQ("Odd", event.type);
    EXPECT_EQ(pair.id, event.peer);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.NextEvent(1ms).status);
}

TEST(SessionReceiving, BytesThatComeOneByOneMakeTheSameMessages) {
    MutePair pair;
    std::uint64_t come = 0;
    for (const char byte : WordBytes("slow") + HeaderBytes("Bare") + "\x04" + "bare") {
        pair.mute.Send(std::string(1, byte));
        ++come;
        EXPECT_TRUE(Eventually([&] { return pair.session.Counts().bytesReceived == come; }));
    }
    EXPECT_EQ("slow", pair.session.Next());
    EXPECT_EQ("bare", pair.session.Next<Bare>());
}

TEST(SessionReceiving, TheDescriptorIsReadableAsLongAsThereIsSomething) {
    MutePair pair;
    const int descriptor = pair.session.Descriptor();
    EXPECT_EQ(descriptor, pair.session.Descriptor());
    EXPECT_FALSE(IsReadable(descriptor));
    pair.mute.Send(WordBytes("1") + WordBytes("2"));
    EXPECT_TRUE(Eventually([&] { return IsReadable(descriptor); }));
    EXPECT_EQ("1", pair.session.Next());
    EXPECT_EQ("2", pair.session.Next());
    EXPECT_FALSE(IsReadable(descriptor));
    pair.mute.Close();
    EXPECT_TRUE(Eventually([&] { return IsReadable(descriptor); })) << "an event";
    EXPECT_EQ(KLVMsgEvent::kGone, pair.session.NextEvent(0ms).kind);
    EXPECT_FALSE(IsReadable(descriptor));
    EXPECT_TRUE(pair.session.End(ever));
    EXPECT_TRUE(IsReadable(descriptor));
}

TEST(SessionReceiving, AHalfClosedAskerGetsItsAnswerAndThenTheEnd) {
    Session session;
    const Listener listener;
    EXPECT_TRUE(session.Connect(At(listener.address.port), "asker", ever));
    const int asker = accept(listener.descriptor, nullptr, nullptr);
    const std::string question = WordBytes("question");
    EXPECT_EQ(ssize_t(question.size()), send(asker, question.data(), question.size(), 0));
    shutdown(asker, SHUT_WR);
    EXPECT_EQ(KLVMsgEvent::kClosed, session.Await(KLVMsgEvent::kGone).cause);
    EXPECT_TRUE(session.Peers("asker").empty()) << "nothing more will come";
    const auto word = session.Receive<Word>(ever);
    EXPECT_TRUE(session.Send(word.peer, Word("answer"), ever));
    std::string answer(100, 'x');
    EXPECT_EQ(18, recv(asker, answer.data(), 18, MSG_WAITALL));
    EXPECT_EQ(WordBytes("answer"), answer.substr(0, 18));
    EXPECT_FALSE(session.Receive<Word>(0ms)) << "and answers no more";
    EXPECT_EQ(0, recv(asker, answer.data(), 1, 0)) << "the end";
    close(asker);
}

// On the wire a session is as any other user of the library.
TEST(SessionReceiving, TalksWithABareCommunicatorBesideIt) {
    const Messaging bare;
    TextMessage prototype("Word"), message("Word", "from the bare one");
    Communicator().RegisterMessagePrototype("Word", &prototype);
    KLVMsgServerSocket* const server = StartLoopbackServer();
    Communicator().AddConnection(KLVMsgChannel(server, "server"), true);
    Session session;
    const KLVMsgSocketAddress address = server->address;
    EXPECT_TRUE(session.Connect(address, "bare", ever));
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(session.Post("bare", Word(std::to_string(i))));
    }
    std::vector<std::string> all;
    EXPECT_TRUE(Eventually([&] {
        Communicator().WaitConnectionsAndMessages(nullptr, 100);
        for (const std::string& text : Take("Word")) {
            all.push_back(text);
        }
        return all.size() == 100;
    }));
    unsigned int id = Send(Known().back(), &message);
    Communicator().TransmitPendingMessage();
    EXPECT_FALSE(Communicator().QueryPendingStatus(id));
    EXPECT_EQ("from the bare one", session.Next());
    Registry().ShutDownConnection(Known().back().connection);
}

}  // namespace
