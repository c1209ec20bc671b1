#include "KLVMsgGreeting.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace {

// In milliseconds for poll, rounded up.
int Left(KLVMsgGreeting::Time limit) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(limit - KLVMsgTimeLimit::Clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, 1000000000));
}

}  // namespace

KLVMsgOutcome KLVMsgGreeting::Await(KLVMsgTransport& transport, Time limit, int cancel,
                                    std::string& warning) {
    for (;;) {
        const KLVMsgTransport::Greeting greeting = transport.Greet();
        warning += greeting.warning;
        if (greeting.state == KLVMsgTransport::Greeting::kDone) {
            return {};
        }
        if (greeting.state == KLVMsgTransport::Greeting::kFailed) {
            return {KLVMsgOutcome::kFailed, greeting.error, greeting.text};
        }
        const short awaited = greeting.waitsForRoom ? POLLOUT : POLLIN;
        pollfd asked[] = {{transport.Descriptor(), awaited, 0}, {cancel, POLLIN, 0}};
        const int count = poll(asked, 2, Left(limit));
        if (asked[1].revents != 0) {
            return {KLVMsgOutcome::kFailed, ECANCELED, "the session has ended"};
        }
        if (count == 0 && KLVMsgTimeLimit::Clock::now() >= limit) {
            return {KLVMsgOutcome::kTooLate, ETIMEDOUT, "the server has not admitted us in time"};
        }
    }
}
