#include "Publisher.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <utility>

#include "BareMessage.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr const char* kFrom = "KLVMsgBridgeFrom";
constexpr const char* kTaken = "KLVMsgBridgeTaken";
constexpr milliseconds kPeriod(20);  // between two looks at what has become late
constexpr std::chrono::seconds kClearing(10);
constexpr int kWrongBefore = 10070;  // JetStream's: another message than expected is the last
constexpr int kTooLong = 10054;      // JetStream's: the message exceeds the stream's limit
constexpr int kInProcess = 10158;    // JetStream's: the id is known, the message not yet stored
constexpr std::size_t kTries = 4;    // in vain, until another leader is asked for
constexpr std::size_t kLongestSender = 128;

std::string MakeRun() {
    std::random_device random;
    char text[24];
    std::snprintf(text, sizeof text, "%08x%08x", random(), random());
    return text;
}

// What an answer of JetStream says is wrong; empty: the message is stored.
std::string Refusal(natsMsg* answer, int& code) {
    if (natsMsg_IsNoResponders(answer)) {
        return "nobody stores messages of that subject at the moment";
    }
    const std::string text(Nats::Body(answer));
    if (text.find("\"error\"") == std::string::npos) {
        const std::size_t place = text.find("\"seq\":");
        if (place == std::string::npos) {
            return "an answer that is none";
        }
        if (std::strtoull(text.c_str() + place + 6, nullptr, 10) != 0) {
            return "";
        }
        code = kInProcess;
        return "it knows a message that it has not stored";
    }
    const std::size_t at = text.find("\"err_code\":");
    code = at == std::string::npos ? 0 : std::atoi(text.c_str() + at + 11);
    const std::size_t words = text.find("\"description\":\"");
    return words == std::string::npos
               ? text
               : text.substr(words + 15, text.find('"', words + 15) - words - 15);
}

// Whether ids that begin with it stay what they are in a header of NATS and in an answer's words.
bool IsSenderName(std::string_view name) {
    const auto isPlain = [](char one) {
        return std::isalnum(static_cast<unsigned char>(one)) != 0 ||
               std::string_view("-_.:/@").find(one) != std::string_view::npos;
    };
    return !name.empty() && name.size() <= kLongestSender &&
           std::all_of(name.begin(), name.end(), isPlain);
}

// Whether more can come.
bool MayGoOn(const KLVMsgOutcome& outcome) {
    return outcome.status != KLVMsgOutcome::kPeerGone && outcome.status != KLVMsgOutcome::kFailed;
}

}  // namespace

Publisher::Publisher(KLVMsgSession& session, Nats& nats, const Options& options, Counts& counts,
                     Log& log)
    : m_session(session),
      m_nats(nats),
      m_options(options),
      m_routes(options.routes),
      m_counts(counts),
      m_log(log),
      m_takesMany(options.stream.empty() && options.rules.All().empty()),
      m_run(MakeRun()),
      m_inbox(Nats::Inbox()),
      m_window([&] {
          Window::Limits limits;
          limits.messages = options.window;
          limits.answer = options.answer;
          return limits;
      }()) {}

Publisher::~Publisher() {
    m_isOver = true;
    for (std::thread* const thread : {&m_taking, &m_answering}) {
        if (thread->joinable()) {
            thread->join();
        }
    }
}

void Publisher::Start() {
    if (!m_options.stream.empty()) {
        m_answers = m_nats.Subscribe(m_inbox + "*");
        natsSubscription_SetPendingLimits(m_answers.get(), -1, -1);
        m_answering = std::thread([this] { AwaitAnswers(); });
    }
    m_taking = std::thread([this] { Take(); });
}

bool Publisher::AwaitEnd(milliseconds limit) {
    Lock lock(m_mutex);
    return m_done.wait_for(lock, limit, [this] { return m_isDone && m_window.IsEmpty(); });
}

// Taking ------------------------------------------------------------------------------------------

void Publisher::Take() {
    while (!m_isOver && (m_takesMany ? TakeMany() : TakeOne())) {
        const Time now = Clock::now();
        if (now - m_looked >= kPeriod) {
            m_looked = now;
            Look(now);
        }
    }
    Lock lock(m_mutex);
    m_isDone = true;
    while (!m_isOver && !m_window.IsEmpty()) {
        m_window.Tick(Clock::now());
        Pump(lock);
        TellStored(lock);
        m_hasRoom.wait_for(lock, kPeriod);
    }
    TellStored(lock);
    m_done.notify_all();
}

