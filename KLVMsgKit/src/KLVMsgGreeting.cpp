#include "KLVMsgGreeting.h"

#include <poll.h>

#include <cerrno>

#include "KLVMsgSessionSockets.h"

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
        const int error = KLVMsgSessionSockets::Await(
            transport.Descriptor(), greeting.waitsForRoom ? POLLOUT : POLLIN, limit, cancel);
        if (error == ECANCELED) {
            return {KLVMsgOutcome::kFailed, error, "the session has ended"};
        }
        if (error == ETIMEDOUT) {
            return {KLVMsgOutcome::kTooLate, error, "the server has not admitted us in time"};
        }
        if (error != 0) {
            return KLVMsgSessionSockets::Failure("cannot wait for the server", error);
        }
    }
}
