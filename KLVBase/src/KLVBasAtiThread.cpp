#include "KLVBasAtiThread.h"

#include <csignal>
#include <thread>

namespace {

void BlockBrokenPipeSignal() {
    sigset_t brokenPipe;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
}

}  // namespace

KLVBasAtiThreadTask::~KLVBasAtiThreadTask() = default;

// Apart from the thread object, so that the result has an address that the thread can write to.
struct KLVBasAtiThread::State {
    int result = 0;
    std::thread thread;
};

KLVBasAtiThread::KLVBasAtiThread(KLVBasAtiThreadTask& task) : m_state(std::make_unique<State>()) {
    m_state->thread = std::thread([&task, &result = m_state->result] {
        BlockBrokenPipeSignal();
        result = task.Run(0);
    });
}

KLVBasAtiThread::~KLVBasAtiThread() { Join(); }

int KLVBasAtiThread::Join() {
    if (m_state->thread.joinable()) {
        m_state->thread.join();
    }
    return m_state->result;
}