// False when nothing more can come.
bool Publisher::TakeOne() {
    milliseconds limit = kPeriod;
    {
        Lock lock(m_mutex);
        limit = m_window.IsInTrouble() ? milliseconds(2) : limit;
        if (!m_window.HasRoom()) {
            m_hasRoom.wait_for(lock, limit);
            return true;
        }
    }
    const KLVMsgReceivedAny any = m_session.ReceiveAny(limit);
    if (auto* const framed = any.As<KLVMsgAnyMessage>()) {
        Accept(any.peer, any.type, std::move(framed->body));
    } else if (auto* const bare = any.As<BareMessage>()) {
        Accept(any.peer, any.type, std::move(bare->body));
    }
    return MayGoOn(any);
}

// The same for all that are there, which is quicker.
bool Publisher::TakeMany() {
    const auto received = m_session.ReceiveAll<KLVMsgAnyMessage>(kPeriod);
    for (const auto& one : received.messages) {
        Accept(one.peer, std::move(one.message->type), std::move(one.message->body));
    }
    return MayGoOn(received);
}

void Publisher::Accept(KLVMsgPeer peer, std::string type, std::string body) {
    Parcel parcel;
    parcel.type = std::move(type);
    parcel.body = std::move(body);
    parcel.peer = peer.id;
    if (parcel.type == kFrom) {
        return Meet(peer, parcel.body);
    }
    parcel.subject = m_routes.Subject(parcel.type);
    const bool hasRoute = !parcel.subject.empty();
    ++(hasRoute ? m_counts.taken : m_counts.noRoute);
    if (m_options.stream.empty()) {
        return hasRoute ? PublishOnce(parcel) : void();
    }
    if (hasRoute && !m_nats.HasRoomFor(parcel)) {
        ++m_counts.dropped;
        m_log.Say("too-long",
                  "a message of " + parcel.type.substr(0, 100) + " is too long for NATS");
        parcel.subject.clear();
    }
    // What goes nowhere is put in too: it counts among what its sender is told of.
    Lock lock(m_mutex);
    Number(parcel);
    m_window.Put(std::move(parcel));
    Pump(lock);
}

// At most once.
void Publisher::PublishOnce(const Parcel& parcel) {
    const char* const why = !m_nats.HasRoomFor(parcel) ? "it is too long"
                            : m_nats.IsConnected()     ? m_nats.Publish(parcel, "", "")
                                                       : "NATS is away";
    ++(why == nullptr ? m_counts.published : m_counts.dropped);
    if (why != nullptr && !std::exchange(m_saidTrouble, true)) {
        m_log.Say("dropped", std::string("messages are dropped: ") + why);
    } else if (why == nullptr && std::exchange(m_saidTrouble, false)) {
        m_log.Say("publishing", "messages are published again; dropped so far: " +
                                    std::to_string(m_counts.dropped));
    }
}

// A sender says who it is.
void Publisher::Meet(KLVMsgPeer peer, std::string_view words) {
    Sender sender;
    const std::string_view name = words.substr(std::min(words.size(), sizeof sender.next));
    if (!IsSenderName(name)) {
        m_log.Say("no-sender", std::string("a message of ") + kFrom + " without a name");
        return;
    }
    std::memcpy(&sender.next, words.data(), sizeof sender.next);
    sender.name = name;
    sender.stored = sender.told = sender.next - 1;
    sender.wantsToKnow = true;
    const Lock lock(m_mutex);
    m_senders[peer.id] = sender;
}

void Publisher::Number(Parcel& parcel) {
    const auto [found, isNew] = m_senders.try_emplace(parcel.peer);
    Sender& sender = found->second;
    if (isNew) {
        sender.name = m_run + "." + std::to_string(parcel.peer);
    }
    parcel.number = sender.next++;
    parcel.id = sender.name + ":" + std::to_string(parcel.number);
}

// Sending -----------------------------------------------------------------------------------------

// The lock is held while NATS takes a message: an answer moves what is in the window.
void Publisher::Pump(Lock&) {
    const Time now = Clock::now();
    if (!m_nats.IsConnected()) {
        m_window.FailAll(now);
        return;
    }
    for (Window::Sending next = m_window.Next(now); next.parcel != nullptr;
         next = m_window.Next(now)) {
        if (next.parcel->subject.empty()) {
            Note(m_window.Stored(next.key));
            continue;
        }
        const bool hasToFollow = m_isAlone && next.before != nullptr;
        const char* const why = m_nats.Publish(*next.parcel, m_inbox + std::to_string(next.key),
                                               hasToFollow ? next.before->id : std::string());
        m_counts.again += next.isAgain ? 1 : 0;
        if (why != nullptr) {
            m_window.Failed(next.key, now);
            Trouble(why);
            return;
        }
    }
}

