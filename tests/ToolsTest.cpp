// The example programs as processes of their own: with each other, and with peers that misbehave.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Support.h"

namespace {

// A program that runs; its standard output and error are read together.
struct Program {
    Program(const std::string& name, const std::string& arguments, const std::string& limits = "") {
        const std::string path = EXAMPLE_DIR "/" + name + "/" + name;
        EXPECT_EQ(0, access(path.c_str(), X_OK)) << path << " has not been built";
        output = popen(("exec 2>&1; " + limits + path + " " + arguments).c_str(), "r");
    }

    int Port() {  // the one that it listens on, at the end of its first line
        char line[200] = "";
        EXPECT_NE(nullptr, std::fgets(line, sizeof line, output));
        return std::atoi(line + std::string(line).find_last_of(": ") + 1);
    }

    int End() {  // waits for it and returns the exit code; called once
        for (int byte = 0; (byte = std::fgetc(output)) != EOF;) {
            rest += static_cast<char>(byte);
        }
        const int status = pclose(output);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::FILE* output;
    std::string rest;  // what had not been read before the end
};

int RunKlvmsgcat(const std::string& arguments) { return Program("klvmsgcat", arguments).End(); }

std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string To(int port) { return "-t 60 --connect 127.0.0.1:" + std::to_string(port) + " "; }

struct Klvmsgcat : testing::Test {
    ~Klvmsgcat() override { std::filesystem::remove_all(folder); }
    std::string File(const std::string& name, const std::string& content) {
        std::ofstream(folder + "/" + name, std::ios::binary) << content;
        return folder + "/" + name;
    }

    const std::string folder = mkdtemp((testing::TempDir() + "toolsXXXXXX").data());
};

}  // namespace

TEST_F(Klvmsgcat, PrintsWhatAnotherOneSends) {
    const std::string note = File("note", std::string("a\0\n", 3)), tick = File("tick", "xyz");
    const std::string large = File("large", std::string(8000000, 'w')), kept = File("kept", "");
    Program listener("klvmsgcat", "-t 60 -l 0 -r Note -r Tick --fixed Tick=3 --hex >" + kept);
    EXPECT_EQ(0, RunKlvmsgcat(To(listener.Port()) + "-f Tick=3 -s Note=" + note +
                              " -s Tick=" + tick + " -s Note=/dev/null -s Note=" + large));
    EXPECT_EQ(0, listener.End());
    EXPECT_TRUE(Content(kept) == "Note 3 61000a\nTick 3 78797a\nNote 0 \nNote 8000000 " +
                                     std::string(16000000, '7') + "\n");
}

TEST_F(Klvmsgcat, AnswersTheOneThatConnects) {
    const std::string bytes("\0a\n\xff", 4), kept = File("kept", "");
    const std::string note = File("note", bytes), lines = File("lines", "one\n\n\\three");
    Program listener("klvmsgcat", "-t 60 --listen 0 -r Line -s Note=" + note);
    EXPECT_EQ(0, RunKlvmsgcat(To(listener.Port()) + "-r Note -n 1 --raw --lines Line <" + lines +
                              " >" + kept));
    EXPECT_EQ(0, listener.End());
    EXPECT_EQ("Line 3 one\nLine 0 \nLine 6 \\x5cthree\n", listener.rest);
    EXPECT_EQ(bytes, Content(kept));
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
        Program listener("klvmsgcat", "-t 60 --listen 0 -r Note --count 2");
        PlainPeer peer(listener.Port());
        peer.Send(bytes);
        peer.Close();
        EXPECT_EQ(code, listener.End()) << bytes << listener.rest;
    }
}

TEST(Examples, PubsubAndWorkersComeToTheirEnd) {
    EXPECT_EQ(0, Program("pubsub", "").End());
    EXPECT_EQ(0, Program("workers", "").End());
}

TEST(Examples, EndWithAWordWhenTheSystemRefuses) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers need descriptors and stacks of their own";
#endif
    for (const std::string name : {"pubsub", "workers"}) {
        // The fewer descriptors, the earlier it goes wrong: in the launcher, the server, a client.
        std::string said;
        for (int limit = 4; limit < 8; ++limit) {
            Program starved(name, "--timeout 1", "ulimit -n " + std::to_string(limit) + "; exec ");
            EXPECT_NE(-1, starved.End());
            EXPECT_NE("", starved.rest);
            said += starved.rest;
        }
        EXPECT_NE(std::string::npos, said.find("cannot listen")) << said;
        EXPECT_NE(std::string::npos, said.find("gave up")) << said;
        Program alone(name, "", "ulimit -s 100000000000; exec ");  // no room for a thread's stack
        EXPECT_EQ(1, alone.End());
        EXPECT_NE(std::string::npos, alone.rest.find("cannot start a thread")) << alone.rest;
    }
}

TEST(Examples, TellHelpAndVersion) {
    for (const std::string name : {"klvmsgcat", "pubsub", "workers"}) {
        Program help(name, "--help"), version(name, "--version");
        EXPECT_EQ(0, help.End());
        EXPECT_EQ(0u, help.rest.find("usage: " + name));
        EXPECT_EQ(0, version.End());
        EXPECT_EQ(0u, version.rest.find(name + " "));
        EXPECT_EQ(version.rest.size() - 1, version.rest.find_last_of("0123456789") + 1);
    }
}

// A client of a server that says something and no more.
static std::string Meets(const std::string& client, const std::string& bytes, bool closes) {
    PlainServer server;
    const std::size_t role = client.find(' ');
    Program program(client.substr(0, role), "--timeout 2" + client.substr(role) + " " +
                                                std::to_string(server.Port()) +
                                                (client == "pubsub subscribe" ? " x" : ""));
    PlainPeer peer(server.Accept());
    peer.Send(bytes);
    if (closes) {
        peer.Close();
    }
    EXPECT_EQ(1, program.End());
    return program.rest;
}

TEST(Examples, HalfMessagesAndSilentPeersAreNoSuccess) {
    const std::string full(32, 'x'), news = HeaderBytes("News"), job = HeaderBytes("Job");
    EXPECT_EQ("a subscriber of x has read: " + full + "; \n",
              Meets("pubsub subscribe", news + full, false));
    for (const std::string client : {"pubsub subscribe", "workers work"}) {
        const std::string half = (client == "workers work" ? job : news) + "xyz";
        EXPECT_NE(std::string::npos, Meets(client, half, true).find("in the middle")) << client;
        EXPECT_NE(std::string::npos, Meets(client, half, false).find("gave up")) << client;
    }

    Program publisher("pubsub", "--timeout 2 publish");
    const int port = publisher.Port();
    PlainPeer(port).Send(HeaderBytes("Subscribe") + "x");  // and is gone
    PlainPeer one(port), two(port), three(port);
    for (PlainPeer* const peer : {&one, &two, &three}) {
        peer->Send(HeaderBytes("Subscribe") + full);
    }
    EXPECT_EQ(1, publisher.End());  // it has not taken the half one for the fourth
    EXPECT_EQ("pubsub: gave up: not all subscribers have come\n", publisher.rest);

    Program dispatcher("workers", "--timeout 2 dispatch");
    PlainPeer worker(dispatcher.Port());
    worker.Send(HeaderBytes("Result") + std::string(8, '\0'));
    worker.Receive(job.size() + 8);
    worker.Send(HeaderBytes("Result") + "\1");
    worker.Close();
    EXPECT_EQ(1, dispatcher.End());
    EXPECT_EQ("workers: lost a worker\n", dispatcher.rest);
}
