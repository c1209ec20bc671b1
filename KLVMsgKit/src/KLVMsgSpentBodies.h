// For the session's own sources: long bodies whose bytes have gone, to be filled anew.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

// Fresh pages cost more than filling them. Has a mutex of its own, under which nothing else is
// called: the last one who has a body to send gives it back, on whatever thread.
class KLVMsgSpentBodies : public std::enable_shared_from_this<KLVMsgSpentBodies> {
public:
    // An empty string, with the room of a spent one if there is one.
    std::string Take() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_count == 0) {
            return {};
        }
        std::string body = std::move(m_bodies[--m_count]);
        m_size -= body.capacity();
        body.clear();
        return body;
    }

    // A body for several who send it; when all have done with it, it comes back here. Throws
    // std::bad_alloc.
    std::shared_ptr<const std::string> Share(std::string body) {
        auto kept = std::make_unique<std::string>(std::move(body));
        const auto giveBack = [stock = shared_from_this()](const std::string* spent) {
            stock->Put(std::unique_ptr<std::string>(const_cast<std::string*>(spent)));
        };
        return std::shared_ptr<const std::string>(kept.release(), giveBack);
    }

private:
    static constexpr std::size_t kMost = std::size_t{2} << 20;  // bytes in all

    void Put(std::unique_ptr<std::string> body) noexcept {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_count < m_bodies.size() && m_size + body->capacity() <= kMost) {
            m_size += body->capacity();
            m_bodies[m_count++].swap(*body);
        }
    }

    std::mutex m_mutex;
    std::array<std::string, 32> m_bodies;
    std::size_t m_count = 0;
    std::size_t m_size = 0;
};
