// For the session's own sources: what names stand for, found out on a thread of its own.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "KLVMsgOutcome.h"
#include "KLVMsgSessionSockets.h"
#include "KLVMsgSocketAddress.h"

// One name after the other; each takes as long as the system's resolver does, which cannot be
// interrupted, and so does the destructor. Any thread may call.
class KLVMsgResolver {
public:
    struct Answer {
        std::uint64_t id = 0;  // of the question
        KLVMsgSocketAddress address;
        KLVMsgOutcome outcome;
        std::vector<KLVMsgSessionSockets::Address> found;
    };

    KLVMsgResolver() = default;
    ~KLVMsgResolver();
    KLVMsgResolver(const KLVMsgResolver&) = delete;
    KLVMsgResolver& operator=(const KLVMsgResolver&) = delete;

    // Asks the system for what it needs, and starts the thread, with all signals blocked.
    KLVMsgOutcome Prepare();

    // Readable while there is an answer.
    int Descriptor() const { return m_answered.Number(); }

    // Throws std::bad_alloc.
    void Ask(std::uint64_t id, const KLVMsgSocketAddress& address);

    // The next answer; false when there is none.
    bool Next(Answer& answer);

private:
    void Run();

    std::mutex m_mutex;
    std::condition_variable m_asked;
    // One that is asked goes from list to list: the thread takes no memory that may be missing.
    std::list<Answer> m_questions;
    std::list<Answer> m_answers;
    bool m_isToStop = false;
    KLVMsgDescriptor m_answered;
    std::unique_ptr<std::thread> m_thread;
};
