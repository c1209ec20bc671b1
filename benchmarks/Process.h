// A second process of a benchmark.
#pragma once

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "Bench.h"

namespace bench {

// A process that this one starts, seen from either side: a line for what they tell each other. It
// ends with this object, or with its parent.
class Process {
public:
    // What `work` does there does not return, nor may an exception leave it.
    template <class Work>
    explicit Process(Work work) noexcept {
        int ends[2];
        Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
        m_id = fork();
        Require(m_id != -1, "fork");
        m_line = ends[m_id == 0 ? 1 : 0];
        close(ends[m_id == 0 ? 0 : 1]);
        if (m_id == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            work(*this);
        }
    }

    ~Process() {
        kill(m_id, SIGKILL);
        waitpid(m_id, nullptr, 0);
        close(m_line);
    }

    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Of the other process. Requires: this is the one that started it.
    pid_t Id() const { return m_id; }

    template <class T>
    void Tell(const T& what) {
        Require(write(m_line, &what, sizeof what) == sizeof what, "telling a process");
    }

    // Ends this process, too, when the other one has ended; a failed check has been reported there.
    template <class T>
    T Hear() {
        T what = {};
        if (read(m_line, &what, sizeof what) != sizeof what) {
            std::_Exit(1);
        }
        return what;
    }

private:
    pid_t m_id = -1;
    int m_line = -1;
};

}  // namespace bench
