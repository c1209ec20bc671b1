#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "Faults.h"
#include "Sessions.h"

namespace {

TEST(SessionReceiving, HandsOverTheOldestOfAClassOfWhoeverIsMeant) {
    Session session;
    PlainPeer one(session.port);
    const KLVMsgPeer a = session.Came("a");
    PlainPeer other(session.port);
    const KLVMsgPeer b = session.Came("b");
    auto both = std::async([&] { return session.Next<Other>(); });
    EXPECT_FALSE(session.NextEvent(20ms));
    one.Send(TextBytes("Other", "3") + WordBytes("0") + WordBytes("1") + WordBytes("2"));
    EXPECT_EQ("0", session.Next());
    EXPECT_EQ("3", both.get());
    other.Send(WordBytes("4") + TextBytes("Other", "5"));
    EXPECT_EQ("5", session.Next<Other>(b));
    EXPECT_EQ("4", session.Next("b"));
    other.Send(WordBytes("6"));
    EXPECT_TRUE(session.Holds(3));
    one.Send(WordBytes("7"));
    EXPECT_TRUE(session.Holds(4));
    session.SetLabel(b, "a");
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Receive<Word>(ever, "b").status) << "nobody now";
    for (const char* text : {"1", "2", "6"}) {
        EXPECT_EQ(text, session.Next("a"));
    }
    session.SetLabel(b, "b");
    one.Close();
    EXPECT_TRUE(session.WaitUntilGone(a, ever));
    EXPECT_EQ("7", session.Next("a")) << "under its last label";
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Receive<Word>(ever, "a").status);
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Receive<Word>(ever, a).status);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, session.Receive<Word>(1ms, "b").status);
    EXPECT_TRUE(session.StopServing(session.port));
    other.Close();
    EXPECT_EQ(KLVMsgOutcome::kPeerGone, session.Receive<Word>(ever).status) << "none can come";
}

TEST(SessionReceiving, OtherTypesComeUnderTheirNames) {
    KLVMsgSession session;
    int port = 0;
    session.Register(Word()), session.Serve(anyPort, &port);
    ASSERT_TRUE(session.RegisterOthers());
    EXPECT_FALSE(session.RegisterOthers());
    session.Start();
    PlainPeer peer(port);
    const std::string body(70000, 'b'), name(65000, 'n');
    const std::string bytes = TextBytes("A", "") + TextBytes(name, body) + WordBytes("w") +
                              TextBytes("A", "2") + TextBytes(std::string("\0x", 2), "none") +
                              std::string(4, '\0') + TextBytes("B", "3");
    peer.Send(bytes.substr(0, 70));
    peer.Send(bytes.substr(70));
    using Pair = std::pair<std::string, std::string>;
    for (const auto& [type, text] : {Pair("A", ""), {name, body}, {"Word", ""}, {"A", "2"}}) {
        const auto any = session.ReceiveAny(ever);
        EXPECT_EQ(type, any.type);
        EXPECT_TRUE(any.type == "Word" || any.As<KLVMsgAnyMessage>()->body == text);
    }
    const auto last = session.Receive<KLVMsgAnyMessage>(ever);
    EXPECT_EQ(Pair("B", "3"), Pair(last->type, last->body));
    session.Post(last.peer, *last.message);
    EXPECT_EQ(TextBytes("B", "3"), peer.Receive(TextBytes("B", "3").size()));
    peer.Send(TextBytes("Long", "").substr(0, 8) + std::string(4, '\x7f'));
    EXPECT_EQ(KLVMsgEvent::kCame, session.NextEvent(ever).kind);
    EXPECT_TRUE(Has(session.NextEvent(ever).what, "?x")) << "no text is empty";
    EXPECT_TRUE(Has(session.NextEvent(ever).what, " bytes for Long,"));
}

TEST(SessionReceiving, ReceiveAllTakesAllOfAClassThatAreThere) {
    MutePair pair;
    pair.mute.Send(WordBytes("1") + TextBytes("Other", "other") + TextBytes("Odd", "1") +
                   TextBytes("Odd", "2") + TextBytes("Text", "nobody asks for that") +
                   WordBytes("refused") + WordBytes("2"));
    EXPECT_TRUE(pair.session.Holds(5)) << "of the class that it does not know, none";
    EXPECT_EQ("Odd", pair.session.Await(KLVMsgEvent::kUnknownType).type);
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.NextEvent(1ms).status) << "told once";
    const auto words = pair.session.ReceiveAll<Word>(ever, "mute");
    ASSERT_EQ(2U, words.messages.size()) << "one was refused";
    EXPECT_EQ("12", words.messages[0]->text + words.messages[1]->text);
    EXPECT_EQ(pair.id, words.messages[1].peer);
    EXPECT_EQ(1U, pair.session.ReceiveAll<Other>(ever).messages.size());
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.ReceiveAll<Word>(1ms).status);
}

