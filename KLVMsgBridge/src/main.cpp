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

// NATS may come up later than the bridge; null: the bridge is to end.
std::unique_ptr<Nats> ConnectToNats(const Options& options, Log& log) {
    for (std::string told; !isOver; std::this_thread::sleep_for(kPeriod * 5)) {
        try {
            return std::make_unique<Nats>(options, log);
        } catch (const std::runtime_error& error) {
            if (told != error.what()) {
                told = error.what();
                log.Say("nats-away", told + "; it is tried again");
            }
        }
    }
    return nullptr;
}

// For as long as it is the bridge's turn.
void Carry(Nats& nats, const Options& options, Turns& turns, Counts& counts, Log& log) {
    using Clock = std::chrono::steady_clock;
    Bridge bridge(nats, options, counts, log, isOver);
    log.Say("carrying", "carrying messages");
    for (auto next = Clock::now() + options.counts;
         !isOver && !nats.IsClosed() && turns.IsMine();) {
        std::this_thread::sleep_for(kPeriod);
        if (options.counts.count() != 0 && Clock::now() >= next) {
            next += options.counts;
            log.Say("counts", counts.Words() + "; the session: " + bridge.Words());
        }
    }
}

// For as long as one connection to NATS lasts.
void TakeTurns(Nats& nats, const Options& options, Counts& counts, Log& log) {
    Turns turns(nats, options, log);
    while (!isOver && !nats.IsClosed()) {
        if (turns.IsMine()) {
            Carry(nats, options, turns, counts, log);
        }
        std::this_thread::sleep_for(kPeriod);
    }
    if (!isOver) {
        log.Say("nats-closed", "NATS has refused the bridge too often: it connects anew");
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
    {
        std::thread watch([&] {
            while (!isOver) {
                const timespec limit{0, 200000000};
                if (sigtimedwait(&signals, nullptr, &limit) > 0) {
                    isOver = true;
                }
            }
        });
        const auto joined = [](std::thread* thread) { thread->join(); };
        const std::unique_ptr<std::thread, decltype(joined)> owner(&watch, joined);
        try {
            while (const std::unique_ptr<Nats> nats = ConnectToNats(options, log)) {
                TakeTurns(*nats, options, counts, log);
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
