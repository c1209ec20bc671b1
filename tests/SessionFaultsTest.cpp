#include "Lives.h"

namespace {

TEST(SessionFaults, EachSystemCallMayFail) {
    Lives lives;
    lives.mayLose = [](const std::string& name, int error) {
        return error == EMFILE || name != "readv";
    };
    FailEachSystemCall(
        lives, {"epoll_create1", "eventfd", "epoll_ctl", "epoll_pwait2", "socket", "setsockopt",
                "bind", "listen", "getsockname", "getpeername", "getsockopt", "connect", "accept4",
                "readv", "sendmsg", "shutdown", "getaddrinfo"});
    const FailingCall missing("epoll_pwait2", ENOSYS);
    EXPECT_TRUE(Life().GetsAll()) << "on a kernel before 5.11";
}

TEST(SessionFaults, EachAllocationMayFail) {
    for (const int where : {0, 1, 2}) {
        FailEachAllocation({}, where, 1);
    }
}

}  // namespace
