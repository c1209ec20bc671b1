#include "KLVMsgResolver.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "KLVMsgQuietThread.h"

KLVMsgResolver::~KLVMsgResolver() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isToStop = true;
    }
    m_asked.notify_one();
    if (m_thread != nullptr) {
        m_thread->join();
    }
}

KLVMsgOutcome KLVMsgResolver::Prepare() {
    m_answered = KLVMsgDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
    if (m_answered.Number() == -1) {
        return KLVMsgSessionSockets::Failure("cannot make what a session waits with", errno);
    }
    return KLVMsgStartQuietThread([this] { Run(); }, m_thread);
}

void KLVMsgResolver::Ask(std::uint64_t id, const KLVMsgSocketAddress& address) {
    std::list<Answer> one(1);
    one.front().id = id;
    one.front().address = address;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_questions.splice(m_questions.end(), one);
    }
    m_asked.notify_one();
}

bool KLVMsgResolver::Next(Answer& answer) {
    std::uint64_t one = 0;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_answers.empty()) {
        return false;
    }
    static_cast<void>(!read(m_answered.Number(), &one, sizeof one));
    answer = std::move(m_answers.front());
    m_answers.pop_front();
    return true;
}

void KLVMsgResolver::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_asked.wait(lock, [this] { return m_isToStop || !m_questions.empty(); });
        if (m_isToStop) {
            return;
        }
        std::list<Answer> one;
        one.splice(one.begin(), m_questions, m_questions.begin());
        lock.unlock();
        Answer& answer = one.front();
        try {
            answer.outcome = KLVMsgSessionSockets::Find(answer.address, false, answer.found);
        } catch (const std::bad_alloc&) {
            answer.outcome.status = KLVMsgOutcome::kFailed;
            answer.outcome.error = ENOMEM;
        }
        lock.lock();
        m_answers.splice(m_answers.end(), one);
        const std::uint64_t count = 1;
        static_cast<void>(!write(m_answered.Number(), &count, sizeof count));
    }
}
