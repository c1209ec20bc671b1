#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "BodyRules.h"
#include "Routes.h"
#include "Text.h"
#include "Window.h"

namespace {

using namespace std::chrono_literals;

TEST(BridgeRoutes, TypesGoToTheirSubjectsAndBack) {
    Routes routes;
    routes.SetPrefix("berlin.");
    routes.AddOutward("Press=press.new");
    routes.AddOutward("A=B=all.x");
    EXPECT_EQ("", routes.Subject("Other"));
    Routes all = routes;
    all.AddOutward("*=all.*.v1");
    for (const auto& [type, subject] :
         std::map<std::string, std::string>{{"Press", "berlin.press.new"},
                                            {"A=B", "berlin.all.x"},
                                            {"Other", "berlin.all.Other.v1"},
                                            {"a.b >*\x7f", "berlin.all.a_b____.v1"}}) {
        EXPECT_EQ(subject, all.Subject(type));
        EXPECT_EQ(subject, all.Subject(type)) << "again";
    }
    EXPECT_EQ("c", Routes::TypeOf("a.b.c"));
    EXPECT_EQ("c", Routes::TypeOf("c"));
    for (const char* bad : {"*=again", "Press=x", "X", "=x", "X=", "X=a..b", "X=.a", "X=a.",
                            "X=a b", "X=a.>", "X=*.*"}) {
        EXPECT_THROW(all.AddOutward(bad), UsageError) << bad;
    }
    const struct {
        const char* wide;
        const char* narrow;
        bool covers;
    } rows[] = {{"a.b", "a.b", true},    {"a.*", "a.b", true},  {"a.*", "a.*", true},
                {"a.>", "a.*.c", true},  {">", "a", true},      {"*.b", "a.b", true},
                {"a.>", "a.>", true},    {"a.b", "a.*", false}, {"a.*", "a.>", false},
                {"a.*", "a.b.c", false}, {"a.>", "a", false},   {"a.b", "a", false},
                {"a", "a.b", false}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.covers, Routes::Covers(row.wide, row.narrow))
            << row.wide << " " << row.narrow;
    }
}

TEST(BridgeRules, TellHowLongBodiesAre) {
    BodyRules rules;
    rules.Add(
        "Tick=8; Odd=length(1,2,big,3) protobuf(a.B);Note=length(0,4,little);"
        "Old=5 ; Far=length(0,8,little,3); Old=length( 0 , 8 , little )\n# a comment; X=y\ndecode "
        "bodies.py:decode");
    EXPECT_EQ(8U, rules.Of("Tick")->Size(""));
    EXPECT_EQ(1U + 2 + 3 + 258, rules.Of("Odd")->Size(std::string("x\1\2", 3)));
    EXPECT_EQ(8U + 258, rules.Of("Old")->Size(std::string("\2\1\0\0\0\0\0\0", 8)));
    EXPECT_FALSE(rules.Of("Far")->IsBody("\xfd\xff\xff\xff\xff\xff\xff\xff")) << "beyond all sizes";
    EXPECT_EQ(nullptr, rules.Of("Note")) << "it is framed";
    for (const char* bad : {"X=many", "X", "*=8", "X=length(0,3,little)", "X=99999999999"}) {
        EXPECT_THROW(rules.Add(bad), UsageError) << bad;
    }
}

// A stream as the window sees it: it stores each id once, in the order in which it takes them.
struct Stream {
    bool Take(const std::string& id) {
        const bool isNew = std::find(stored.begin(), stored.end(), id) == stored.end();
        if (isNew) {
            stored.push_back(id);
        }
        return isNew;
    }
    std::vector<std::string> stored;
};

