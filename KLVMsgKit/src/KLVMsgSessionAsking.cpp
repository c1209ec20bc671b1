// Questions and answers. The bytes of both are made, and read, on the application's threads; the
// loop finds the question that an answer belongs to.
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <tuple>
#include <utility>

#include "KLVMsgSessionCore.h"

namespace {

// A question or an answer with a number that the session chooses, so that the application's own
// object stays as it is: several threads may ask with one.
class Numbered final : public KLVMsgFramedMessage {
public:
    Numbered(const KLVMsgCallMessage& message, std::uint64_t number)
        : m_message(message), m_number(number) {}

    bool Encode(std::string& bytes) const override { return m_message.EncodeWith(m_number, bytes); }
    bool Decode(std::string_view) override { return false; }
    std::size_t Limit() const override { return m_message.Limit(); }
    KLVMsgSocketMessage* NewInstance() override { return nullptr; }
    KLVString GetMessageType() const override { return m_message.GetMessageType(); }

private:
    const KLVMsgCallMessage& m_message;
    const std::uint64_t m_number;
};

}  // namespace

KLVMsgReceived<KLVMsgSocketMessage> KLVMsgSessionCore::Ask(const KLVMsgPeers& to,
                                                           const KLVMsgCallMessage& question,
                                                           const std::type_info& answer,
                                                           KLVMsgTimeLimit limit) {
    const Time deadline = limit.Deadline();
    KLVMsgReceived<KLVMsgSocketMessage> received;
    KLVMsgOutcome& outcome = received;
    KLVMsgQuestion waiting;
    waiting.type = m_types.OfClass(answer);
    if (waiting.type == KLVMsgMessageTypes::kNone) {
        outcome = {KLVMsgOutcome::kFailed, EINVAL, "no prototype of the answer was registered"};
        return received;
    }
    const std::uint64_t number = ++m_lastQuestion;
    KLVMsgWireWriter bytes(*m_spentBodies);
    Numbered numbered(question, number);
    outcome = bytes.Write(numbered, &numbered, m_options.largestBody);
    if (!outcome) {
        return received;
    }
    Lock lock(m_mutex);
    outcome = PutQuestion(lock, to, bytes, number, waiting, received.peer);
    if (outcome) {
        outcome = AwaitAnswer(lock, waiting, number, received.peer, deadline);
    }
    if (outcome) {
        received.message =
            Unpack(std::move(waiting.answer), waiting.type, waiting.body, received.peer);
        if (received.message == nullptr) {
            const Lock again(m_mutex);
            outcome = Gone(received.peer);
        }
    }
    return received;
}

// Notes the question before it goes: its answer may be there before the sending has ended.
KLVMsgOutcome KLVMsgSessionCore::PutQuestion(Lock& lock, const KLVMsgPeers& to,
                                             const KLVMsgWireWriter& bytes, std::uint64_t number,
                                             KLVMsgQuestion& question, KLVMsgPeer& asked) {
    if (m_isEnding || m_isDraining) {
        return Ended(KLVMsgOutcome::kPeerGone);
    }
    Peer* const peer = NextToAsk(to);
    KLVMsgOutcome outcome;
    if (peer == nullptr) {
        return NobodyToAsk(to);
    }
    if (!Fits(*peer, bytes, outcome)) {
        return outcome;
    }
    peer->lastTurn = number;
    if (!HasRoom(*peer, bytes.Size())) {
        return NoRoom();
    }
    asked = peer->peer;
    peer->questions.emplace(number, &question);
    if (peer->isReadingPaused) {
        LimitReading(*peer);  // for the answer it is read on, up to a measure
    }
    if (peer->isReadingPaused) {
        peer->questions.erase(number);
        return InboxIsFull();
    }
    ++m_questions.asked;
    try {
        Deliver(lock, *peer, bytes, &question.delivery, true);
    } catch (...) {
        --m_questions.asked;
        peer->questions.erase(number);
        throw;
    }
    return outcome;
}

// Why nobody that is meant can be asked at this moment.
KLVMsgOutcome KLVMsgSessionCore::NobodyToAsk(const KLVMsgPeers& to) {
    if (to.HowMeant() == KLVMsgPeers::kLabel && IsAway(to.Label())) {
        return {KLVMsgOutcome::kPeerGone, ENOTCONN,
                "the connection of the label " + to.Label() + " is away"};
    }
    return Gone(to);
}

