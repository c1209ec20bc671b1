// For applications: how long an operation of a session may take.
#pragma once

#include <chrono>
#include <type_traits>

// Made of any duration of std::chrono; one of a year or more is as good as none, and one that is
// not above zero does not wait.
//
//     session.Receive<Greeting>(std::chrono::seconds(5));
class KLVMsgTimeLimit {
public:
    // Does not jump when the time of day is set.
    using Clock = std::chrono::steady_clock;

    // From a duration, rounded up to milliseconds.
    template <class Count, class Period>
    KLVMsgTimeLimit(std::chrono::duration<Count, Period> limit)
        : m_limit(std::chrono::duration<double>(limit) < kLongest
                      ? std::chrono::ceil<std::chrono::milliseconds>(limit)
                      : std::chrono::milliseconds(kLongest)) {}

    // Not from a bare number: the compiler says why.
    template <class Number, class = std::enable_if_t<std::is_arithmetic<Number>::value>>
    KLVMsgTimeLimit(Number) {
        static_assert(!std::is_arithmetic<Number>::value,
                      "KLVMsgTimeLimit: a time limit has a unit, as std::chrono::seconds(5) has");
    }

    // How long it is, and when it is over for what begins now.
    std::chrono::milliseconds Duration() const { return m_limit; }
    Clock::time_point Deadline() const { return Clock::now() + m_limit; }

private:
    static constexpr std::chrono::hours kLongest{24 * 365};

    std::chrono::milliseconds m_limit;
};
