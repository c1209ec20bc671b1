#include <OwnBase.h>

#include <chrono>
#include <iostream>
#include <mutex>
#include <thread>

// Each block starts with a mark: freeing one that was not allocated here ends the process.
constexpr std::size_t markSize = alignof(std::max_align_t);
constexpr unsigned mark = 0x0BADBA5E;

void* mem_OperatorNewThrow(std::size_t size) {
    char* const block = static_cast<char*>(::operator new(size + markSize));
    *reinterpret_cast<unsigned*>(block) = mark;
    return block + markSize;
}
void* mem_OperatorNewThrowBuiltin(std::size_t size) { return mem_OperatorNewThrow(size); }
void* mem_Malloc(std::size_t size) { return mem_OperatorNewThrow(size); }
void mem_Free(void* block) {
    if (block == nullptr) {
        return;
    }
    char* const start = static_cast<char*>(block) - markSize;
    if (*reinterpret_cast<unsigned*>(start) != mark) {
        VORFatalError("foreign block", nullptr, nullptr, nullptr, __FILE__, __LINE__);
    }
    ::operator delete(start);
}

KLVString::KLVString(const char* text, int length) {
    if (text != nullptr && length > 0) {
        m_text.assign(text, static_cast<std::size_t>(length));
    }
}
KLVString& KLVString::operator+=(int number) {
    m_text += std::to_string(number);
    return *this;
}

namespace {
class OwnMutex final : public KLVBasAtiMutex {
public:
    void Lock() override { m_mutex.lock(); }
    void Unlock() override { m_mutex.unlock(); }

private:
    std::timed_mutex m_mutex;
};
}  // namespace

KLVBasAtiMutex::~KLVBasAtiMutex() = default;
KLVBasAtiMutex* KLVBasAtiThreadingModel::newMutex() { return new OwnMutex; }

KLVBasAtiThreadTask::~KLVBasAtiThreadTask() = default;
KLVBasAtiThread::KLVBasAtiThread(KLVBasAtiThreadTask& task)
    : m_result(std::async(std::launch::async, [&task] { return task.Run(0); }).share()) {}

void KLVBasUtlsleep(unsigned milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void VORFatalError(const char* text, const char*, const char*, const char*, const char* file,
                   int line) {
    std::cerr << file << ':' << line << ": " << text << std::endl;
    std::terminate();
}

aio_ostream aio_cerr;
void aio_ostream::print(const char* text) { std::cerr << text; }
void aio_ostream::print_int(int number) { std::cerr << number; }
void aio_ostream::put(char character) { std::cerr.put(character); }
void aio_ostream::flush() { std::cerr.flush(); }
