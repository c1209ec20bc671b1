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
    KLVMsgOutcome outcome;
    try {
        thread = std::make_unique<std::thread>(work);
    } catch (const std::system_error& error) {
        outcome = KLVMsgSessionSockets::Failure("cannot start a thread", error.code().value());
    } catch (const std::bad_alloc&) {
        outcome = KLVMsgSessionSockets::Failure("cannot start a thread", ENOMEM);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return outcome;
}
