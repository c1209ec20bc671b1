// What both turmoils have: threads that act at random until it is over.
#pragma once

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

inline std::atomic<bool> over{false};
inline unsigned int seed = 0;

inline void Require(bool holds, const std::string& what) {
    if (!holds) {
        std::cerr << what << " (seed " << seed << ")\n";
        std::_Exit(1);
    }
}

// A random number below `limit`, for each thread in an order of its own.
inline unsigned int Random(std::size_t limit) {
    static std::atomic<unsigned int> threads{0};
    thread_local std::mt19937 generator(seed + threads++);
    return static_cast<unsigned int>(generator() % limit);
}

// For so many seconds, which are the first argument; the seed is the second.
inline void Start(void (*turmoil)(int seconds), int argc, char** argv) {
    seed = argc > 2 ? static_cast<unsigned int>(std::atoi(argv[2])) : std::random_device()();
    turmoil(argc > 1 ? std::atoi(argv[1]) : 1);
}
