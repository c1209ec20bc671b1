// The simulated network for as many seeds as one likes: simulation NUMBER [FIRST]. Ends with the first
// seed that breaks something, and says what.
#include "Simulation.h"

#include <cstdio>
#include <cstdlib>

int main(int count, char** words) {
    const auto number = [&](int which, const char* otherwise) {
        return std::strtoull(count > which ? words[which] : otherwise, nullptr, 10);
    };
    const std::uint64_t first = number(2, "1");
    const std::uint64_t end = first + number(1, "1000000");
    for (std::uint64_t seed = first; seed != end; ++seed) {
        if (const std::string broken = Simulation::Run(seed); !broken.empty()) {
            std::fprintf(stderr, "%s\n", broken.c_str());
            return 1;
        }
    }
    std::printf("%llu schedules\n", static_cast<unsigned long long>(end - first));
    return 0;
}
