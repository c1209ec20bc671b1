// For the kit's own headers: the thread of a session that moves all messages.
//
// Invariants:
// - The driver's thread alone calls the communicator, closes connections, and uses the fields below
//   the line "of the driver alone". Before it runs, and after it has ended, so may the session.
// - m_mutex guards what the application's threads share with it. It is never held while the driver
//   waits, transfers or calls the library, so that a deadline holds whatever a peer does.
// - A peer is in m_peers as long as its connection is there. Its number is looked up by the driver only.
// - Every record that was queued comes to an end: its delivery counts it as sent or as failed.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KLVBasAtiThreadTask.h"
#include "KLVBasUtlsleep.h"
#include "KLVMsgChannelQuery.h"
#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgFramedMessage.h"
#include "KLVMsgMessageQuery.h"
#include "KLVMsgOutcome.h"
#include "KLVMsgSessionSockets.h"
#include "KLVMsgSessionStreams.h"
#include "KLVMsgSocketCommunicator.h"

class KLVMsgSessionDriver : public KLVBasAtiThreadTask {
public:
    using Time = KLVMsgSessionSockets::Time;
    using Clock = KLVMsgSessionSockets::Clock;

    // What has become of the records of one send.
    struct Delivery {
        int left = 0;
        bool failed = false;
    };

    struct Record {
        KLVMsgPeer to;
        std::shared_ptr<KLVMsgSocketMessage> message;
        std::shared_ptr<Delivery> delivery;
    };

    struct Received {
        KLVMsgPeer from;
        std::string label;  // of the connection, when the message came
        std::unique_ptr<KLVMsgSocketMessage> message;
    };

    // A socket that is not yet the library's.
    struct Arrival {
        KLVMsgPeer peer;
        KLVMsgSessionSockets::StreamOwner stream;
        KLVMsgSessionSockets::ServerOwner server;
    };

    KLVMsgSessionDriver(bool atOnce, std::chrono::milliseconds stall)
        : m_atOnce(atOnce), m_stall(stall), m_lines(stall) {}

    // Shared with the session, under m_mutex ------------------------------------------------------

    std::mutex m_mutex;
    std::condition_variable m_changed;          // told of every change of what follows
    std::map<KLVMsgPeer, std::string> m_peers;  // with their labels
    std::vector<Arrival> m_arrivals;            // to be given to the library
    std::deque<Record> m_queue;
    std::unordered_map<std::type_index, std::deque<Received>> m_inbox;
    unsigned long long m_lastPeer = 0;
    bool m_listens = false;
    bool m_running = false;
    bool m_ending = false;  // nothing is queued any more
    Time m_endLimit;        // when it is, how long peers are waited for
    std::string m_fault;    // why the driver has ended by itself

    // Ends the driver's wait, if it waits. Requires: m_mutex is held.
    void Wake() {
        if (m_asleep) {
            const char none[4] = {};
            m_asleep = send(m_wakeUp, none, sizeof none, MSG_DONTWAIT | MSG_NOSIGNAL) == -1;
        }
    }

    // Of the session, before the driver runs -----------------------------------------------------

    // A type that may come, with the bytes of its shortest body.
    void AddType(int nameLength, int shortestBody) {
        const int shortest = 4 + nameLength + shortestBody;
        m_shortest = m_shortest == 0 ? shortest : std::min(m_shortest, shortest);
        m_longestName = std::max(m_longestName, nameLength);
    }

    KLVMsgSessionInput& Input() { return m_input; }
    KLVMsgSessionOutput& Output() { return m_output; }

    // Makes the wake-up, in place of one that is no longer there.
    KLVMsgOutcome MakeWakeUp() {
        int ends[2] = {-1, -1};
        const KLVMsgOutcome outcome = KLVMsgSessionSockets::Pair(ends);
        if (outcome) {
            CloseWakeUp();
            Register(KLVMsgSessionSockets::StreamSocket(ends[0], false));
            m_woken.connection = ends[0];
            m_waitable.channels.PushBack(m_woken);
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_wakeUp = ends[1];
        }
        return outcome;
    }

