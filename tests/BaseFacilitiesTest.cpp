// Strings, arrays, tables, mutexes, threads and diagnostics.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <thread>

#include "Faults.h"
#include "Support.h"

TEST(String, CopiesShareTheirTextUntilTheyChange) {
    const int before = Blocks();
    KLVString port("port "), empty(nullptr, 3), same = port, none("");
    EXPECT_EQ(port.Text(), same.Text());
    same += INT_MIN;
    EXPECT_STREQ("port -2147483648", same.Text());
    EXPECT_STREQ("port ", port.Text());
    same = *&same;
    same = KLVString(same);
    EXPECT_STREQ("port -2147483648", same.Text());
    same = empty = KLVString("port", -1);
    EXPECT_EQ(0, same.Length());
    EXPECT_EQ(before + 1, Blocks()) << "only that of the first text";
}

TEST(String, OrderIsThatOfTheBytes) {
    const KLVString sorted[] = {"",          {"\0", 1}, "a", {"a\0", 2}, {"a\0bb", 4},
                                {"a\0c", 3}, "ab",      "b", "\x80"};
    const int count = static_cast<int>(std::size(sorted));
    for (int i = 0; i < count; ++i) {
        for (int j = 0; j < count; ++j) {
            const int order = sorted[i].Compare(sorted[j]);
            EXPECT_EQ((i > j) - (i < j), (order > 0) - (order < 0)) << i << ' ' << j;
            EXPECT_EQ(i == j, sorted[i] == KLVString(sorted[j].Text(), sorted[j].Length()));
        }
    }
    EXPECT_EQ('b', sorted[4][2]);
}

TEST(String, CopiesOnManyThreadsReleaseTheTextOnce) {
    const KLVString text("shared");
    std::vector<std::future<void>> threads(3);
    for (auto& thread : threads) {
        thread = std::async(std::launch::async, [own = text] {
            for (int round = 0; round < 500000; ++round) {
                KLVString copy = own;
                copy = KLVString(copy);
            }
        });
    }
    threads.clear();
    EXPECT_STREQ("shared", text.Text());
}

// The same steps on both; after each, both hold the same.
template <class T>
void FollowsTheStandardVector(const T& first, const T& second) {
    std::mt19937 random;
    KLVBasVector<T> array;
    std::vector<T> model;
    for (int step = 0; step < 2000; ++step) {
        const int position = static_cast<int>(random() % 40) - 1;
        const std::size_t index = static_cast<std::size_t>(position);
        const bool inside = index < model.size();
        if (step % 500 == 0) {
            array.Clear();
            model.clear();
        } else if (random() % 5 < 2) {
            array.Erase(position);
            if (inside) {
                model.erase(model.begin() + position);
            }
        } else {
            model.push_back(inside ? T(model[index]) : step % 2 == 0 ? first : second);
            array.PushBack(inside ? array[index] : model.back());
        }
        KLVBasVector<T> copy(array);
        array = copy;
        copy.PushBack(first);
        copy.Erase(0);
        ASSERT_EQ(model.size(), array.Size());
        for (std::size_t i = 0; i < model.size(); ++i) {
            ASSERT_TRUE(model[i] == array[i]) << "step " << step;
        }
    }
}

TEST(Vector, FollowsTheStandardVector) {
    FollowsTheStandardVector<int>(1, 2);
    FollowsTheStandardVector<KLVString>("one", "two");
}

TEST(IntTable, FollowsTheStandardMapOnKeysOfEitherSign) {
    std::mt19937 random;
    for (int round = 0; round < 30; ++round) {
        std::vector<int> keys = {INT_MIN, INT_MIN + 1, -1, 0, 1, INT_MAX};
        std::generate_n(std::back_inserter(keys), 30, [&] { return static_cast<int>(random()); });
        omi_IntTable<int> table;
        std::map<int, int> model;
        for (int step = 0; step < 200; ++step) {
            const int key = keys[random() % keys.size()];
            if (random() % 2 == 0) {
                table.Insert(key, step);
                model[key] = step;
            } else {
                ASSERT_EQ(model.erase(key) == 1, table.Remove(key));
            }
            ASSERT_EQ(model.count(key) == 1, table.IsMember(key));
            ASSERT_EQ(model.count(key) == 1 ? step : 0, table.Lookup(key));
            std::map<int, int> walked;
            std::vector<unsigned> order;  // upward from 0, then downward from -1
            omi_IntTableIterator<int> position(table);
            ASSERT_TRUE(position.IsDone());
            for (position.First(); !position.IsDone(); position.Next()) {
                const int at = position.CurrentKey();
                walked[at] = position.CurrentValue();
                order.push_back(static_cast<unsigned>(at) ^ (at < 0 ? INT_MAX : 0));
            }
            ASSERT_TRUE(std::is_sorted(order.begin(), order.end()));
            ASSERT_EQ(model, walked);
            ASSERT_EQ(model.size(), table.Size());
        }
    }
}

// Whether a thread of this process sleeps, as one does that waits for a mutex.
static bool Sleeps(int thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string number, name, state;
    stat >> number >> name >> state;
    return state == "S";
}

// A mutex that is held, and threads that sleep until they get it.
class Waiters {
public:
    explicit Waiters(int count) {
        mutex->Lock();
        for (int i = 0; i < count; ++i) {
            std::atomic<int> id{0};
            m_threads.push_back(std::async(std::launch::async, [this, i, &id] {
                id = gettid();
                errno = 0;
                mutex->Lock();
                EXPECT_EQ(0, errno);
                served.push_back(i);
                mutex->Unlock();
            }));
            EXPECT_TRUE(Eventually([&id] { return id != 0 && Sleeps(id); }));
        }
    }
    void AwaitEnd() { m_threads.clear(); }
    const std::unique_ptr<KLVBasAtiMutex> mutex{KLVBasAtiThreadingModel::newMutex()};
    std::vector<int> served;  // in their order

private:
    std::vector<std::future<void>> m_threads;
};

