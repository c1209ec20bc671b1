// The exchange example as its users run it: as processes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Support.h"

#ifndef EXCHANGE_PROGRAM
#define EXCHANGE_PROGRAM ""
#endif

// Runs the program in a folder of its own, with its output in a file there.
class ExchangeTest : public testing::Test {
protected:
    void SetUp() override {
        if (std::string(EXCHANGE_PROGRAM).empty()) {
            GTEST_SKIP() << "built without the examples";
        }
        char folder[] = "/tmp/exchangeXXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        std::filesystem::current_path(folder);
    }

    void TearDown() override {
        const std::filesystem::path folder = std::filesystem::current_path();
        std::filesystem::current_path("/");
        if (!IsSkipped()) {
            std::filesystem::remove_all(folder);
        }
    }

    static void Make(const std::string& name, const std::string& content) {
        std::ofstream(name, std::ios::binary) << content;
    }

    static pid_t Start(const std::string& arguments) {
        Make("output", "");
        const std::string command = "exec '" EXCHANGE_PROGRAM "' " + arguments + " >output 2>&1";
        const pid_t process = fork();
        if (process == 0) {
            _exit(execl("/bin/sh", "sh", "-c", command.c_str(), nullptr));
        }
        return process;
    }

    // The exit code, or -1 when the process was killed.
    static int ExitCode(pid_t process) {
        int status = 0;
        EXPECT_EQ(waitpid(process, &status, 0), process);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    static bool Said(const std::string& text) {
        std::ifstream file("output");
        const std::string all(std::istreambuf_iterator<char>(file), {});
        return all.find(text) != std::string::npos;
    }
};

TEST_F(ExchangeTest, HubAndClientsAgreeOnEveryFile) {
    Make("empty", "");
    Make("check", "123456789");
    Make("large", std::string(9 << 20, 'x') + " y\nz");  // more than a socket buffers
    EXPECT_EQ(ExitCode(Start("--clients 2 empty check large")), 0);
    EXPECT_TRUE(Said("client-1             0          0          0 00000000  agreed     empty"));
    EXPECT_TRUE(Said("client-2             9          0          1 cbf43926  agreed     check"));
    EXPECT_TRUE(Said("client-1       9437188          1          3 "));

    EXPECT_EQ(ExitCode(Start("--clients 3 check")), 0);  // more clients than files
    EXPECT_TRUE(Said("client-3             9          0          1 cbf43926  agreed     check"));
}

TEST_F(ExchangeTest, WhatCannotStartEndsWithAMessage) {
    Make("file", "text\n");
    EXPECT_EQ(ExitCode(Start("file missing")), 1);
    EXPECT_TRUE(Said("missing: No such file or directory"));

    std::string port;
    {
        const PlainServer other;
        port = "--port " + std::to_string(other.Port());
        EXPECT_EQ(ExitCode(Start(port + " file")), 1);
        EXPECT_TRUE(Said("Address already in use"));
    }
    EXPECT_EQ(ExitCode(Start("client " + port + " file")), 1);
    EXPECT_TRUE(Said("Connection refused"));
}

TEST_F(ExchangeTest, ServesOnTheHostThatItIsTold) {
    Make("clear\x1b[2J\n", "");
    const PlainServer other;  // has the port on 127.0.0.1, and would not answer
    const std::string port = std::to_string(other.Port());
    EXPECT_EQ(ExitCode(Start("--timeout 20 --host 127.0.0.2 --clients 10 --port " + port + " c*")),
              0);
    EXPECT_TRUE(Said("100 %"));
    // In the order of their numbers, and nothing that a terminal would obey.
    EXPECT_TRUE(Said(
        "client-9             0          0          0 00000000  agreed     clear\\x1b[2J\\x0a\n"
        "client-10 "));
    EXPECT_EQ(ExitCode(Start("client --timeout 1 --port " + port + " c*")), 1);
    EXPECT_TRUE(Said("gave up: no answer from the hub"));
    for (const std::string option : {"help", "version"}) {
        EXPECT_EQ(ExitCode(Start("--" + option)), 0);
        EXPECT_TRUE(Said(option == "help" ? "usage: exchange" : "exchange "));
    }
}

TEST_F(ExchangeTest, AKilledProcessEndsTheRun) {
    Make("large", std::string(64 << 20, 'x'));
    for (const int victim : {0, 1, 2}) {
        // In chunks so small that the files would travel for minutes.
        const pid_t run = Start("--chunk 64 large large");
        ASSERT_TRUE(Eventually([] { return Said("0 of 2 files"); }));
        const std::string number = std::to_string(run);
        pid_t processes[] = {run, 0, 0};  // the launcher, the hub, a client
        std::ifstream("/proc/" + number + "/task/" + number + "/children") >> processes[1] >>
            processes[2];
        ASSERT_EQ(kill(processes[victim], SIGKILL), 0);
        EXPECT_EQ(ExitCode(run), victim == 0 ? -1 : 1);
        for (const pid_t process : processes) {  // not even a zombie has a command line
            EXPECT_TRUE(Eventually([process] {
                return std::ifstream("/proc/" + std::to_string(process) + "/cmdline").get() == EOF;
            }));
        }
        if (victim != 0) {
            EXPECT_TRUE(Said(victim == 1 ? "hub was killed by signal 9" : "client-1 was killed"));
            EXPECT_TRUE(Said(victim == 1 ? "client-2: lost the hub" : "client-2: sent away"));
        }
    }
}