    // Closes what is left. Requires: the driver does not run.
    void Close() {
        Adopt();
        Communicator().RemoveConnection(nullptr, true);
        CloseWakeUp();
        m_inbox.clear();
    }

    // Moves messages until the session ends.
    int Run(int) override {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
            sigdelset(&all, fault);
        }
        pthread_sigmask(SIG_BLOCK, &all, nullptr);  // a signal would cut a header in pieces
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
    // A message on its way to one peer. It sees what the library does with it: whether the body was
    // asked for, which tells that the header was taken.
    class Envelope final : public KLVMsgSocketMessage {
    public:
        Envelope(KLVMsgSessionDriver& driver, int number, KLVMsgSocketMessage& message)
            : m_driver(driver), m_number(number), m_message(message) {}

        // Called just before the header is sent: where there is room, that does not wait. A connection
        // that is broken has its output ended first, so that nothing is sent.
        KLVString GetMessageType() const override {
            KLVMsgSessionLine& line = *m_driver.m_lines.Find(m_number);
            if (line.outputBroken || !m_driver.m_lines.AwaitRoom(m_number)) {
                line.outputBroken = true;
                m_driver.EndOutput(m_number);
            }
            line.outputBroken = true;  // until the body has been taken
            return m_message.GetMessageType();
        }
        int WriteMessage(KLVMsgOutputStream* stream) override {
            KLVMsgSessionLine& line = *m_driver.m_lines.Find(m_number);
            line.outputBroken = false;
            m_message.WriteMessage(stream);
            m_sent = !line.outputBroken;
            return m_sent;
        }
        int ReadMessage(KLVMsgInputStream*) override { return 0; }
        KLVMsgSocketMessage* NewInstance() override { return nullptr; }

        bool Sent() const { return m_sent; }

    private:
        KLVMsgSessionDriver& m_driver;
        int m_number;
        KLVMsgSocketMessage& m_message;
        bool m_sent = false;
    };

    struct Everything : KLVMsgMessageQuery {
        void Search(const KLVBasVector<KLVMsgSocketMessage*>& messages,
                    KLVBasVector<int>& indexes) const override {
            for (std::size_t i = 0; i < messages.Size(); ++i) {
                indexes.PushBack(static_cast<int>(i));
            }
        }
    };

    struct ByNumber : KLVMsgChannelQuery {
        explicit ByNumber(int wanted) : number(wanted) {}
        void Search(const KLVBasVector<KLVMsgChannel>& in,
                    KLVBasVector<KLVMsgChannel>& out) const override {
            for (std::size_t i = 0; i < in.Size(); ++i) {
                if (in[i].connection == number) {
                    out.PushBack(in[i]);
                }
            }
        }
        int number;
    };

    static KLVMsgSocketCommunicator& Communicator() {
        return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
    }
    static KLVMsgConnectionServicesUtils& Registry() {
        return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
    }

