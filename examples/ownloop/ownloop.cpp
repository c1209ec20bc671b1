// A loop of its own with epoll: one thread waits for a timer and for what the session has, and
// never inside the session. What a program with many descriptors needs.
#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <cstdint>

#include "Counting.h"

static void Checked(bool isDone, const char* what) {
    if (!isDone) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
}

static void WaitFor(int loop, int descriptor) {
    epoll_event wanted = {};
    wanted.events = EPOLLIN;
    wanted.data.fd = descriptor;
    Checked(epoll_ctl(loop, EPOLL_CTL_ADD, descriptor, &wanted) == 0, "cannot wait");
}

// Both descriptors are closed by the end of the process.
static int Run(int portPipe) {
    Counter counter(portPipe);
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec everyTenMilliseconds = {{0, 10000000}, {0, 10000000}};
    Checked(timerfd_settime(timer, 0, &everyTenMilliseconds, nullptr) == 0, "no timer");
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    WaitFor(loop, timer);
    WaitFor(loop, counter.Descriptor());
    const auto end = Limit().Deadline();
    for (bool goesOn = true; goesOn;) {
        epoll_event happened = {};
        Checked(epoll_wait(loop, &happened, 1, -1) == 1 || errno == EINTR, "cannot wait");
        std::uint64_t times = 0;
        if (happened.data.fd == timer && read(timer, &times, sizeof times) == sizeof times) {
            counter.Tick();
        } else if (happened.data.fd == counter.Descriptor()) {
            goesOn = counter.Talked();
        }
        Checked(KLVMsgTimeLimit::Clock::now() < end, "gave up: not all have come and gone");
    }
    return 0;
}

int main(int argc, char** argv) { return RunCounting("ownloop", argc, argv, Run); }
