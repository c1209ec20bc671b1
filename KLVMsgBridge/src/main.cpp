// klvmsg-bridge: messages between sessions and NATS.
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <thread>

#include "Bridge.h"
#include "Text.h"
#include "Turns.h"

namespace {

constexpr std::chrono::milliseconds kPeriod(100);

std::atomic<bool> isOver{false};

// Until one of the signals has come, or the time is over.
bool AwaitEnd(const sigset_t& signals, std::chrono::milliseconds limit) {
    const timespec time{limit.count() / 1000, limit.count() % 1000 * 1000000};
    isOver = isOver || sigtimedwait(&signals, nullptr, &time) > 0;
    return isOver;
}

// NATS may come up later than the bridge; null: the bridge is to end.
std::unique_ptr<Nats> ConnectToNats(const Options& options, Log& log, const sigset_t& signals) {
    std::string told;
    do {
        try {
            return std::make_unique<Nats>(options, log);
        } catch (const std::runtime_error& error) {
            if (told != error.what()) {
                told = error.what();
                log.Say("nats-away", told + "; it is tried again");
            }
        }
    } while (!AwaitEnd(signals, std::chrono::milliseconds(500)));
    return nullptr;
}

// For as long as it is the bridge's turn.
void Carry(Nats& nats, const Options& options, Turns& turns, Counts& counts, Log& log) {
    using Clock = std::chrono::steady_clock;
    Bridge bridge(nats, options, counts, log, isOver);
    log.Say("carrying", "carrying messages");
    for (auto next = Clock::now() + options.counts; !isOver && turns.IsMine();) {
        std::this_thread::sleep_for(kPeriod);
        if (options.counts.count() != 0 && Clock::now() >= next) {
            next += options.counts;
            log.Say("counts", counts.Words() + "; the session: " + bridge.Words());
        }
    }
}

int Run(const Options& options) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Log log(options.isJson);
    Counts counts;
    const std::unique_ptr<Nats> nats = ConnectToNats(options, log, signals);
    if (nats == nullptr) {
        return 0;
    }
    {
        // PrepareStream waits in there: a signal has to reach it.
        std::thread watch([&] {
            while (!AwaitEnd(signals, std::chrono::milliseconds(200))) {
            }
        });
        const auto joined = [](std::thread* thread) { thread->join(); };
        const std::unique_ptr<std::thread, decltype(joined)> owner(&watch, joined);
        try {
            Turns turns(*nats, options, log);
            while (!isOver) {
                if (turns.IsMine()) {
                    Carry(*nats, options, turns, counts, log);
                }
                std::this_thread::sleep_for(kPeriod);
            }
        } catch (...) {
            isOver = true;
            throw;
        }
    }
    log.Say("counts", counts.Words());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const Options options = ParseOptions(argc, argv);
        if (options.isCheck) {
            std::fputs(Describe(options).c_str(), stdout);
            return 0;
        }
        return Run(options);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "klvmsg-bridge: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "klvmsg-bridge: %s\n", error.what());
        return 1;
    }
}