// What is lost on the way, refused, stored without an answer or answered late is all stored once in
// the end; in order as long as what is lost comes before what is answered.
TEST(BridgeWindow, EachIsStoredOnceWhateverHappens) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto chance = [&](unsigned percent) { return random() % 100 < percent; };
        Window::Limits limits;
        limits.messages = 1 + random() % 20;
        Window window(limits);
        Stream stream;
        std::deque<std::pair<std::uint64_t, bool>> answers;  // key, and whether it is stored
        Window::Time now{};
        std::size_t put = 0, done = 0;
        bool isAway = false;
        for (int step = 0; done < 100; ++step) {
            ASSERT_LT(step, 100000);
            now += std::chrono::milliseconds(random() % 50);
            isAway = put < 100 && (isAway ? !chance(5) : chance(2));
            while (put < 100 && window.HasRoom() && chance(50)) {
                window.Put({"s", "T", "b", std::to_string(put++), 1, put});
            }
            ASSERT_LE(window.Size(), limits.messages);
            for (Window::Sending next; (next = window.Next(now)).parcel != nullptr;) {
                if (isAway ? chance(10) : true) {
                    stream.Take(next.parcel->id);
                    if (!isAway)
                        answers.emplace_back(next.key, true);
                } else if (chance(50)) {
                    answers.emplace_back(next.key, false);
                }
            }
            for (; !answers.empty() && chance(80); answers.pop_front()) {
                const auto [key, isStored] = answers.front();
                if (isStored) {
                    for (std::size_t left = window.Stored(key), i = 0; i < left; ++i) {
                        EXPECT_EQ(std::to_string(done++), window.Done()[i].id);
                    }
                } else {
                    window.Failed(key, now);
                }
            }
            window.Tick(now);
        }
        EXPECT_TRUE(window.IsEmpty());
        EXPECT_EQ(100U, stream.stored.size());
    }
}

TEST(BridgeWindow, AfterAFailureTheOldestIsTriedAloneAndThenTheRestInOrder) {
    Window window({});
    Window::Time now{};
    for (const char* id : {"1", "2", "3", "4"}) {
        window.Put({"", "", "", id, 1, 1});
    }
    std::vector<std::uint64_t> keys;
    const auto send = [&] {
        std::string ids;
        for (Window::Sending next; (next = window.Next(now)).parcel != nullptr;) {
            ids += next.parcel->id + (next.isAgain ? "'" : "");
            keys.push_back(next.key);
        }
        return ids;
    };
    EXPECT_EQ("1234", send());
    EXPECT_EQ(1U, window.Stored(keys[0]));
    window.Failed(keys[1], now);
    window.Put({"", "", "", "5", 1, 1});
    EXPECT_EQ("", send()) << "two are still open";
    EXPECT_EQ(0U, window.Stored(keys[2]));
    EXPECT_EQ(1U, window.Overtaken());
    EXPECT_EQ(1U, window.Tick(now += 5s)) << "4 has had no answer";
    EXPECT_EQ("", send()) << "a pause";
    now += 50ms;
    EXPECT_EQ("2'", send());
    EXPECT_EQ("", send()) << "alone";
    window.Failed(keys[1], now);
    now += 50ms;
    EXPECT_EQ("", send()) << "the pause has grown";
    now += 50ms;
    EXPECT_EQ("2'", send());
    EXPECT_EQ(2U, window.Tries());
    EXPECT_TRUE(window.IsInTrouble());
    EXPECT_EQ(2U, window.Stored(keys[1])) << "and 3 with it";
    EXPECT_EQ(0U, window.Tries());
    EXPECT_FALSE(window.IsInTrouble());
    EXPECT_EQ("4'5", send());
    window.FailAll(now);
    EXPECT_EQ(1U, window.Stored(keys[3])) << "late";
    EXPECT_EQ("", send());
    now += 1s;
    EXPECT_EQ("5'", send());
}

TEST(BridgeWindow, EachFollowsTheLastThatGoesSomewhere) {
    Window window({});
    std::string order;
    for (const auto& [subject, id] : {std::pair{"s", "1"}, {"", "2"}, {"", "3"}, {"s", "4"}}) {
        window.Put({subject, "", "", id, 1, 1});
        const Window::Sending next = window.Next({});
        order += (next.before == nullptr ? "-" : next.before->id) + next.parcel->id + " ";
        if (next.parcel->subject.empty()) {
            EXPECT_EQ(0U, window.Stored(next.key)) << "it goes nowhere, and waits for 1";
        }
    }
    EXPECT_EQ("-1 12 13 14 ", order);
}

}  // namespace
