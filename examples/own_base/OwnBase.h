// What an application's own base facilities must supply, made of the standard library: copy it and
// put the application's facilities in the place of each. OwnBase.cmake makes a target of it.
//
// The messaging library uses what is declared here and nothing else of a base. The singleton and
// the ordered map are its own. It asks for more than a compiler sees:
// - mem_Malloc returns null where there is no memory; the other two throw std::bad_alloc.
// - KLVString compares and keeps zero bytes, is empty for a null pointer, and copies without
//   throwing if short memory is to leave the library as it was.
// - KLVBasVector keeps its elements one behind the other; Erase passes over a position outside.
// - newMutex returns null where there is no memory. A mutex that is handed over in the order of
//   arrival keeps a sender from waiting for several waits of the message task.
// - KLVBasAtiThread blocks SIGPIPE on its thread, or the application ignores that signal: else a
//   send to a peer that has gone ends the process.
#pragma once

#include <chrono>
#include <csignal>
#include <cstddef>
#include <future>
#include <iostream>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

inline void VORFatalError(const char* text, const char*, const char*, const char*, const char* file,
                          int line) {
    std::cerr << file << ':' << line << ": " << text << std::endl;
    std::terminate();
}

// Each block starts with a mark: freeing one that was not allocated here ends the process.
union OwnMark {
    unsigned value;
    std::max_align_t alignment;
};
inline void* mem_OperatorNewThrow(std::size_t size) {
    auto* const mark = static_cast<OwnMark*>(::operator new(size + sizeof(OwnMark)));
    mark->value = 0x0BADBA5E;
    return mark + 1;
}
inline void* mem_OperatorNewThrowBuiltin(std::size_t size) { return mem_OperatorNewThrow(size); }
inline void* mem_Malloc(std::size_t size) {
    try {
        return mem_OperatorNewThrow(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
inline void mem_Free(void* block) {
    auto* const mark = block == nullptr ? nullptr : static_cast<OwnMark*>(block) - 1;
    if (mark != nullptr && mark->value != 0x0BADBA5E) {
        VORFatalError("foreign block", nullptr, nullptr, nullptr, __FILE__, __LINE__);
    }
    ::operator delete(mark);
}

class mem_AllocationOperators {
public:
    static void* operator new(std::size_t size) { return mem_OperatorNewThrow(size); }
    static void operator delete(void* block) { mem_Free(block); }
};

class KLVString {
public:
    KLVString(const char* text = nullptr) : m_text(text == nullptr ? "" : text) {}
    KLVString(const char* text, int length)
        : m_text(text, static_cast<std::size_t>(text == nullptr || length < 1 ? 0 : length)) {}
    int Length() const { return static_cast<int>(m_text.size()); }
    const char* Text() const { return m_text.c_str(); }
    int Compare(const KLVString& other) const { return m_text.compare(other.m_text); }
    KLVString& operator+=(int number) { return m_text += std::to_string(number), *this; }

private:
    std::string m_text;
};
inline bool operator==(const KLVString& a, const KLVString& b) { return a.Compare(b) == 0; }

template <class T>
class KLVBasVector : std::vector<T> {
public:
    void PushBack(const T& element) { this->push_back(element); }
    void Erase(int position) {
        if (position >= 0 && static_cast<std::size_t>(position) < Size()) {
            this->erase(this->begin() + position);
        }
    }
    void Clear() noexcept { this->clear(); }
    std::size_t Size() const { return this->size(); }
    using std::vector<T>::operator[];
};

template <class V>
class omi_IntTable {
public:
    void Insert(int key, const V& value) { m_entries[key] = value; }
    V Lookup(int key) const { return IsMember(key) ? m_entries.at(key) : V(); }
    bool IsMember(int key) const { return m_entries.count(key) != 0; }
    bool Remove(int key) { return m_entries.erase(key) != 0; }

private:
    std::map<int, V> m_entries;
};

class KLVBasAtiMutex : public mem_AllocationOperators {
public:
    virtual ~KLVBasAtiMutex() = default;
    virtual void Lock() { m_mutex.lock(); }
    virtual void Unlock() { m_mutex.unlock(); }

private:
    std::timed_mutex m_mutex;
};
struct KLVBasAtiThreadingModel {
    static KLVBasAtiMutex* newMutex() {
        void* const memory = mem_Malloc(sizeof(KLVBasAtiMutex));
        return memory == nullptr ? nullptr : ::new (memory) KLVBasAtiMutex;
    }
};

class KLVBasAtiThreadTask : public mem_AllocationOperators {
public:
    virtual ~KLVBasAtiThreadTask() = default;
    virtual int Run(int argument) = 0;
};
class KLVBasAtiThread {
public:
    explicit KLVBasAtiThread(KLVBasAtiThreadTask& task)
        : m_result(std::async(std::launch::async, [&task] { return RunTask(task); }).share()) {}
    int Join() { return m_result.get(); }

private:
    static int RunTask(KLVBasAtiThreadTask& task) {
        sigset_t brokenPipe;
        sigemptyset(&brokenPipe);
        sigaddset(&brokenPipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
        return task.Run(0);
    }

    std::shared_future<int> m_result;
};
inline void KLVBasUtlsleep(unsigned milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

class aio_ostream {
public:
    void print(const char* text) { std::cerr << text; }
    void print_int(int number) { std::cerr << number; }
    void put(char character) { std::cerr.put(character); }
    void flush() { std::cerr.flush(); }
};
inline aio_ostream aio_cerr;

// The application's modules are up from the start, so there is nothing to count.
#define OWN_MODULE(name)                   \
    inline void name##_initialize(int&) {} \
    inline void name##_finalize(int&) {}
OWN_MODULE(KLVSimContainers)
OWN_MODULE(KLVBasXmlParser)
OWN_MODULE(KLVBasShared)
OWN_MODULE(KLVBasMorva)
OWN_MODULE(KLVBasCoreUtils)
OWN_MODULE(KLVBasGenericsLib)
OWN_MODULE(KLVBasAlloc)
#undef OWN_MODULE
