// Two network namespaces and an Ethernet between them, whose segments are a local network's.
#pragma once

#include <fcntl.h>
#include <sched.h>

#include "Process.h"

namespace bench {

// They live as long as this object. Takes root and the command `ip`.
class Wire {
public:
    Wire()
        : m_near([](Process& main) { Hold(main, "near", nearHost); }),
          m_far([](Process& main) { Hold(main, "far", farHost); }) {
        const std::string near = std::to_string(m_near.Id());
        const std::string far = std::to_string(m_far.Id());
        const bool has = BothHave() && Run("ip link add name near mtu 1500 netns " + near +
                                           " type veth peer name far mtu 1500 netns " + far);
        m_near.Tell(has);
        m_far.Tell(has);
        m_isThere = BothHave();
    }

    bool IsThere() const { return m_isThere; }

    // Moves this process to one end. Requires: it has one thread, and no socket yet.
    void EnterNear() const { Enter(m_near.Id()); }
    void EnterFar() const { Enter(m_far.Id()); }

    static constexpr char nearHost[] = "10.0.0.1";
    static constexpr char farHost[] = "10.0.0.2";

private:
    // The process whose namespace an end is.
    [[noreturn]] static void Hold(Process& main, const std::string& device, const char* host) {
        main.Tell(unshare(CLONE_NEWNET) == 0);
        const bool has = main.Hear<bool>();
        main.Tell(has && Run("ip address add " + std::string(host) + "/24 dev " + device) &&
                  Run("ip link set " + device + " up"));
        for (;;) {
            pause();
        }
    }

    // Hears both, whatever the first one says.
    bool BothHave() {
        const bool nearHas = m_near.Hear<bool>();
        return m_far.Hear<bool>() && nearHas;
    }

    static bool Run(const std::string& command) {
        return std::system((command + " 2>/dev/null").c_str()) == 0;
    }

    static void Enter(pid_t holder) {
        const std::string path = "/proc/" + std::to_string(holder) + "/ns/net";
        const int space = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        Require(space != -1 && setns(space, CLONE_NEWNET) == 0, "entering a namespace");
        close(space);
    }

    Process m_near;
    Process m_far;
    bool m_isThere = false;
};

}  // namespace bench
