// Many threads that each send once while the message task's cycle holds the communicator's lock:
// what handing the lock over costs, beside std::mutex in its place.
#include <dlfcn.h>
#include <sys/resource.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "Sockets.h"

namespace bench {
namespace {

class StandardMutex final : public KLVBasAtiMutex {
public:
    void Lock() override { m_mutex.lock(); }
    void Unlock() override { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

bool standard = false;  // which kind newMutex makes

KLVBasAtiMutex* LibraryMutex() {
    using Make = KLVBasAtiMutex* (*)();
    const auto make =
        reinterpret_cast<Make>(dlsym(RTLD_NEXT, "_ZN23KLVBasAtiThreadingModel8newMutexEv"));
    Require(make != nullptr, "the library's mutex");
    return make();
}

}  // namespace
}  // namespace bench

// The library finds this first.
KLVBasAtiMutex* KLVBasAtiThreadingModel::newMutex() {
    return bench::standard ? new bench::StandardMutex : bench::LibraryMutex();
}

namespace bench {
namespace {

// What the process has spent so far.
struct Spent {
    Spent() {
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        switches = static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
        for (const timeval& time : {usage.ru_utime, usage.ru_stime}) {
            processor += static_cast<double>(time.tv_sec) * 1e9;
            processor += static_cast<double>(time.tv_usec) * 1e3;
        }
    }
    double switches;
    double processor = 0;  // nanoseconds
};

void SendOnce() {
    static const int empty = 0;
    static Message message(nullptr, empty);
    unsigned int id = 0;
    Communicator().ISendSocketMessage(KLVMsgChannel(), &message, id);
}

// The processor time and the context switches of one of `count` threads, from its start to its end.
std::vector<double> SendFromAll(int count) {
    using Lock = KLVBasAtiGlobalSingletonLock<KLVMsgSocketCommunicator>;
    KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Finalize();
    Communicator();
    std::vector<std::thread> threads;
    std::atomic<int> arrived{0};
    const Spent before;
    {
        const Lock cycle;
        for (int i = 0; i < count; ++i) {
            threads.emplace_back([&arrived] {
                ++arrived;
                SendOnce();
            });
        }
        while (arrived != count) {
            std::this_thread::yield();
        }
        KLVBasUtlsleep(20);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const Spent after;
    return {(after.processor - before.processor) / count,
            (after.switches - before.switches) / count};
}

// The times go through the comparison; the switches of the same turns stand beside them.
void Compare(benchmark::State& state, int count) {
    std::vector<double> switches[2];
    Comparison comparison({"processor"});
    for (const bool kind : {false, true}) {
        comparison.Add(kind ? "std::mutex" : "library", [kind, count, &switches] {
            standard = kind;
            const std::vector<double> spent = SendFromAll(count);
            switches[kind].push_back(spent[1]);
            return std::vector<double>{spent[0]};
        });
    }
    comparison.Run(state);
    state.counters["switches:library"] = Median(switches[0]);
    state.counters["switches:std::mutex"] = Median(switches[1]);
}

void RegisterAll() {
    for (const int count : {16, 64, 256, 500}) {
        Register("lock/threads_send_once/" + std::to_string(count), 12,
                 [count](benchmark::State& state) { Compare(state, count); });
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::Main(argc, argv, &bench::RegisterAll); }
