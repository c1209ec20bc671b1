// For applications and the library's own sources: one object of a class for the whole process.
//
// Invariants:
// - m_instance and m_lock are null until the first construction and again after Finalize.
// - Instance takes no lock. Its first call happens before a second thread can make one; after that
//   it may be called from any thread.
// - Finalize is called by the application when every thread that uses the instance has stopped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "KLVBasAtiMutex.h"
#include "KLVBasAtiThreadingModel.h"
#include "VORFatalError.h"
#include "mem_Allocation.h"

// Base of a class T that derives from KLVBasAtiGlobalSingleton<T>. Constructing a T registers it as
// the instance; constructing a second one beside it is reported through VORFatalError. Finalize
// destroys an object that Instance has made, so an application constructs none itself.
//
// A library that exports T instantiates this template itself (`extern template` in T's header), so
// that all modules of a process share one instance and one lock.
template <class T>
class KLVBasAtiGlobalSingleton {
public:
    // The instance, made on first use with the in-house allocator; owned by the template until
    // Finalize. Takes no lock. An exception of T's constructor, or std::bad_alloc, passes through
    // and leaves no instance behind.
    static T* Instance() { return m_instance != nullptr ? m_instance : Make(); }

    // Destroys the instance, then the lock, where they exist. The next Instance makes both anew.
    static void Finalize();

    // Takes and releases the one lock, which is not recursive.
    // Requires: an instance exists.
    static void Lock();
    static void Unlock();

protected:
    KLVBasAtiGlobalSingleton();

    // Leaves m_instance alone: Finalize clears it.
    ~KLVBasAtiGlobalSingleton() {}

private:
    static T* Make();
    static void Assert(bool holds, const char* text, int line);

    static T* m_instance;
    static KLVBasAtiMutex* m_lock;
};

// Holds the lock of the singleton T from construction to destruction.
template <class T>
class KLVBasAtiGlobalSingletonLock {
public:
    KLVBasAtiGlobalSingletonLock() { KLVBasAtiGlobalSingleton<T>::Lock(); }
    ~KLVBasAtiGlobalSingletonLock() { KLVBasAtiGlobalSingleton<T>::Unlock(); }
    KLVBasAtiGlobalSingletonLock(const KLVBasAtiGlobalSingletonLock&) = delete;
    KLVBasAtiGlobalSingletonLock& operator=(const KLVBasAtiGlobalSingletonLock&) = delete;
};

template <class T>
T* KLVBasAtiGlobalSingleton<T>::m_instance = nullptr;

template <class T>
KLVBasAtiMutex* KLVBasAtiGlobalSingleton<T>::m_lock = nullptr;

template <class T>
T* KLVBasAtiGlobalSingleton<T>::Make() {
    static_assert(alignof(T) <= alignof(std::max_align_t), "the allocator aligns no further");
    void* const memory = mem_OperatorNewThrow(sizeof(T));
    try {
        m_instance = ::new (memory) T;
    } catch (...) {
        // The base constructor has registered an object that never came to be.
        m_instance = nullptr;
        mem_Free(memory);
        throw;
    }
    Assert(m_instance != nullptr, "AssertionFailed:m_instance != 0", 56);
    return m_instance;
}

template <class T>
void KLVBasAtiGlobalSingleton<T>::Finalize() {
    if (m_instance != nullptr) {
        const KLVBasAtiGlobalSingletonLock<T> lock;
        if (m_instance != nullptr) {
            m_instance->~T();
            mem_Free(m_instance);
        }
        m_instance = nullptr;
    }
    delete m_lock;
    m_lock = nullptr;
}

template <class T>
void KLVBasAtiGlobalSingleton<T>::Lock() {
    m_lock->Lock();
}

template <class T>
void KLVBasAtiGlobalSingleton<T>::Unlock() {
    m_lock->Unlock();
}

template <class T>
KLVBasAtiGlobalSingleton<T>::KLVBasAtiGlobalSingleton() {
    if (m_lock == nullptr) {
        m_lock = KLVBasAtiThreadingModel::newMutex();
        Assert(m_lock != nullptr, "AssertionFailed:m_lock != 0", 15);
    }
    const KLVBasAtiGlobalSingletonLock<T> lock;
    Assert(m_instance == nullptr, "AssertionFailed:m_instance == 0", 17);
    // Where the object begins whose base this is, worked out from where the base lies in any T. The
    // object itself does not exist yet: a cast to it would use it as if it did.
    T* const any = reinterpret_cast<T*>(alignof(T));
    const auto base = reinterpret_cast<std::uintptr_t>(static_cast<KLVBasAtiGlobalSingleton*>(any));
    m_instance = reinterpret_cast<T*>(reinterpret_cast<std::uintptr_t>(this) - base + alignof(T));
}

// The reported lines are numbers that tools look for; they do not follow this file.
template <class T>
void KLVBasAtiGlobalSingleton<T>::Assert(bool holds, const char* text, int line) {
    if (!holds) {
        VORFatalError(text, nullptr, nullptr, nullptr,
                      "KLVBase/ProtectedInterfaces/KLVBasAtiGlobalSingleton", line);
    }
}
