// For the session's own sources: a queue that takes no memory while it is empty.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

// In one block, so that it is searched quickly; what has been taken off the front is given back now
// and then, and all of it when the queue is empty. References last until the next push_back.
template <class T>
class KLVMsgFifo {
public:
    using Iterator = typename std::vector<T>::iterator;
    using ConstIterator = typename std::vector<T>::const_iterator;

    bool empty() const { return m_first == m_all.size(); }
    std::size_t size() const { return m_all.size() - m_first; }
    T& front() { return m_all[m_first]; }
    const T& front() const { return m_all[m_first]; }
    T& back() { return m_all.back(); }
    T& operator[](std::size_t position) { return m_all[m_first + position]; }
    Iterator begin() { return m_all.begin() + static_cast<std::ptrdiff_t>(m_first); }
    Iterator end() { return m_all.end(); }
    ConstIterator begin() const { return m_all.begin() + static_cast<std::ptrdiff_t>(m_first); }
    ConstIterator end() const { return m_all.end(); }

    // Throws std::bad_alloc and changes nothing then.
    void push_back(T one) { m_all.push_back(std::move(one)); }

    // Room for so many more. Throws std::bad_alloc and changes nothing then.
    void MakeRoom(std::size_t more) { m_all.reserve(m_all.size() + more); }

    // Requires, as all that follow: it is not empty.
    void pop_front() {
        m_all[m_first] = T();  // lets go of what it owns
        Drop(1);
    }
    void pop_back() {
        m_all.pop_back();
        if (empty()) {
            clear();
        }
    }
    Iterator erase(Iterator one) { return m_all.erase(one); }

    // Takes so many off the front, which own nothing. Requires: there are so many.
    void Drop(std::size_t count) {
        m_first += count;
        if (empty()) {
            clear();
        } else if (m_first >= kMostGone && m_first >= size()) {
            m_all.erase(m_all.begin(), begin());
            m_first = 0;
        }
    }

    void clear() {
        m_first = 0;
        if (m_all.capacity() > kMostKept) {
            m_all = std::vector<T>();
        } else {
            m_all.clear();
        }
    }

private:
    static constexpr std::size_t kMostGone = 64;
    static constexpr std::size_t kMostKept = 4;

    std::vector<T> m_all;
    std::size_t m_first = 0;
};
