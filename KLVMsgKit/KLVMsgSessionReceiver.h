// For the kit's own headers: how a session's driver waits, accepts and receives.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
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

    // Waits for so many milliseconds, shorter when something comes, and takes it: connections, and a
    // message from each of those that have one. Whoever queues something wakes the wait if `wakeable`.
    void Receive(int timeout, bool wakeable) {
        const auto begin = KLVMsgTimeLimit::Clock::now();
        bool busy = TakeAhead();
        Wait(busy ? 0 : timeout, wakeable);
        busy = AcceptAll() || busy;
        std::vector<int> ready;
        busy = Sort(ready) || busy;
        if (!ready.empty()) {
            KLVMsgSessionLibrary::Communicator().WaitConnectionsAndMessages(&m_served, 0);
            Collect(ready);
        }
        if (busy || !ready.empty()) {
            m_pause = 0;
            return;
        }
        m_wakeUp.RenewIfClosed();
        PauseWhenEarly(KLVMsgTimeLimit::Clock::now() - begin <
                       std::chrono::milliseconds(timeout - 1));
    }

private:
    // What a connection that is readable has to read.
    enum Header { kPart, kWhole, kNonsense };

    // The driver waits only when nothing is queued; from then on whoever queues something wakes it.
    void Wait(int timeout, bool wakeable) {
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            const bool work = !m_shared.queue.empty() || !m_shared.arrivals.empty();
            m_shared.asleep = wakeable && !work;
            timeout = work ? 0 : timeout;
        }
        m_connections.waitable.WaitForConnectionAndMessages(timeout);
        const std::lock_guard<std::mutex> lock(m_shared.mutex);
        m_shared.asleep = false;
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

    // Finds out which connections have a header for the library to read. True when there was anything
    // else to do.
    bool Sort(std::vector<int>& ready) {
        const auto found = m_connections.waitable.readyChannels;
        m_connections.waitable.readyChannels.Clear();
        bool busy = false;
        for (std::size_t i = 0; i < found.Size(); ++i) {
            const int number = found[i].connection;
            if (m_wakeUp.Is(found[i])) {
                busy = m_wakeUp.Take() || busy;
                continue;
            }
            const Header header = Look(number);
            if (header == kWhole) {
                ready.push_back(number);
                m_served.readyChannels.PushBack(found[i]);
            } else if (header == kNonsense) {
                m_connections.Lose(number);
                busy = true;
            }
        }
        return busy;
    }

    // What is read of a header in part would be lost, and a length that is none be believed. So it is
    // looked at first. A connection is readable when the shortest message has come, or its end; while a
    // longer header is on its way, the next wait is for all of it.
    Header Look(int number) {
        unsigned int length = 0;
        m_header.resize(sizeof length + static_cast<std::size_t>(m_connections.longestName));
        const ssize_t count =
            recv(number, m_header.data(), m_header.size(), MSG_PEEK | MSG_DONTWAIT);
        if (count <= 0) {
            return count == -1 && errno == EAGAIN ? kPart : kWhole;  // its end is found by reading
        }
        std::memcpy(&length, m_header.data(), sizeof length);
        const bool hasLength = count >= ssize_t{sizeof length};
        if (hasLength &&
            (length == 0 || length > static_cast<unsigned int>(m_connections.longestName))) {
            return kNonsense;
        }
        const bool part = !hasLength || count < static_cast<ssize_t>(sizeof length + length);
        const int header = static_cast<int>(sizeof length + length);
        m_connections.lines.ReadableFrom(
            number, part && hasLength ? header : m_connections.shortestMessage);
        if (part) {
            // Once the peer has ended, there is no more to come.
            return KLVMsgSessionSockets::Await(number, POLLRDHUP, {}) == 0 ? kPart : kWhole;
        }
        return kWhole;
    }

    // Hands over what the library has read. A connection that was ready and has brought no message is
    // at its end, or has sent what cannot be read.
    void Collect(const std::vector<int>& ready) {
        KLVMsgSessionLibrary::Everything everything;
        KLVBasVector<KLVMsgChannelMsgStruct> records;  // the newest first
        KLVMsgSessionLibrary::Communicator().IRetrieveMessagesWithChannel(&everything, records);
        std::vector<int> sound;
        for (std::size_t i = records.Size(); i-- > 0;) {
            const int number = records[i].channel.connection;
            if (Deliver(number, std::unique_ptr<KLVMsgSocketMessage>(records[i].message))) {
                sound.push_back(number);
            }
        }
        m_shared.changed.notify_all();
        std::sort(sound.begin(), sound.end());
        for (const int number : ready) {
            if (!std::binary_search(sound.begin(), sound.end(), number)) {
                m_connections.Lose(number);
            }
        }
    }

    // False when the message is not whole: it is destroyed, and what is left of it would be taken for
    // a header.
    bool Deliver(int number, std::unique_ptr<KLVMsgSocketMessage> message) {
        const KLVMsgSessionLine* const line = m_connections.lines.Find(number);
        const auto* const framed = dynamic_cast<const KLVMsgFramedMessage*>(message.get());
        if (line == nullptr || line->inputBroken || (framed != nullptr && !framed->whole)) {
            return false;
        }
        const KLVMsgSocketMessage& object = *message;
        const std::lock_guard<std::mutex> lock(m_shared.mutex);
        m_shared.inbox[typeid(object)].push_back(
            {line->peer, m_shared.peers[line->peer].label, std::move(message)});
        return true;
    }

    // Messages of which the beginning was read while a write stood still. True when there were any.
    bool TakeAhead() {
        std::vector<int> numbers;
        for (const auto& [number, line] : m_connections.lines.All()) {
            if (!line.ahead.empty()) {
                numbers.push_back(number);
            }
        }
        for (const int number : numbers) {
            bool sound = true;
            while (sound && !m_connections.lines.Find(number)->ahead.empty()) {
                sound = TakeOneAhead(number);
            }
            if (!sound) {
                m_connections.Lose(number);
            }
        }
        if (!numbers.empty()) {
            m_shared.changed.notify_all();
        }
        return !numbers.empty();
    }

    bool TakeOneAhead(int number) {
        unsigned int length = 0;
        if (!m_connections.lines.ReadAll(number, &length, sizeof length) || length == 0 ||
            length > static_cast<unsigned int>(m_connections.longestName)) {
            return false;
        }
        std::string name(length, '\0');
        if (!m_connections.lines.ReadAll(number, name.data(), length)) {
            return false;
        }
        std::unique_ptr<KLVMsgSocketMessage> message(
            KLVMsgSessionLibrary::Registry().GetMsgInstance(name.c_str()));
        if (message == nullptr) {
            return false;
        }
        m_input.m_connectionNumber = number;
        message->ReadMessage(&m_input);
        return Deliver(number, std::move(message));
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
    KLVMsgSessionInput m_input;      // for what was read ahead
    KLVMsgChannelWaitable m_served;  // those that the communicator is to read from
    std::vector<char> m_header;
    unsigned m_pause = 0;  // in milliseconds
};