TEST(Mutex, GoesToItsWaitersInTheOrderOfTheirArrival) {
    Waiters waiters(70);
    MutexCalls::mostWoken = errno = 0;
    waiters.mutex->Unlock();
    EXPECT_EQ(0, errno);
    waiters.mutex->Lock();
    waiters.served.push_back(70);
    waiters.mutex->Unlock();
    waiters.AwaitEnd();
    std::vector<int> arrived(71);
    std::iota(arrived.begin(), arrived.end(), 0);
    EXPECT_EQ(arrived, waiters.served);
    EXPECT_LT(0, MutexCalls::mostWoken);
    EXPECT_GE(16, MutexCalls::mostWoken) << "at once: more than those whose turn is near";
    const int calls = MutexCalls::made;
    waiters.mutex->Lock();
    waiters.mutex->Unlock();
    EXPECT_EQ(calls, MutexCalls::made) << "though nobody waits";
}

// With a sanitizer: Unlock leaves the mutex alone once another thread has it.
TEST(Mutex, MayBeDestroyedByTheThreadThatItWasHandedTo) {
    for (int round = 0; round < 500; ++round) {
        KLVBasAtiMutex* const mutex = KLVBasAtiThreadingModel::newMutex();
        mutex->Lock();
        std::thread next([mutex] {
            mutex->Lock();
            mutex->Unlock();
            delete mutex;
        });
        std::this_thread::yield();
        mutex->Unlock();
        next.join();
    }
}

struct Task : KLVBasAtiThreadTask {
    int Run(int argument) override {
        const auto start = std::chrono::steady_clock::now();
        KLVBasUtlsleep(20);
        EXPECT_LE(std::chrono::milliseconds(20), std::chrono::steady_clock::now() - start);
        EXPECT_EQ(0, raise(SIGPIPE)) << "which it outlives";
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_EQ(1, sigismember(&blocked, SIGUSR1)) << "as on the thread that has started it";
        done = true;
        return argument + 7;
    }
    bool done = false;
};

TEST(Thread, OutlivesBrokenPipesAndHandsItsResultToEveryJoin) {
    sigset_t user, before;
    sigemptyset(&user);
    sigaddset(&user, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &user, &before);
    Task task, other;
    {
        KLVBasAtiThread thread(task);
        EXPECT_EQ(7, thread.Join());
        EXPECT_EQ(7, thread.Join());
        const KLVBasAtiThread unjoined(other);
    }
    EXPECT_TRUE(other.done) << "awaited by its destructor";
    pthread_sigmask(SIG_SETMASK, &before, &user);
    EXPECT_EQ(0, sigismember(&user, SIGPIPE)) << "this thread's is as it was";
}

TEST(Memory, ThatIsShortChangesNothing) {
    EXPECT_THROW(mem_OperatorNewThrow(PTRDIFF_MAX), std::bad_alloc);
    EXPECT_EQ(nullptr, mem_Malloc(PTRDIFF_MAX));
    KLVString text("a");
    KLVBasVector<KLVString> array = ListOf<KLVString>({"a", "b", "c", "d"}), other;
    omi_IntTable<KLVBasVector<int>> table;
    const KLVBasVector<int> row = ListOf<int>({1, 2});
    auto rows = ListOf<KLVBasVector<int>>({row, row, row, row});
    struct : KLVBasAtiThreadTask {
        int Run(int) override { return 0; }
    } task;
    const auto show = [&] {
        std::string shown = text.Text();
        for (const KLVString& element : VectorOf(array)) {
            shown += element.Text();
        }
        for (int key = -3; key < 5; ++key) {
            shown += " " + std::to_string(table.Lookup(key).Size());
        }
        return shown + " " + std::to_string(table.Size() + other.Size());
    };
    EXPECT_EQ(1, ShortMemoryChangesNothing([] { KLVString("text"); }, show));
    ShortMemoryChangesNothing([] { KLVString("text", 2); }, show);
    ShortMemoryChangesNothing([&] { text += INT_MIN; }, show);
    ShortMemoryChangesNothing([&] { array.PushBack(array[0]); }, show);
    EXPECT_EQ(6,
              ShortMemoryChangesNothing([&] { rows.PushBack(row); }, [&] { return rows.Size(); }));
    FailEachAllocation([&] { rows.Erase(1); },
                       [&](int, bool) { EXPECT_EQ(1u, rows.Size()) << "not up to the gap"; });
    ShortMemoryChangesNothing([&] { other = array; }, show);
    ShortMemoryChangesNothing([&] { array.Erase(2); }, show);
    for (const int key : {0, 1, 2, 3, 4, -1, -2, -3, 2}) {
        ShortMemoryChangesNothing([&] { table.Insert(key, row); }, show);
    }
    ShortMemoryChangesNothing([&] { KLVBasAtiThread thread(task); }, show);
    EXPECT_EQ("a-2147483648abda 2 2 2 2 2 2 2 2 13", show());
    const int before = Blocks();
    table.Remove(1);
    EXPECT_EQ(before - 1, Blocks()) << "that of the removed row";
}

TEST(DiagnosticsDeathTest, FatalErrorShowsItsTextsAndPlaceAndAborts) {
    EXPECT_EXIT(VORFatalError("one", nullptr, "three", "four", "file", 7),
                testing::KilledBySignal(SIGABRT), "^one three four .file:7.\n$");
}
