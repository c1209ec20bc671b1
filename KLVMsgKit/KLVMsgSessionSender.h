// For the kit's own headers: how a session's driver sends what is queued.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

#include "KLVMsgSessionConnections.h"
#include "KLVMsgSessionLibrary.h"
#include "KLVMsgSessionShared.h"
#include "KLVMsgSocketMessage.h"

// A message on its way to one peer. It sees what the library does with it: whether the body was
// asked for, which tells that the header was taken.
class KLVMsgSessionEnvelope final : public KLVMsgSocketMessage {
public:
    KLVMsgSessionEnvelope(KLVMsgSessionLines& lines, int number, KLVMsgSocketMessage& message)
        : m_lines(lines), m_number(number), m_message(message) {}

    // Called just before the header is sent: where there is room, that does not wait. A connection
    // that is broken has its output ended first, so that nothing is sent.
    KLVString GetMessageType() const override {
        KLVMsgSessionLine& line = *m_lines.Find(m_number);
        if (line.outputBroken || !m_lines.AwaitRoom(m_number)) {
            KLVMsgSessionConnections::EndOutput(m_number);
        } else if (first) {
            KLVMsgSessionLines::Cork(m_number, true);
        }
        line.outputBroken = true;  // until the body has been taken
        const KLVString name = m_message.GetMessageType();
        line.inSegment += sizeof(unsigned int) + static_cast<std::size_t>(name.Length());
        return name;
    }

    int WriteMessage(KLVMsgOutputStream* stream) override {
        KLVMsgSessionLine& line = *m_lines.Find(m_number);
        line.outputBroken = false;
        m_message.WriteMessage(stream);
        sent = !line.outputBroken;
        if (last) {
            KLVMsgSessionLines::Cork(m_number, false);
        }
        return sent ? 1 : 0;
    }

    int ReadMessage(KLVMsgInputStream*) override { return 0; }
    KLVMsgSocketMessage* NewInstance() override { return nullptr; }

    bool first = false;  // on its connection, of those that go now
    bool last = false;
    bool sent = false;  // every byte was taken by the system

private:
    KLVMsgSessionLines& m_lines;
    int m_number;
    KLVMsgSocketMessage& m_message;
};

class KLVMsgSessionSender {
public:
    KLVMsgSessionSender(KLVMsgSessionShared& shared, KLVMsgSessionConnections& connections)
        : m_shared(shared), m_connections(connections) {}

    // Sends what is queued by now, and tells those who wait for it.
    void Transmit() {
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            m_records.swap(m_shared.queue);
        }
        if (m_records.empty()) {
            return;
        }
        std::deque<KLVMsgSessionEnvelope> envelopes;
        const std::vector<const KLVMsgSessionEnvelope*> sent = Address(envelopes);
        KLVMsgSessionLibrary::Communicator().TransmitPendingMessage();
        m_connections.LoseBroken();
        {
            const std::lock_guard<std::mutex> lock(m_shared.mutex);
            for (std::size_t i = 0; i < m_records.size(); ++i) {
                m_records[i].Ends(sent[i] != nullptr && sent[i]->sent);
            }
        }
        m_shared.changed.notify_all();
        m_records.clear();
    }

    // Nothing will be sent any more. Requires: the mutex is held.
    void Fail() {
        for (const auto* const records : {&m_records, &m_shared.queue}) {
            for (const KLVMsgSessionShared::Record& record : *records) {
                record.Ends(false);
            }
        }
        m_shared.queue.clear();
    }

private:
    // Queues an envelope for each record whose peer is there; null for the others.
    std::vector<const KLVMsgSessionEnvelope*> Address(
        std::deque<KLVMsgSessionEnvelope>& envelopes) {
        std::vector<const KLVMsgSessionEnvelope*> addressed;
        std::map<int, KLVMsgSessionEnvelope*> latest;
        for (const KLVMsgSessionShared::Record& record : m_records) {
            const int number = m_connections.Number(record.to);
            if (number == -1) {
                addressed.push_back(nullptr);
                continue;
            }
            auto& envelope = envelopes.emplace_back(m_connections.lines, number, *record.message);
            addressed.push_back(&envelope);
            KLVMsgSessionEnvelope*& before = latest[number];
            envelope.first = before == nullptr;
            before = &envelope;
            unsigned int id = 0;
            KLVMsgSessionLibrary::Communicator().ISendSocketMessage(
                KLVMsgSessionLibrary::Channel(number), &envelope, id);
        }
        for (const auto& [number, envelope] : latest) {
            envelope->last = true;
        }
        return addressed;
    }

    KLVMsgSessionShared& m_shared;
    KLVMsgSessionConnections& m_connections;
    std::deque<KLVMsgSessionShared::Record> m_records;  // under way
};