    // One round; false when the session has ended.
    bool Cycle() {
        bool ending = false;  // asked first: whatever was queued before the end is transmitted
        Time limit;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            ending = m_ending;
            limit = m_endLimit;
        }
        Adopt();
        Transmit();
        if (ending) {
            EndOutputs();
            if (m_numbers.empty() || Clock::now() >= limit) {
                return false;
            }
        }
        Receive(ending || !m_atOnce ? 20 : 500);
        if (!m_atOnce && !ending) {
            KLVBasUtlsleep(100);
        }
        return true;
    }

    // Connections ---------------------------------------------------------------------------------

    // Gives the library the sockets that the application's threads have opened.
    void Adopt() {
        std::vector<Arrival> arrivals;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            arrivals.swap(m_arrivals);
        }
        for (Arrival& arrival : arrivals) {
            KLVMsgChannel channel;
            if (arrival.server != nullptr) {
                channel.connection = arrival.server->descriptor;
                MakeRoom(channel.connection);
                Register(std::move(arrival.server));
                m_servers.push_back(channel.connection);
            } else {
                channel.connection = arrival.stream->descriptor;
                MakeRoom(channel.connection);
                Register(std::move(arrival.stream));
                Begin(channel.connection, arrival.peer);
            }
            Communicator().AddConnection(channel, true);
            m_waitable.channels.PushBack(channel);
        }
    }

    // The system has given this number out anew: whoever had it has gone.
    void MakeRoom(int number) {
        if (m_numbers.count(number) != 0) {
            Lose(number);
        }
        Registry().ShutDownConnection(number);
    }

    template <class Owner>
    static void Register(Owner socket) {
        Registry().AddConnection(socket.get());
        socket.release();
    }

    void Begin(int number, KLVMsgPeer peer) {
        KLVMsgSessionSockets::SetOptions(number, m_stall);
        m_numbers[number] = peer;
        m_byPeer[peer] = number;
        m_lines.All()[number] = KLVMsgSessionLine();
        m_lines.ReadableFrom(number, std::max(m_shortest, 1));
    }

    // The library has accepted a connection, and forgotten who had its number before.
    void Accept(const KLVMsgChannel& channel) {
        const int number = channel.connection;
        if (number >= FD_SETSIZE) {
            Registry().ShutDownConnection(number);  // no wait would ever find it readable
            return;
        }
        Forget(number);
        KLVMsgPeer peer;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            peer.id = ++m_lastPeer;
            m_peers[peer];
        }
        m_changed.notify_all();
        Begin(number, peer);
        Communicator().AddConnection(channel, true);
        m_waitable.channels.PushBack(channel);
    }

    // The connection has gone, or is of no use any more: the library removes it, and then its peer is
    // no longer there.
    void Lose(int number) {
        ByNumber query(number);
        Communicator().RemoveConnection(&query, true);
        Unwatch(number);
        Forget(number);
    }

    void Forget(int number) {
        const auto found = m_numbers.find(number);
        if (found == m_numbers.end()) {
            return;
        }
        const KLVMsgPeer peer = found->second;
        m_byPeer.erase(peer);
        m_numbers.erase(found);
        m_lines.All().erase(number);
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_peers.erase(peer);
        }
        m_changed.notify_all();
    }

    void Unwatch(int number) {
        for (std::size_t i = 0; i < m_waitable.channels.Size(); ++i) {
            if (m_waitable.channels[i].connection == number) {
                m_waitable.channels.Erase(static_cast<int>(i--));
            }
        }
    }

    static void EndOutput(int number) {
        KLVMsgChannel channel;
        channel.connection = number;
        KLVMsgSocket* const socket = channel.GetSocket();
        if (socket != nullptr) {
            static_cast<KLVMsgCommSocket*>(socket)->ShutDownOutput();
        }
    }

    // Everything has been sent: the peers read the end of the stream behind it, and close.
    void EndOutputs() {
        for (const int server : m_servers) {
            Lose(server);
        }
        m_servers.clear();
        if (!m_outputsEnded) {
            for (const auto& [number, peer] : m_numbers) {
                EndOutput(number);
            }
        }
        m_outputsEnded = true;
    }

    // Sending -------------------------------------------------------------------------------------

    void Transmit() {
        std::deque<Record> records;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            records.swap(m_queue);
        }
        if (records.empty()) {
            return;
        }
        std::deque<Envelope> envelopes;
        std::vector<const Envelope*> sent;
        for (const Record& record : records) {
            const auto found = m_byPeer.find(record.to);
            if (found == m_byPeer.end()) {
                sent.push_back(nullptr);
                continue;
            }
            Envelope& envelope = envelopes.emplace_back(*this, found->second, *record.message);
            sent.push_back(&envelope);
            KLVMsgChannel channel;
            channel.connection = found->second;
            unsigned int id = 0;
            Communicator().ISendSocketMessage(channel, &envelope, id);
        }
        Communicator().TransmitPendingMessage();
        LoseBroken();
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (std::size_t i = 0; i < records.size(); ++i) {
            if (records[i].delivery != nullptr) {
                --records[i].delivery->left;
                records[i].delivery->failed |= sent[i] == nullptr || !sent[i]->Sent();
            }
        }
        m_changed.notify_all();
    }

    // Where the peer has ended the connection, what it said before that is still to be read; reading
    // finds the end.
    void LoseBroken() {
        std::vector<int> broken;
        for (const auto& [number, line] : m_lines.All()) {
            if (line.outputBroken &&
                (!Registry().IsConnectionOpen(number) ||
                 KLVMsgSessionSockets::Await(number, POLLRDHUP, Clock::now()) == 0)) {
                broken.push_back(number);
            }
        }
        for (const int number : broken) {
            Lose(number);
        }
    }

    // Receiving -----------------------------------------------------------------------------------

    void Receive(int timeout) {
        bool busy = TakeAhead();
        const Time begin = Clock::now();
        m_waitable.WaitForConnectionAndMessages(PrepareWait(busy ? 0 : timeout));
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_asleep = false;
        }
        busy = busy || m_waitable.newChannels.Size() != 0;
        for (std::size_t i = 0; i < m_waitable.newChannels.Size(); ++i) {
            Accept(m_waitable.newChannels[i]);
        }
        m_waitable.newChannels.Clear();

        std::vector<int> ready;
        for (std::size_t i = 0; i < m_waitable.readyChannels.Size(); ++i) {
            const KLVMsgChannel channel = m_waitable.readyChannels[i];
            if (channel == m_woken) {
                busy = TakeWakeUp() || busy;
            } else if (HasHeader(channel.connection)) {
                ready.push_back(channel.connection);
                m_served.readyChannels.PushBack(channel);
            }
        }
        m_waitable.readyChannels.Clear();
        if (!ready.empty()) {
            Communicator().WaitConnectionsAndMessages(&m_served, 0);
            Collect(ready);
        }
        if (busy || !ready.empty()) {
            m_pause = 0;
            return;
        }
        if (!Registry().IsConnectionOpen(m_woken.connection)) {
            RenewWakeUp();
        }
        PauseWhenEarly(Clock::now() - begin < std::chrono::milliseconds(timeout - 1));
    }

    // The driver waits only when nothing is queued; from then on whoever queues something wakes it.
    int PrepareWait(int timeout) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const bool work = !m_queue.empty() || !m_arrivals.empty();
        m_asleep = m_atOnce && !work;
        return work ? 0 : timeout;
    }

    // True when something was there; makes a wake-up that was closed anew.
    bool TakeWakeUp() {
        char bytes[64];
        const ssize_t count = recv(m_woken.connection, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count == 0 || (count == -1 && errno != EAGAIN && errno != EINTR)) {
            RenewWakeUp();
        }
        return count > 0;
    }

    void RenewWakeUp() {
        const KLVMsgOutcome outcome = MakeWakeUp();
        if (!outcome) {
            throw std::runtime_error("the session's wake-up is lost: " + outcome.text);
        }
    }

    // False while a header is on its way: what is read of it in part would be lost. A connection is
    // readable when the shortest message has come, or its end; where a header can be longer than
    // that, it is looked at first, and the next wait is for the rest of it.
    bool HasHeader(int number) {
        const int readable = std::max(m_shortest, 1);
        if (4 + m_longestName <= readable) {
            return true;
        }
        m_header.resize(4 + static_cast<std::size_t>(m_longestName));
        const ssize_t count =
            recv(number, m_header.data(), m_header.size(), MSG_PEEK | MSG_DONTWAIT);
        unsigned int length = 0;
        std::memcpy(&length, m_header.data(), sizeof length);
        const bool partial = count >= 4 && length <= static_cast<unsigned int>(m_longestName) &&
                             count < 4 + static_cast<ssize_t>(length);
        m_lines.ReadableFrom(number, partial ? 4 + static_cast<int>(length) : readable);
        return (!partial && count >= 4) ||
               KLVMsgSessionSockets::Await(number, POLLRDHUP, Clock::now()) != 0;
    }

    // Messages of which the beginning was read while a write stood still. True when there were any.
    bool TakeAhead() {
        std::vector<int> numbers;
        for (const auto& [number, line] : m_lines.All()) {
            if (!line.ahead.empty()) {
                numbers.push_back(number);
            }
        }
        for (const int number : numbers) {
            bool sound = true;
            while (sound && !m_lines.All()[number].ahead.empty()) {
                sound = TakeOneAhead(number);
            }
            if (!sound) {
                Lose(number);
            }
        }
        return !numbers.empty();
    }

    bool TakeOneAhead(int number) {
        unsigned int length = 0;
        if (!ReadAll(number, reinterpret_cast<char*>(&length), sizeof length) || length == 0 ||
            length > static_cast<unsigned int>(m_longestName)) {
            return false;
        }
        std::string name(length, '\0');
        if (!ReadAll(number, name.data(), static_cast<int>(length))) {
            return false;
        }
        std::unique_ptr<KLVMsgSocketMessage> message(Registry().GetMsgInstance(name.c_str()));
        if (message == nullptr) {
            return false;
        }
        m_input.m_connectionNumber = number;
        message->ReadMessage(&m_input);
        return Deliver(number, std::move(message));
    }

    bool ReadAll(int number, char* field, int length) {
        for (int done = 0; done < length;) {
            const int count = m_lines.Read(number, field + done, length - done);
            if (count <= 0) {
                return false;
            }
            done += count;
        }
        return true;
    }

    // Hands over what the library has read. A connection that was ready and has brought no message is
    // at its end, or has sent what cannot be read.
    void Collect(const std::vector<int>& ready) {
        Everything everything;
        KLVBasVector<KLVMsgChannelMsgStruct> records;  // the newest first
        Communicator().IRetrieveMessagesWithChannel(&everything, records);
        std::vector<int> sound;
        for (std::size_t i = records.Size(); i-- > 0;) {
            const int number = records[i].channel.connection;
            if (Deliver(number, std::unique_ptr<KLVMsgSocketMessage>(records[i].message))) {
                sound.push_back(number);
            }
        }
        std::sort(sound.begin(), sound.end());
        for (const int number : ready) {
            if (!std::binary_search(sound.begin(), sound.end(), number)) {
                Lose(number);
            }
        }
    }

    // False when the message is not whole: it is destroyed, and what is left of it would be taken for
    // a header.
    bool Deliver(int number, std::unique_ptr<KLVMsgSocketMessage> message) {
        const auto found = m_numbers.find(number);
        const auto* const framed = dynamic_cast<const KLVMsgFramedMessage*>(message.get());
        if (found == m_numbers.end() || m_lines.All()[number].inputBroken ||
            (framed != nullptr && !framed->whole)) {
            return false;
        }
        const KLVMsgSocketMessage& object = *message;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_inbox[typeid(object)].push_back(
                {found->second, m_peers[found->second], std::move(message)});
        }
        m_changed.notify_all();
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

    // The end ------------------------------------------------------------------------------------

    void CloseWakeUp() {
        if (m_woken.connection != -1) {
            Unwatch(m_woken.connection);
            Registry().ShutDownConnection(m_woken.connection);
            m_woken.connection = -1;
            const std::lock_guard<std::mutex> lock(m_mutex);
            close(m_wakeUp);
            m_wakeUp = -1;
        }
    }

    // Nobody waits any longer for what will not come.
    void Finish(const std::string& fault) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_running = false;
        m_ending = true;
        m_fault = fault;
        m_peers.clear();
        for (const Record& record : m_queue) {
            if (record.delivery != nullptr) {
                --record.delivery->left;
                record.delivery->failed = true;
            }
        }
        m_queue.clear();
        m_changed.notify_all();
    }

    int m_wakeUp = -1;      // the application's end, under m_mutex
    bool m_asleep = false;  // somebody must wake it, under m_mutex

    // Of the driver alone -------------------------------------------------------------------------

    const bool m_atOnce;
    const std::chrono::milliseconds m_stall;
    int m_shortest = 0;  // message that the types can form, in bytes
    int m_longestName = 0;
    KLVMsgSessionLines m_lines;
    KLVMsgSessionInput m_input{m_lines};
    KLVMsgSessionOutput m_output{m_lines};
    KLVMsgChannel m_woken;             // the driver's end of the wake-up
    KLVMsgChannelWaitable m_waitable;  // all connections
    KLVMsgChannelWaitable m_served;    // those that the communicator is to read from
    std::map<int, KLVMsgPeer> m_numbers;
    std::map<KLVMsgPeer, int> m_byPeer;
    std::vector<int> m_servers;
    std::vector<char> m_header;
    bool m_outputsEnded = false;
    unsigned m_pause = 0;  // in milliseconds
};
