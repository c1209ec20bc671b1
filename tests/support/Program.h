// Programs as their users run them: as processes, in a folder of their own.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// A program that runs. Standard output and error go to a file together, unless the arguments, which
// a shell reads, say otherwise.
class Program {
public:
    Program(const std::string& path, const std::string& arguments) {
        EXPECT_EQ(0, access(path.c_str(), X_OK)) << path << " has not been built";
        const std::string command = "exec '" + path + "' >" + m_file + " 2>&1 " + arguments;
        std::ofstream(m_file, std::ios::binary);
        m_process = fork();
        if (m_process == 0) {
            _exit(execl("/bin/sh", "sh", "-c", command.c_str(), nullptr));
        }
    }
    ~Program() { End(SIGKILL); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Waits for its end; the exit code, or -1 when it was killed. With a signal it is sent that.
    int End(int signal = 0) {
        if (m_process != 0) {
            signal != 0 ? kill(m_process, signal) : 0;
            EXPECT_EQ(m_process, waitpid(m_process, &m_status, 0));
            m_process = 0;
        }
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
    }

    pid_t Process() const { return m_process; }
    std::string Output() const { return Content(m_file); }
    bool Said(const std::string& text) const { return Output().find(text) != std::string::npos; }

    static std::string Content(const std::string& name) {
        std::ifstream file(name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

private:
    static inline int started = 0;

    const std::string m_file = "output-" + std::to_string(++started);
    pid_t m_process = 0;
    int m_status = 0;
};

// Works in a folder that goes with the test.
class ProgramTest : public testing::Test {
protected:
    ProgramTest() {
        std::filesystem::current_path(mkdtemp((testing::TempDir() + "programXXXXXX").data()));
    }
    ~ProgramTest() override {
        const std::filesystem::path folder = std::filesystem::current_path();
        std::filesystem::current_path("/");
        std::filesystem::remove_all(folder);
    }

    // Writes a file and returns its name.
    static std::string File(const std::string& name, const std::string& content) {
        std::ofstream(name, std::ios::binary) << content;
        return name;
    }
};