TEST(SessionReceiving, AFullInboxHoldsUpItsSender) {
    KLVMsgSessionOptions options;
    options.inboxLimit = 100000;
    for (const bool ofAll : {false, true}) {
        std::swap(options.inboxLimit, options.inboxLimitOfAll);
        Pair pair(options);
        const auto text = [](int i) { return std::to_string(i) + std::string(10000, 'x'); };
        for (int i = 0; i < 4000; ++i) {
            pair.there.Post("peer", Word(text(i)));
        }
        EXPECT_TRUE(Eventually([&] { return pair.here.Counts().bytesInInbox > 90000; }));
        const auto waiting = pair.here.Receive<Other>(ever, "peer");
        EXPECT_EQ(KLVMsgOutcome::kFull, waiting.status) << ofAll;
        EXPECT_GT(pair.here.Counts().bytesInInbox, 380000U) << "four times the limit";
        EXPECT_LT(pair.here.Counts().bytesInInbox, 1500000U) << "and what one read brought";
        for (int i = 0; i < 4000; ++i) {
            ASSERT_EQ(text(i), pair.here.Next());
        }
    }
}

// What the mute one has sent fills an inbox of 1000 bytes; the other one has sent nothing.
struct FullInbox : MutePair {
    explicit FullInbox(const KLVMsgSessionOptions& options) : MutePair(options) {
        session.Came("other");
        mute.Send(WordBytes(std::string(2000, 'x')));
        EXPECT_TRUE(session.Holds(1));
    }
    PlainPeer other{session.port};
};

TEST(SessionReceiving, WhoIsHeldForTheSakeOfAllGoesOnWhenHalfIsGone) {
    KLVMsgSessionOptions options;
    options.inboxLimitOfAll = 1000;
    FullInbox pair(options);
    pair.other.Send(WordBytes("1"));
    EXPECT_TRUE(pair.session.Holds(2)) << "of whom nothing is there is read even then";
    pair.other.Send(WordBytes("2"));
    EXPECT_EQ("1", pair.session.Next("other"));
    EXPECT_TRUE(pair.session.Holds(2)) << "nor is anything there now";
    pair.other.Send(WordBytes("3"));
    EXPECT_EQ(2000U, pair.session.Next("mute").size());
    EXPECT_TRUE(pair.session.Holds(2));
}

TEST(SessionReceiving, WaitingReadsPastAFullInboxForThoseMeant) {
    KLVMsgSessionOptions options;
    options.inboxLimit = 1000;
    FullInbox pair(options);
    pair.mute.Send(TextBytes("Other", "behind"));
    EXPECT_EQ(KLVMsgOutcome::kTooLate, pair.session.Receive<Other>(10ms, "other").status);
    EXPECT_EQ(1U, pair.session.Counts().messagesInInbox);
    EXPECT_EQ("behind", pair.session.Next<Other>("mute"));
    // Whether it waits when the label is given or not, it gets what is behind.
    for (int i = 0; i < 50; ++i) {
        pair.mute.Send(TextBytes("Other", "labelled"));
        std::promise<void> begun;
        auto waiting = std::async(std::launch::async, [&] {
            begun.set_value();
            return pair.session.Next<Other>("other");
        });
        begun.get_future().wait();
        pair.session.SetLabel(pair.id, "other");
        EXPECT_EQ("labelled", waiting.get());
        pair.session.SetLabel(pair.id, "mute");
    }
}

