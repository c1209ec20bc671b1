// For the kit's own headers: the thread of a session that moves all messages. It alone calls the
// communicator and closes connections.
#pragma once

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <exception>
#include <mutex>
#include <string>

#include "KLVBasAtiThreadTask.h"
#include "KLVBasUtlsleep.h"
#include "KLVMsgSessionConnections.h"
#include "KLVMsgSessionLibrary.h"
#include "KLVMsgSessionReceiver.h"
#include "KLVMsgSessionSender.h"
#include "KLVMsgSessionShared.h"
#include "KLVMsgSessionStreams.h"
#include "KLVMsgSessionWakeUp.h"

class KLVMsgSessionDriver : public KLVBasAtiThreadTask {
public:
    KLVMsgSessionDriver(KLVMsgSessionShared& shared, bool atOnce, std::chrono::milliseconds stall)
        : m_shared(shared), m_atOnce(atOnce), m_connections(shared, stall) {}

    // Of the session, before the driver runs -----------------------------------------------------

    // A type that may come, by the length of its name.
    void AddType(std::size_t nameLength) {
        m_connections.longestName = std::max(m_connections.longestName, nameLength);
    }

    // Has the library write by way of the session, and makes the wake-up.
    KLVMsgOutcome Prepare() {
        KLVMsgSessionLibrary::Communicator().SetDefaultOutputStream(&m_output);
        return m_wakeUp.Make();
    }

    // And after it has ended: closes what is left.
    void Close() {
        m_connections.Adopt();
        KLVMsgSessionLibrary::Communicator().RemoveConnection(nullptr, true);
        m_wakeUp.Close();
        m_shared.inbox.clear();
    }

    // Moves messages until the session ends.
    int Run(int) override {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
            sigdelset(&all, fault);
        }
        pthread_sigmask(SIG_BLOCK, &all, nullptr);  // signals are for the application's threads
        std::string fault;
        try {
            while (Cycle()) {
            }
        } catch (const std::exception& error) {
            fault = error.what();
        }
        Finish(fault);
        return 1;
    }

private:
    // One round; false when the session has ended.
    bool Cycle() {
        bool ending = false;  // asked first: whatever was queued before the end is transmitted
        KLVMsgTimeLimit::Clock::time_point limit;
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            ending = m_shared.ending;
            limit = m_shared.endLimit;
        }
        m_connections.Adopt();
        m_sender.Transmit();
        if (ending) {
            m_connections.EndOutputs();
            if (m_connections.lines.All().empty() || KLVMsgTimeLimit::Clock::now() >= limit) {
                return false;
            }
        }
        m_receiver.Receive(ending || !m_atOnce ? 20 : 500, m_atOnce, m_atOnce || ending);
        if (!m_atOnce && !ending) {
            KLVBasUtlsleep(100);
        }
        return true;
    }

    // Nobody waits any longer for what will not come.
    void Finish(const std::string& fault) {
        const std::lock_guard<std::mutex> lock(m_shared.mutex);
        m_shared.ending = true;
        m_shared.closed = m_connections.lines.All().empty();
        m_shared.fault = fault;
        m_shared.peers.clear();
        m_sender.Fail();
        m_shared.changed.notify_all();
    }

    KLVMsgSessionShared& m_shared;
    const bool m_atOnce;
    KLVMsgSessionConnections m_connections;
    KLVMsgSessionWakeUp m_wakeUp{m_shared, m_connections};
    KLVMsgSessionOutput m_output{m_connections.lines};
    KLVMsgSessionSender m_sender{m_shared, m_connections};
    KLVMsgSessionReceiver m_receiver{m_shared, m_connections, m_wakeUp};
};
