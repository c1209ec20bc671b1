// The ordered map beside std::map with the same types of key and value.
#include <malloc.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <map>
#include <numeric>

#include "Bench.h"

namespace bench {
namespace {

// Has the compiler believe that a value is used, and read nothing more of it than it must.
template <class T>
void Use(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

struct TextOrder {
    bool operator()(const KLVString& a, const KLVString& b) const { return a.Compare(b) < 0; }
};

// The keys in the order in which they are used, and as many that the map does not hold.
template <class K>
struct Keys {
    std::vector<K> held;
    std::vector<K> absent;
};

Keys<int> IntKeys(int count, bool ascending) {
    Keys<int> keys;
    for (int i = 0; i < count; ++i) {
        keys.held.push_back(2 * i);
        keys.absent.push_back(2 * i + 1);
    }
    if (!ascending) {
        std::mt19937 random(7);
        std::shuffle(keys.held.begin(), keys.held.end(), random);
        std::shuffle(keys.absent.begin(), keys.absent.end(), random);
    }
    return keys;
}

// Texts of 8 to 40 characters. The first ones spell out a number, so that each is there once.
Keys<KLVString> TextKeys(int count) {
    std::mt19937 random(8);
    const auto text = [&random](int number) {
        char characters[41];
        for (int i = 0; i < 40; ++i) {
            characters[i] = static_cast<char>('a' + random() % 26);
        }
        for (int i = 0; i < 8; ++i, number /= 26) {
            characters[(i * 5) % 8] = static_cast<char>('a' + number % 26);
        }
        return KLVString(characters, 8 + static_cast<int>(random() % 33));
    };
    std::vector<int> numbers(2 * static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    std::shuffle(numbers.begin(), numbers.end(), random);
    Keys<KLVString> keys;
    for (const int number : numbers) {
        (number % 2 == 0 ? keys.held : keys.absent).push_back(text(number));
    }
    return keys;
}

// The two maps under the same operations.
template <class K, class V>
class OrderedMap {
public:
    bool Insert(const K& key, const V& value) { return m_map.Insert(key, value); }
    bool Find(const K& key) const { return m_map.IsMember(key); }
    bool Remove(const K& key) { return m_map.Remove(key); }
    std::size_t Walk() const {
        std::size_t seen = 0;
        omi_BtreeIterator<K, V> at(m_map);
        for (at.First(); !at.IsDone(); at.Next()) {
            Use(at.CurrentKey());
            ++seen;
        }
        return seen;
    }
    int Height() { return m_map.Depth(); }

private:
    omi_Btree<K, V> m_map;
};

template <class K, class V, class Order>
class StandardMap {
public:
    bool Insert(const K& key, const V& value) { return m_map.emplace(key, value).second; }
    bool Find(const K& key) const { return m_map.find(key) != m_map.end(); }
    bool Remove(const K& key) { return m_map.erase(key) != 0; }
    std::size_t Walk() const {
        std::size_t seen = 0;
        for (const auto& entry : m_map) {
            Use(entry.first);
            ++seen;
        }
        return seen;
    }

private:
    std::map<K, V, Order> m_map;
};

// The time of `work` for one of `count` entries; `work` returns how many it was done for.
template <class Work>
double Time(std::size_t count, Work work) {
    const double start = Now();
    const std::size_t done = work();
    const double spent = Now() - start;
    Require(done == count, "entries of a map");
    return spent / static_cast<double>(count);
}

template <class K, class Work>
std::size_t CountIf(const std::vector<K>& keys, Work work) {
    std::size_t count = 0;
    for (const K& key : keys) {
        count += work(key) ? 1 : 0;
    }
    return count;
}

// One map from its first insertion to its last removal: insert, hit, miss, walk, remove.
template <class Map, class K, class V>
std::vector<double> Life(const Keys<K>& keys, const V& value) {
    Map map;
    const std::size_t count = keys.held.size();
    const auto find = [&map](const K& key) { return map.Find(key); };
    std::vector<double> times;
    times.push_back(Time(count, [&] {
        return CountIf(keys.held, [&](const K& key) { return map.Insert(key, value); });
    }));
    times.push_back(Time(count, [&] { return CountIf(keys.held, find); }));
    times.push_back(Time(count, [&] { return count - CountIf(keys.absent, find); }));
    times.push_back(Time(count, [&] { return map.Walk(); }));
    times.push_back(Time(
        count, [&] { return CountIf(keys.held, [&](const K& key) { return map.Remove(key); }); }));
    return times;
}

// The medians of several lives where one alone would be too short for the clock.
template <class Map, class K, class V>
Comparison::Turn Lives(const Keys<K>& keys, const V& value) {
    return [&keys, &value] {
        const std::size_t repeats = smoke ? 1 : 1 + 20000 / keys.held.size();
        std::vector<std::vector<double>> byOperation(5);
        for (std::size_t i = 0; i < repeats; ++i) {
            const std::vector<double> times = Life<Map>(keys, value);
            for (std::size_t operation = 0; operation < times.size(); ++operation) {
                byOperation[operation].push_back(times[operation]);
            }
        }
        std::vector<double> medians;
        medians.reserve(byOperation.size());
        for (const auto& times : byOperation) {
            medians.push_back(Median(times));
        }
        return medians;
    };
}

template <class K, class V, class Order>
void Compare(benchmark::State& state, const Keys<K>& keys, const V& value) {
    Comparison comparison({"insert", "hit", "miss", "walk", "remove"});
    comparison.Add("library", Lives<OrderedMap<K, V>>(keys, value));
    comparison.Add("std::map", Lives<StandardMap<K, V, Order>>(keys, value));
    comparison.Run(state);

    OrderedMap<K, V> map;
    CountIf(keys.held, [&](const K& key) { return map.Insert(key, value); });
    state.counters["height"] = map.Height();
    state.counters["optimum"] = std::floor(std::log2(static_cast<double>(keys.held.size())));
}

void CompareInts(benchmark::State& state, int count, bool ascending) {
    const KLVString value("name");
    Compare<int, KLVString, std::less<int>>(state, IntKeys(count, ascending), value);
}

void CompareTexts(benchmark::State& state, int count) {
    KLVMsgSocketMessage* const value = nullptr;
    Compare<KLVString, KLVMsgSocketMessage*, TextOrder>(state, TextKeys(count), value);
}

void RegisterAll() {
    for (const int full : {100, 10000, 1000000}) {
        const int count = smoke ? std::min(full, 10000) : full;
        const int rounds = full == 1000000 ? 1 : 12;
        const std::string suffix = "/" + std::to_string(full);
        Register("map/random_int" + suffix, rounds,
                 [count](benchmark::State& state) { CompareInts(state, count, false); });
        Register("map/ascending_int" + suffix, rounds,
                 [count](benchmark::State& state) { CompareInts(state, count, true); });
        Register("map/text" + suffix, rounds,
                 [count](benchmark::State& state) { CompareTexts(state, count); });
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    // Memory that a map frees stays with the process, or whichever map comes next would pay for the
    // kernel's pages.
    mallopt(M_TRIM_THRESHOLD, INT_MAX);
    return bench::Main(argc, argv, &bench::RegisterAll);
}