// Whoever sends what cannot be read goes, with the cause, and nobody else notices.
TEST(SessionReceiving, ABrokenPeerGoesAloneWithItsCause) {
    Pair pair;
    const struct {
        std::string bytes;
        KLVMsgEvent::Cause cause;
    } rows[] = {{WordBytes("refused"), KLVMsgEvent::kRefusedBody},
                {WordBytes("throws at the receiver"), KLVMsgEvent::kRefusedBody},
                {std::string(8, '\xff'), KLVMsgEvent::kUnknownLength},
                {WordBytes("cut").substr(0, 14), KLVMsgEvent::kCut}};
    for (const auto& row : rows) {
        PlainPeer bad(pair.here.port);
        const KLVMsgPeer peer = pair.here.Came();
        auto reading = std::async([&] { return pair.here.Receive<Word>(ever, peer).status; });
        bad.Send(row.bytes);
        row.cause == KLVMsgEvent::kCut ? bad.Close() : void(bad.Receive(1));
        EXPECT_EQ(KLVMsgOutcome::kPeerGone, reading.get());
        const KLVMsgEvent gone = pair.here.Await(KLVMsgEvent::kGone);
        EXPECT_EQ(row.cause, gone.cause);
        EXPECT_EQ(peer, gone.peer);
        pair.there.Post("peer", Word("good"));
        EXPECT_EQ("good", pair.here.Next("peer"));
    }
}

TEST(SessionReceiving, TheDescriptorIsReadableAsLongAsThereIsSomething) {
    MutePair pair;
    pair.mute.Send(WordBytes("1"));
    EXPECT_TRUE(pair.session.Holds(1));
    pollfd asked = {pair.session.Descriptor(), POLLIN, 0};
    const auto isReadable = [&] { return poll(&asked, 1, 0) == 1; };
    EXPECT_TRUE(isReadable());
    EXPECT_EQ("1", pair.session.Next());
    EXPECT_FALSE(isReadable());
    pair.mute.Close();
    EXPECT_TRUE(Eventually(isReadable)) << "an event";
    EXPECT_EQ(KLVMsgEvent::kGone, pair.session.NextEvent(0ms).kind);
    EXPECT_FALSE(isReadable());
    EXPECT_TRUE(pair.session.End(ever));
    EXPECT_TRUE(isReadable());
}

TEST(SessionReceiving, HandlersHaveTheirClassesAlone) {
    MutePair pair;
    Session& session = pair.session;
    EXPECT_FALSE(session.Dispatch(ever)) << "no handler";
    auto waiting = std::async([&] { return session.Receive<Word>(ever).error; });
    auto any = std::async([&] { return session.ReceiveAny(ever); });
    std::string seen;
    session.Handle<Word>([&](auto word) { (seen += word->text) != "a-b" ? void() : throw 1; });
    EXPECT_EQ(EINVAL, waiting.get());
    session.Handle<Other>([&](KLVMsgReceived<Other> other) {
        seen += other->text;
        pair.mute.Send(WordBytes("e"));
        EXPECT_TRUE(session.Holds(3)) << "b, c and e";
    });
    pair.mute.Send(WordBytes("a") + TextBytes("Text", "t"));
    KLVMsgReceivedAny text = any.get();
    EXPECT_FALSE(text.As<Word>() != nullptr || text.Take<Word>() || session.ReceiveAny(0ms));
    EXPECT_EQ("Text t", text.type + " " + text.Take<TextMessage>()->text);
    pair.mute.Send(TextBytes("Other", "-") + WordBytes("b") + WordBytes("c"));
    EXPECT_TRUE(session.Holds(4));
    EXPECT_EQ(EINVAL, session.Receive<Word>(ever).error);
    EXPECT_THROW(session.Dispatch(ever), int);
    EXPECT_EQ("a-b", seen);
    EXPECT_TRUE(session.Dispatch(0ms) && !session.Dispatch(0ms));
    EXPECT_EQ("a-bce", seen);
    auto idle = std::async([&] { return session.Dispatch(ever).error; });
    session.Receive<Quiz>(1ms);  // by now it mostly waits
    session.Handle<Other>(nullptr);
    session.Handle<Word>(nullptr);
    EXPECT_EQ(EINVAL, idle.get()) << "no handler any more";
    pair.mute.Send(WordBytes("1") + TextBytes("Text", "2") + WordBytes("3"));
    EXPECT_TRUE(session.Holds(3));
    EXPECT_EQ("1", session.ReceiveAny(ever, "mute").As<Word>()->text) << "the oldest of all";
    EXPECT_EQ("3", session.Next()) << "Receive has its class again";
}

