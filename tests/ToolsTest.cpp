// The example programs as processes of their own: with each other, and with peers that misbehave.
#include "Program.h"
#include "Support.h"

namespace {

struct Example : Program {
    Example(const std::string& name, const std::string& arguments)
        : Program(EXAMPLE_DIR "/" + name + "/" + name, arguments) {}

    // The one that a klvmsgcat listens on, from its first line.
    int Port() const {
        EXPECT_TRUE(Eventually([this] { return Said("\n"); }));
        const std::string line = "klvmsgcat: listening on 127.0.0.1:";
        EXPECT_EQ(0u, Output().find(line));
        return std::stoi(Output().substr(line.size()));
    }
};

int RunKlvmsgcat(const std::string& arguments) { return Example("klvmsgcat", arguments).End(); }

std::string To(int port) { return "-t 60 --connect 127.0.0.1:" + std::to_string(port) + " "; }

using Klvmsgcat = ProgramTest;

}  // namespace

TEST_F(Klvmsgcat, PrintsWhatAnotherOneSends) {
    const std::string note = File("note", std::string("a\0\n", 3)), tick = File("tick", "xyz");
    const std::string large = File("large", std::string(8000000, 'w')), kept = File("kept", "");
    Example listener("klvmsgcat", "-t 60 -l 0 -r Note -r Tick --fixed Tick=3 --hex >" + kept);
    EXPECT_EQ(0, RunKlvmsgcat(To(listener.Port()) + "-f Tick=3 -s Note=" + note +
                              " -s Tick=" + tick + " -s Note=/dev/null -s Note=" + large));
    EXPECT_EQ(0, listener.End());
    EXPECT_TRUE(Program::Content(kept) == "Note 3 61000a\nTick 3 78797a\nNote 0 \nNote 8000000 " +
                                              std::string(16000000, '7') + "\n");
}

TEST_F(Klvmsgcat, AnswersTheOneThatConnects) {
    const std::string bytes("\0a\n\xff", 4), kept = File("kept", "");
    const std::string note = File("note", bytes), lines = File("lines", "one\n\n\\three");
    Example listener("klvmsgcat", "-t 60 --listen 0 -r Line -s Note=" + note);
    EXPECT_EQ(0, RunKlvmsgcat(To(listener.Port()) + "-r Note -n 1 --raw --lines Line <" + lines +
                              " >" + kept));
    EXPECT_EQ(0, listener.End());
    EXPECT_TRUE(listener.Said("\nLine 3 one\nLine 0 \nLine 6 \\x5cthree\n"));
    EXPECT_EQ(bytes, Program::Content(kept));
}

TEST_F(Klvmsgcat, SaysByItsExitCodeWhatIsWrong) {
    PlainServer taken;
    const int refused = PlainServer().Port();  // closed again at once
    EXPECT_EQ(1, RunKlvmsgcat(To(refused) + "-r Note"));
    EXPECT_EQ(1, RunKlvmsgcat("-r Note -l " + std::to_string(taken.Port())));
    EXPECT_EQ(2, RunKlvmsgcat(To(taken.Port())));
    EXPECT_EQ(3, RunKlvmsgcat(To(taken.Port()) + "-s Note=/no/such/file"));
    EXPECT_EQ(3, RunKlvmsgcat(To(taken.Port()) + "-s Note=/"));
    EXPECT_EQ(3, RunKlvmsgcat(To(taken.Port()) + "-f Tick=4 -s Tick=" + File("three", "xyz")));
    EXPECT_EQ(6, RunKlvmsgcat("-l 0 -r Note -t 1"));
}

TEST_F(Klvmsgcat, SurvivesPeersThatMisbehave) {
    const std::string whole = TextBytes("Note", "text"), cut = whole.substr(0, 10), noName(8, '\0');
    const std::string odd = HeaderBytes("Odd"), huge = HeaderBytes("Note") + "\xff\xff\xff\xff";
    for (const auto& [bytes, code] :
         {std::pair(cut, 4), {whole, 4}, {noName, 5}, {odd, 5}, {huge, 5}}) {
        Example listener("klvmsgcat", "-t 60 --listen 0 -r Note --count 2");
        PlainPeer peer(listener.Port());
        peer.Send(bytes);
        peer.Close();
        EXPECT_EQ(code, listener.End()) << bytes << listener.Output();
    }
}

TEST_F(ProgramTest, PubsubAndWorkersComeToTheirEnd) {
    EXPECT_EQ(0, Example("pubsub", "").End());
    EXPECT_EQ(0, Example("workers", "").End());
}
