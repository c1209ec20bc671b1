// For the kit's own headers: how a session's driver waits, accepts and receives.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <typeindex>
#include <utility>
#include <vector>

#include "KLVBasUtlsleep.h"
#include "KLVMsgFramedMessage.h"
#include "KLVMsgSessionConnections.h"
#include "KLVMsgSessionLibrary.h"
#include "KLVMsgSessionShared.h"
#include "KLVMsgSessionStreams.h"
#include "KLVMsgSessionWakeUp.h"

class KLVMsgSessionReceiver {
public:
    KLVMsgSessionReceiver(KLVMsgSessionShared& shared, KLVMsgSessionConnections& connections,
                          KLVMsgSessionWakeUp& wakeUp)
        : m_shared(shared),
          m_connections(connections),
          m_wakeUp(wakeUp),
          m_input(connections.lines) {}

    // Waits for so many milliseconds, shorter when something comes, and takes it: connections, and
    // of each connection one message, or all that have come. Whoever queues something wakes the
    // wait if `wakeable`.
    void Receive(int timeout, bool wakeable, bool all) {
        const auto begin = KLVMsgTimeLimit::Clock::now();
        const bool queued = Wait(HasHeaders() ? 0 : timeout, wakeable);
        const bool accepted = AcceptAll();
        const bool filled = FillAll();
        if (TakeAll(all) || filled || accepted || queued) {
            m_pause = 0;
            return;
        }
        m_wakeUp.RenewIfClosed();
        PauseWhenEarly(KLVMsgTimeLimit::Clock::now() - begin <
                       std::chrono::milliseconds(timeout - 1));
    }

private:
    // The driver waits only when nothing is queued; from then on whoever queues something wakes it.
    // True when something was.
    bool Wait(int timeout, bool wakeable) {
        bool work = false;
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            work = !m_shared.queue.empty() || !m_shared.arrivals.empty();
            m_shared.asleep = wakeable && !work;
            timeout = work ? 0 : timeout;
        }
        m_connections.waitable.WaitForConnectionAndMessages(timeout);
        const std::lock_guard<std::mutex> lock(m_shared.mutex);
        m_shared.asleep = false;
        return work;
    }

    // True when somebody has come.
    bool AcceptAll() {
        auto& accepted = m_connections.waitable.newChannels;
        for (std::size_t i = 0; i < accepted.Size(); ++i) {
            m_connections.Accept(accepted[i]);
        }
        const bool any = accepted.Size() != 0;
        accepted.Clear();
        return any;
    }

    // Takes from the system what has come. True when there was anything. A connection that has a
    // message left leaves the rest there, so that a peer which is faster has to wait.
    bool FillAll() {
        auto& ready = m_connections.waitable.readyChannels;
        bool any = false;
        for (std::size_t i = 0; i < ready.Size(); ++i) {
            const int number = ready[i].connection;
            KLVMsgSessionLine* const line = m_connections.lines.Find(number);
            if (m_wakeUp.Is(ready[i])) {
                any = m_wakeUp.Take() || any;
            } else if (line != nullptr && !HasHeader(*line)) {
                KLVMsgSessionLines::Fill(number, *line);
                any = true;
            }
        }
        ready.Clear();
        return any;
    }

    // A length that no type has counts, too: it is found out when the header is taken.
    bool HasHeader(const KLVMsgSessionLine& line) const {
        return line.Ahead() >= sizeof(unsigned int) &&
               line.Ahead() - sizeof(unsigned int) >=
                   std::min(NameLength(line), std::size_t{m_connections.longestName});
    }

    bool HasHeaders() const {
        const auto& lines = m_connections.lines.All();
        return std::any_of(lines.begin(), lines.end(),
                           [this](const auto& each) { return HasHeader(each.second); });
    }

    static std::size_t NameLength(const KLVMsgSessionLine& line) {
        unsigned int length = 0;
        std::memcpy(&length, line.Next(), sizeof length);
        return length;
    }

    // True when there were any messages. A connection ends with what cannot be read, and when its
    // last words have been.
    bool TakeAll(bool all) {
        bool any = false;
        std::vector<int> unsound;
        for (auto& [number, line] : m_connections.lines.All()) {
            bool sound = true;
            for (bool more = true; more && sound && HasHeader(line); more = all) {
                sound = TakeOne(number, line);
                any = true;
            }
            if (!sound || (line.ended && !HasHeader(line))) {
                unsound.push_back(number);
            }
        }
        for (const int number : unsound) {
            m_connections.Lose(number);
        }
        return any || !unsound.empty();
    }

    // False when there is no such type, or the message does not come whole.
    bool TakeOne(int number, KLVMsgSessionLine& line) {
        const std::size_t length = NameLength(line);
        if (length == 0 || length > m_connections.longestName) {
            return false;
        }
        const KLVString name(line.Next() + sizeof(unsigned int), static_cast<int>(length));
        line.Take(sizeof(unsigned int) + length);
        std::unique_ptr<KLVMsgSocketMessage> message(
            KLVMsgSessionLibrary::Registry().GetMsgInstance(name));
        if (message == nullptr) {
            return false;
        }
        m_input.m_connectionNumber = number;
        message->ReadMessage(&m_input);
        return Deliver(line, std::move(message));
    }

    // False when the message is not whole: it is destroyed, and what is left of it would be taken
    // for a header.
    bool Deliver(const KLVMsgSessionLine& line, std::unique_ptr<KLVMsgSocketMessage> message) {
        const auto* const framed = dynamic_cast<const KLVMsgFramedMessage*>(message.get());
        if (line.inputBroken || (framed != nullptr && !framed->whole)) {
            return false;
        }
        const KLVMsgSocketMessage& object = *message;
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            m_shared.inbox[typeid(object)].push_back(
                {line.peer, m_shared.peers[line.peer].label, std::move(message)});
        }
        m_shared.changed.notify_all();
        return true;
    }

    // No fault makes the driver spin: a wait that came back early and did nothing is followed by a
    // pause, which grows to 20 ms.
    void PauseWhenEarly(bool early) {
        m_pause = !early ? 0 : std::min(20U, 2 * m_pause + 1);
        if (m_pause != 0) {
            KLVBasUtlsleep(m_pause);
        }
    }

    KLVMsgSessionShared& m_shared;
    KLVMsgSessionConnections& m_connections;
    KLVMsgSessionWakeUp& m_wakeUp;
    KLVMsgSessionInput m_input;
    unsigned m_pause = 0;  // in milliseconds
};
