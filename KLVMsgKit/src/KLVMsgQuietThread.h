// For the session's own sources: threads of which the application need not know.
#pragma once

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <new>
#include <system_error>
#include <thread>

#include "KLVMsgSessionSockets.h"

// Starts one, with all signals blocked: they are the application's.
template <class Work>
KLVMsgOutcome KLVMsgStartQuietThread(const Work& work, std::unique_ptr<std::thread>& thread) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int failure = 0;
    try {
        thread = std::make_unique<std::thread>(work);
    } catch (const std::system_error& error) {
        failure = error.code().value();
    } catch (const std::bad_alloc&) {
        failure = ENOMEM;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return failure == 0 ? KLVMsgOutcome()
                        : KLVMsgSessionSockets::Failure("cannot start a thread", failure);
}