// Who has not been asked for longest; null when nobody can be asked.
KLVMsgSessionCore::Peer* KLVMsgSessionCore::NextToAsk(const KLVMsgPeers& to) {
    const auto turn = [](const Peer& peer) { return std::tie(peer.lastTurn, peer.peer); };
    Peer* next = nullptr;
    m_book.ForMeant(to, [&](Peer& peer) {
        if (peer.IsThere() && peer.Takes() && (next == nullptr || turn(peer) < turn(*next))) {
            next = &peer;
        }
    });
    return next;
}

KLVMsgOutcome KLVMsgSessionCore::AwaitAnswer(Lock& lock, KLVMsgQuestion& question,
                                             std::uint64_t number, KLVMsgPeer asked,
                                             Time deadline) {
    lock.unlock();  // for good, in the end
    const bool isWoken = question.Wait(deadline);
    if (isWoken && question.isAnswered && question.isSent) {
        return {};
    }
    lock.lock();
    if (Peer* const peer = m_book.Find(asked); peer != nullptr) {
        peer->questions.erase(number);
    }
    if (question.delivery.left != 0) {
        Withdraw(question.delivery);  // also where it waits for a connection that is kept
    }
    const bool isAnswered = question.isAnswered;
    m_questions.failed += question.isOver && !isAnswered ? 1 : 0;
    m_questions.tooLate += question.isOver ? 0 : 1;
    KLVMsgOutcome outcome = isAnswered        ? KLVMsgOutcome()
                            : question.isOver ? std::move(question.failure)
                                              : Late();
    lock.unlock();
    if (question.isOver && !isWoken) {
        question.Wait(Time::max());  // somebody is about to wake it
    }
    return outcome;
}

void KLVMsgSessionCore::FailQuestions(Peer& peer, KLVMsgOutcome::Status status, int error,
                                      std::string_view cause) {
    for (const auto& [number, question] : peer.questions) {
        question->isOver = true;
        question->failure.status = status;
        question->failure.error = error;
        try {
            question->failure.text = cause;
        } catch (const std::bad_alloc&) {
            // Without words, then.
        }
        question->Wake();
    }
    peer.questions.clear();
}

// Gives an answer to whoever waits for it, and drops one for which nobody does. False for what is
// none.
bool KLVMsgSessionCore::TakeAnswer(Peer& peer, KLVMsgParcel::Owner& parcel) {
    std::uint64_t number = 0;
    if (!KLVMsgCallMessage::NumberOf(parcel->Body(), number) ||
        (number & KLVMsgCallMessage::kAnswer) == 0) {
        return false;
    }
    const auto found = peer.questions.find(number & ~KLVMsgCallMessage::kAnswer);
    if (found == peer.questions.end() || found->second->type != parcel->type) {
        ++m_questions.dropped;
        parcel = m_spent.Put(std::move(parcel));
        return true;
    }
    KLVMsgQuestion& question = *found->second;
    peer.questions.erase(found);
    question.body = parcel->Body();
    if (question.body.size() <= sizeof question.bytes) {
        std::memcpy(question.bytes, question.body.data(), question.body.size());
        question.body = {question.bytes, question.body.size()};
        parcel = m_spent.Put(std::move(parcel));
    }
    question.answer = std::move(parcel);
    question.isOver = question.isAnswered = true;
    question.isSent = question.delivery.left == 0;
    ++m_questions.answered;
    *m_lastAnswered = &question;
    m_lastAnswered = &question.nextAnswered;
    return true;
}

// Wakes those whose answers have come, without the mutex: they would wait for it in turn.
void KLVMsgSessionCore::OnGroupCame(Lock& lock) {
    KLVMsgQuestion* question = std::exchange(m_firstAnswered, nullptr);
    m_lastAnswered = &m_firstAnswered;
    if (question != nullptr) {
        lock.unlock();
        while (question != nullptr) {
            std::exchange(question, question->nextAnswered)->Wake();
        }
        lock.lock();
    }
}

KLVMsgOutcome KLVMsgSessionCore::Answer(KLVMsgPeer to, std::uint64_t question,
                                        const KLVMsgCallMessage& answer) {
    if (question == 0) {
        return {};
    }
    Numbered numbered(answer, question | KLVMsgCallMessage::kAnswer);
    return Post(to, numbered, &numbered);
}

KLVMsgQuestionCounts KLVMsgSessionCore::Questions() {
    const Lock lock(m_mutex);
    KLVMsgQuestionCounts counts = m_questions;
    counts.waiting = counts.asked - counts.answered - counts.tooLate - counts.failed;
    return counts;
}
