#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "Sessions.h"

namespace {

// A question on the wire, an answer there, and what is answered in the end, or why nothing is.
std::string QuizBytes(std::uint64_t number, const std::string& text, const char* type = "Quiz") {
    return TextBytes(type, std::string(reinterpret_cast<const char*>(&number), 8) + text);
}
std::string AnswerBytes(std::uint64_t number, const std::string& text, const char* type = "Quiz") {
    return QuizBytes(number | KLVMsgCallMessage::kAnswer, text, type);
}
std::string Asked(Session& session, const KLVMsgPeers& to, const std::string& text) {
    const auto answer = session.Ask<Quiz>(to, Quiz(text), ever);
    return answer ? answer->text : answer.KLVMsgOutcome::text;
}

// With the same numbers and class, and one asks the other in its handler.
TEST(SessionQuestions, ManyEachWayAtATimeGetTheirOwnAnswers) {
    Pair pair;
    std::vector<std::future<void>> serving, asking;
    for (Session* const own : {&pair.here, &pair.there}) {
        own->Handle<Quiz>([own, isHere = own == &pair.here](const KLVMsgReceived<Quiz>& quiz) {
            own->Answer(quiz, Quiz(isHere ? quiz->text + "!" : Asked(*own, "peer", quiz->text)));
        });
        serving.push_back(std::async([own] {
            for (KLVMsgOutcome done; done; done = own->Dispatch(ever)) {
            }
        }));
        for (const char letter : {'a', 'b', 'c', 'd'}) {
            asking.push_back(std::async([own, letter] {
                for (std::string text; text.size() < 300; text += letter) {
                    ASSERT_EQ(text + "!", Asked(*own, "peer", text));
                }
            }));
        }
    }
    asking.clear();
    EXPECT_EQ(1200U, pair.here.Questions().answered - pair.there.Questions().dropped);
    pair.here.End(0ms), pair.there.End(0ms);
}

TEST(SessionQuestions, OnlyTheAskedPeerAnswersInTimeAndWithTheWantedClass) {
    KLVMsgSessionOptions options;
    options.inboxLimit = 1000;
    MutePair pair(options);
    PlainPeer other(pair.session.port);
    pair.session.Came("other");
    const auto dropped = [&](unsigned n) {
        return Eventually([&] { return pair.session.Questions().dropped == n; });
    };
    auto asking = std::async([&] { return Asked(pair.session, "mute", "?"); });
    EXPECT_EQ(QuizBytes(1, "?"), pair.mute.Receive(21));
    other.Send(AnswerBytes(1, "from another"));
    EXPECT_TRUE(dropped(1));
    pair.mute.Send(WordBytes(std::string(2000, 'x')) + AnswerBytes(2, "never asked") +
                   AnswerBytes(1, "of another class", "Reply"));
    EXPECT_TRUE(dropped(3) && pair.session.Holds(1)) << "and the inbox is full";
    pair.mute.Send(AnswerBytes(1, std::string(9000, 'y')) + AnswerBytes(1, "twice"));
    EXPECT_EQ(std::string(9000, 'y'), asking.get());
    EXPECT_FALSE(pair.session.Receive<Word>(ever) && pair.session.Ask<Quiz>("mute", Quiz(), 1ms));
    pair.mute.Send(AnswerBytes(2, "too late") + QuizBytes(2, "its own"));
    EXPECT_TRUE(pair.session.Next<Quiz>() == "its own" && dropped(5));
    asking = std::async([&] { return Asked(pair.session, "mute", ""); });
    pair.mute.Send(WordBytes(pair.mute.Receive(40) + std::string(9000, 'x')));
    EXPECT_EQ("what nobody asks for has filled", asking.get().substr(0, 31));
}

TEST(SessionQuestions, GoToOneInTurnAndFailWithTheCauseWhenItGoes) {
    const std::pair<std::function<void(MutePair&)>, std::string> rows[] = {
        {[](MutePair& pair) { pair.mute.Close(); }, "the peer has closed"},
        {[](MutePair& pair) { pair.session.Disconnect(pair.id); }, "shut down here"},
        {[](MutePair& pair) { pair.mute.Send(AnswerBytes(1, "refused")); }, "Decode has refused"}};
    for (const auto& [go, cause] : rows) {
        MutePair pair;
        PlainPeer other(pair.session.port);
        pair.session.Came("mute");
        auto asking = std::async([&] { return Asked(pair.session, "mute", ""); });
        EXPECT_EQ(QuizBytes(1, ""), pair.mute.Receive(20));
        auto next = std::async([&] { return Asked(pair.session, "mute", ""); });
        EXPECT_EQ(QuizBytes(2, ""), other.Receive(20)) << "not the first one, which has gone";
        go(pair);
        pair.session.Keep(At(1), "kept");
        EXPECT_EQ("the connection of the label kept is away", Asked(pair.session, "kept", ""));
        EXPECT_EQ(cause, asking.get().substr(0, cause.size()));
        other.Send(AnswerBytes(2, "yes"));
        EXPECT_EQ("yes", next.get());
    }
}

}  // namespace
