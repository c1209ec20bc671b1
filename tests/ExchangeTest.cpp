// The exchange example as its users run it: as processes.
#include "Program.h"
#include "Support.h"

namespace {

struct Exchange : Program {
    explicit Exchange(const std::string& arguments) : Program(EXCHANGE_PROGRAM, arguments) {}
};

using ExchangeTest = ProgramTest;

}  // namespace

TEST_F(ExchangeTest, HubAndClientsAgreeOnEveryFile) {
    File("empty", "");
    File("check", "123456789");
    File("large", std::string(9 << 20, 'x') + " y\nz");  // more than a socket buffers
    Exchange two("--clients 2 empty check large");
    EXPECT_EQ(0, two.End());
    EXPECT_TRUE(
        two.Said("client-1             0          0          0 00000000  agreed     empty"));
    EXPECT_TRUE(
        two.Said("client-2             9          0          1 cbf43926  agreed     check"));
    EXPECT_TRUE(two.Said("client-1       9437188          1          3 "));

    Exchange idle("--clients 3 check");  // more clients than files
    EXPECT_EQ(0, idle.End());
    EXPECT_TRUE(
        idle.Said("client-3             9          0          1 cbf43926  agreed     check"));
}

TEST_F(ExchangeTest, WhatCannotStartEndsWithAMessage) {
    const auto fails = [](const std::string& arguments, const char* message) {
        Exchange exchange(arguments);
        EXPECT_EQ(1, exchange.End());
        EXPECT_TRUE(exchange.Said(message));
    };
    File("file", "text\n");
    fails("file missing", "missing: No such file or directory");
    std::string port;
    {
        const PlainServer other;
        port = "--port " + std::to_string(other.Port());
        fails(port + " file", "Address already in use");
    }
    fails("client " + port + " file", "no hub listens there");
}

TEST_F(ExchangeTest, AKilledProcessEndsTheRun) {
    File("large", std::string(64 << 20, 'x'));
    for (const bool killHub : {true, false}) {
        // In chunks so small that the files would travel for minutes.
        Exchange run("--chunk 64 large large");
        ASSERT_TRUE(Eventually([&] { return run.Said("0 of 2 files"); }));
        const std::string number = std::to_string(run.Process());
        pid_t hub = 0, client = 0;
        std::ifstream("/proc/" + number + "/task/" + number + "/children") >> hub >> client;
        ASSERT_EQ(0, kill(killHub ? hub : client, SIGKILL));
        EXPECT_EQ(1, run.End());
        EXPECT_TRUE(run.Said(killHub ? "hub was killed by signal 9" : "client-1 was killed"));
        EXPECT_TRUE(run.Said(killHub ? "client-2: lost the hub" : "client-2: sent away"));
    }
}