TEST(SessionReceiving, HandlersOfSeveralThreadsMayWaitForEachOther) {
    for (int i = 0; i < 20; ++i) {
        Session session;
        std::promise<void> handled;
        session.Handle<Word>([&](auto) { handled.get_future().wait(); });
        session.Handle<Other>([&](auto) { handled.set_value(); });
        PlainPeer peer(session.port);
        const auto dispatch = [&] { EXPECT_TRUE(session.Dispatch(ever)); };
        auto one = std::async(dispatch), other = std::async(dispatch);
        session.Receive<Quiz>(1ms);  // by now both mostly wait
        peer.Send(WordBytes("1") + TextBytes("Other", "2"));
        one.wait(), other.wait();
    }
}

TEST(SessionReceiving, EventsAreHandledInOrderAmongMessages) {
    Session session;
    auto asking = std::async([&] { return session.NextEvent(ever).error; });
    std::string seen;
    const char* const kinds[] = {"none", "came ", "gone "};
    session.HandleEvents([&](const KLVMsgEvent& event) { seen += kinds[event.kind]; });
    EXPECT_EQ(EINVAL, asking.get());
    auto waiting = std::async([&] { return static_cast<bool>(session.Dispatch(ever)); });
    PlainPeer first(session.port);
    EXPECT_TRUE(waiting.get()) << "by an event alone";
    session.Handle<Word>([&](auto word) { seen += word->text + " "; });
    session.Handle<Other>([&](auto other) { seen += other->text + " "; });
    first.Send(WordBytes("a") + TextBytes("Other", "b"));
    EXPECT_TRUE(session.Holds(2));
    first.Close();
    EXPECT_TRUE(session.WaitUntilGone(KLVMsgPeers::All(), ever));
    PlainPeer second(session.port);
    second.Send(WordBytes("c"));
    EXPECT_TRUE(session.Holds(3));
    EXPECT_TRUE(session.Dispatch(0ms) && !session.Dispatch(0ms));
    EXPECT_EQ("came a b gone came c ", seen);
    EXPECT_EQ(EINVAL, session.NextEvent(0ms).error);
    session.HandleEvents(nullptr);
    second.Close();
    EXPECT_EQ(KLVMsgEvent::kGone, session.NextEvent(ever).kind) << "NextEvent has them again";
}

TEST(SessionReceiving, AHalfClosedAskerStillGetsItsAnswer) {
    Session session;
    const Listener listener;
    EXPECT_TRUE(session.Connect(At(listener.address.port), "asker", ever));
    const int asker = accept(listener.descriptor, nullptr, nullptr);
    const std::string two = WordBytes("question") + WordBytes("question");
    EXPECT_EQ(40, send(asker, two.data(), 40, 0));
    shutdown(asker, SHUT_WR);
    EXPECT_EQ(KLVMsgEvent::kClosed, session.Await(KLVMsgEvent::kGone).cause);
    EXPECT_EQ("question", session.Next());
    EXPECT_FALSE(session.Receive<Other>(0ms)) << "the second one waits";
    const auto word = session.Receive<Word>(ever);
    EXPECT_TRUE(word->whole && session.Send(word.peer, Word("answer"), ever));
    EXPECT_FALSE(session.Post("asker", Word()) || session.Send("asker", Word(), ever));
    EXPECT_FALSE(session.Receive<Word>(0ms)) << "and answers no more";
    std::string answer(100, 'x');
    EXPECT_EQ(18, recv(asker, answer.data(), 100, MSG_WAITALL)) << "and the end";
    EXPECT_EQ(WordBytes("answer"), answer.substr(0, 18));
    close(asker);
}

TEST(SessionReceiving, AHalfClosedAskerMakesRoomForOthers) {
    for (const bool isFull : {true, false}) {
        KLVMsgSessionOptions options;
        options.connectionLimit = isFull ? 1 : 10;
        Session session(options);
        const Listener listener;
        EXPECT_TRUE(session.Connect(At(listener.address.port), "asker", ever));
        const int asker = accept(listener.descriptor, nullptr, nullptr);
        EXPECT_EQ(20, send(asker, WordBytes("question").data(), 20, 0));
        shutdown(asker, SHUT_WR);
        EXPECT_EQ(KLVMsgEvent::kClosed, session.Await(KLVMsgEvent::kGone).cause);
        const FailingCall fault("accept4", EMFILE, isFull ? -1 : 1);
        const PlainPeer other(session.port);
        char byte = 0;
        EXPECT_EQ(0, recv(asker, &byte, 1, 0)) << "the end";
        close(asker);
    }
}

}  // namespace
