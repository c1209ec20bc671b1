// The simulated network for as many seeds as one likes: simulation NUMBER [FIRST]. Aborts with the
// first seed that breaks something, and says what.
#include "Simulation.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

int main(int count, char** words) try {
    const auto number = count > 1 ? std::strtoull(words[1], nullptr, 10) : 1000000;
    const auto first = count > 2 ? std::strtoull(words[2], nullptr, 10) : 1;
    for (auto seed = first; seed != first + number; ++seed) {
        Simulation(seed).Run();
    }
    std::printf("%llu schedules\n", number);
} catch (const std::exception& fault) {
    std::fprintf(stderr, "%s\n", fault.what());
    return 1;
}
