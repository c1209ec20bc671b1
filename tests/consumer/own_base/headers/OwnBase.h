// Base facilities of an application, made without KLVBase and differently where that is simple: the
// messaging library must rely on their interfaces alone.
#pragma once

#include <cstddef>
#include <future>
#include <map>
#include <string>
#include <vector>

#define OWN_EXPORT __attribute__((visibility("default")))

OWN_EXPORT void* mem_OperatorNewThrow(std::size_t size);
OWN_EXPORT void* mem_OperatorNewThrowBuiltin(std::size_t size);
OWN_EXPORT void* mem_Malloc(std::size_t size);
OWN_EXPORT void mem_Free(void* block);

class OWN_EXPORT mem_AllocationOperators {
public:
    static void* operator new(std::size_t size) { return mem_OperatorNewThrow(size); }
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* block) { mem_Free(block); }
    static void operator delete(void*, void*) noexcept {}
};

class OWN_EXPORT KLVString {
public:
    KLVString() = default;
    KLVString(const char* text) : m_text(text == nullptr ? "" : text) {}
    KLVString(const char* text, int length);
    int Length() const { return static_cast<int>(m_text.size()); }
    const char* Text() const { return m_text.c_str(); }
    char operator[](int position) const { return m_text[static_cast<std::size_t>(position)]; }
    int Compare(const KLVString& other) const { return m_text.compare(other.m_text); }
    KLVString& operator+=(int number);

private:
    std::string m_text;
};
inline bool operator==(const KLVString& a, const KLVString& b) { return a.Compare(b) == 0; }
inline bool operator!=(const KLVString& a, const KLVString& b) { return a.Compare(b) != 0; }

template <class T>
class KLVBasVector {
public:
    void PushBack(const T& element) { m_elements.push_back(element); }
    void Erase(int position) {
        if (position >= 0 && static_cast<std::size_t>(position) < m_elements.size()) {
            m_elements.erase(m_elements.begin() + position);
        }
    }
    void Clear() noexcept { m_elements.clear(); }
    std::size_t Size() const { return m_elements.size(); }
    T& operator[](std::size_t position) { return m_elements[position]; }
    const T& operator[](std::size_t position) const { return m_elements[position]; }

private:
    std::vector<T> m_elements;
};

template <class Key, class V>
class OwnTable {
public:
    void Insert(Key key, const V& value) { m_entries[key] = value; }
    V Lookup(Key key) const { return IsMember(key) ? m_entries.at(key) : V(); }
    bool IsMember(Key key) const { return m_entries.count(key) != 0; }
    bool Remove(Key key) { return m_entries.erase(key) != 0; }
    std::size_t Size() const { return m_entries.size(); }

private:
    std::map<Key, V> m_entries;
};
template <class V>
using omi_IntTable = OwnTable<int, V>;
template <class V>
using omi_UintTable = OwnTable<unsigned int, V>;

class OWN_EXPORT KLVBasAtiMutex : public mem_AllocationOperators {
public:
    virtual ~KLVBasAtiMutex();
    virtual void Lock() = 0;
    virtual void Unlock() = 0;
};

class OWN_EXPORT KLVBasAtiThreadingModel {
public:
    static KLVBasAtiMutex* newMutex();
};

class OWN_EXPORT KLVBasAtiThreadTask : public mem_AllocationOperators {
public:
    virtual ~KLVBasAtiThreadTask();
    virtual int Run(int argument) = 0;
};

class OWN_EXPORT KLVBasAtiThread {
public:
    explicit KLVBasAtiThread(KLVBasAtiThreadTask& task);
    int Join() { return m_result.get(); }

private:
    std::shared_future<int> m_result;
};

OWN_EXPORT void KLVBasUtlsleep(unsigned milliseconds);
OWN_EXPORT void VORFatalError(const char* text, const char* text2, const char* text3,
                              const char* text4, const char* file, int line);

class OWN_EXPORT aio_ostream {
public:
    void print(const char* text);
    void print_int(int number);
    void put(char character);
    void flush();
};
extern OWN_EXPORT aio_ostream aio_cerr;

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