void Publisher::Look(Time now) {
    Lock lock(m_mutex);
    if (const std::size_t late = m_window.Tick(now); late != 0) {
        Trouble(std::to_string(late) + " got no answer in time");
        ReplaceLeader();
    }
    Pump(lock);
    TellStored(lock);
    if (now - m_cleared >= kClearing) {
        m_cleared = now;
        ForgetThoseWhoHaveGone();
    }
}

// Those who want to know what is stored.
void Publisher::TellStored(Lock&) {
    for (auto& [peer, sender] : m_senders) {
        if (sender.wantsToKnow && sender.stored != sender.told) {
            sender.told = sender.stored;
            const char* const bytes = reinterpret_cast<const char*>(&sender.stored);
            m_session.Post(KLVMsgPeer{peer},
                           KLVMsgAnyMessage(kTaken, {bytes, sizeof sender.stored}));
        }
    }
}

void Publisher::ForgetThoseWhoHaveGone() {
    for (auto sender = m_senders.begin(); sender != m_senders.end();) {
        sender =
            m_session.Info(KLVMsgPeer{sender->first}) ? std::next(sender) : m_senders.erase(sender);
    }
}

// Answers -----------------------------------------------------------------------------------------

void Publisher::AwaitAnswers() {
    while (!m_isOver) {
        const NatsMessage answer = Nats::Next(m_answers.get(), milliseconds(100));
        if (answer != nullptr) {
            const char* const key = std::strrchr(natsMsg_GetSubject(answer.get()), '.');
            Settle(std::strtoull(key + 1, nullptr, 10), answer.get());
        }
    }
}

void Publisher::Settle(std::uint64_t key, natsMsg* answer) {
    int code = 0;
    const std::string why = Refusal(answer, code);
    const Lock lock(m_mutex);
    if (!m_window.Knows(key)) {
        return;  // an answer to what was sent twice
    }
    if (code == kTooLong) {
        m_log.Say("too-long", "the stream takes no message that long");
        ++m_counts.dropped;
        --m_counts.published;  // it counts there with what is done
    } else if (!why.empty()) {
        if (code == kWrongBefore && m_isAlone && !IsOurs(why.substr(why.rfind(' ') + 1))) {
            m_isAlone = false;
            m_log.Say("not-alone",
                      "others publish to the stream too: messages that are lost while "
                      "its leader changes may be stored behind later ones");
        }
        m_window.Failed(key, Clock::now());
        Trouble(why);
        return code == kInProcess ? ReplaceLeader() : void();
    }
    const std::uint64_t overtaken = m_window.Overtaken();
    Note(m_window.Stored(key));
    if (m_window.Overtaken() != overtaken && overtaken == 0) {
        m_log.Say("overtaken", "a message was stored while one before it was not");
    }
}

// Servers that are not in order after their stream's leader has changed: 2.9.10 may store nothing
// of anybody then, and 2.10.27 remembers the ids of messages that it has lost or refused, and takes
// none with such an id. With another leader both go on. Where others publish too their messages
// would suffer from it.
void Publisher::ReplaceLeader() {
    const std::size_t tries = m_window.Tries();
    if (!m_isAlone || tries == 0 || tries % kTries != 0) {
        return;
    }
    if (tries == kTries) {
        m_log.Say("another-leader", "the stream is asked to choose another leader");
    }
    // The answer is for a key that no message has.
    m_nats.Tell("$JS.API.STREAM.LEADER.STEPDOWN." + m_options.stream, m_inbox + "0", "");
}

// What is done with: their senders may be told.
void Publisher::Note(std::size_t done) {
    for (const Parcel& parcel : m_window.Done()) {
        m_counts.published += parcel.subject.empty() ? 0 : 1;
        const auto sender = m_senders.find(parcel.peer);
        if (sender != m_senders.end()) {
            sender->second.stored = parcel.number;
        }
    }
    if (done != 0) {
        m_hasRoom.notify_all();
        if (!m_window.IsInTrouble() && std::exchange(m_saidTrouble, false)) {
            m_log.Say("stored", "messages are stored again");
        }
    }
}

// Whether it is the id of a message that has gone through this bridge.
bool Publisher::IsOurs(const std::string& id) const {
    const std::string name = id.substr(0, id.rfind(':'));
    return std::any_of(m_senders.begin(), m_senders.end(),
                       [&](const auto& sender) { return sender.second.name == name; });
}

void Publisher::Trouble(const std::string& why) {
    if (!std::exchange(m_saidTrouble, true)) {
        m_log.Say("not-stored",
                  "the stream does not store messages: " + why + "; they are kept and sent again");
    }
}
