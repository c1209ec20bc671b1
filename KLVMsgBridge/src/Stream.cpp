#include "Stream.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>

#include "Text.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// How long a message may be open before the server sends it again.
constexpr std::chrono::seconds kOpen(5);
constexpr std::size_t kAskedAtOnce = 512;
constexpr std::chrono::seconds kAskedFor(5);
constexpr std::chrono::seconds kSilence = 2 * kAskedFor;

constexpr std::int64_t Nanoseconds(std::chrono::seconds time) {
    return std::chrono::nanoseconds(time).count();
}

using Context = std::unique_ptr<jsCtx, NatsFree>;
Context MakeContext(Nats& nats) {
    jsCtx* made = nullptr;
    Nats::Check(natsConnection_JetStream(&made, nats.Get(), nullptr), "JetStream");
    return Context(made);
}

struct InfoFree {
    void operator()(jsStreamInfo* info) const { jsStreamInfo_Destroy(info); }
    void operator()(jsConsumerInfo* info) const { jsConsumerInfo_Destroy(info); }
};
using Info = std::unique_ptr<jsStreamInfo, InfoFree>;

// All subjects that the bridge publishes to and reads, those left out that others cover.
std::vector<std::string> Wanted(const Options& options) {
    std::vector<std::string> subjects;
    for (const auto& [type, subject] : options.routes.Outwards()) {
        subjects.push_back(subject);
    }
    for (const Routes::Inward& inward : options.routes.Inwards()) {
        subjects.push_back(inward.subject);
    }
    std::vector<std::string> wanted;
    for (const std::string& one : subjects) {
        const auto covers = [&](const std::string& other) {
            return other != one && Routes::Covers(other, one);
        };
        if (std::none_of(subjects.begin(), subjects.end(), covers) &&
            std::find(wanted.begin(), wanted.end(), one) == wanted.end()) {
            wanted.push_back(one);
        }
    }
    return wanted;
}

natsStatus MakeStream(jsCtx* context, const Options& options, Log& log, jsErrCode& code) {
    const std::vector<std::string> wanted = Wanted(options);
    std::vector<const char*> subjects = Pointers(wanted);
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = options.stream.c_str();
    config.Subjects = subjects.data();
    config.SubjectsLen = static_cast<int>(subjects.size());
    config.Replicas = options.replicas;
    config.Duplicates = Nanoseconds(kKnowsIds);
    const natsStatus status = js_AddStream(nullptr, context, &config, nullptr, &code);
    if (status == NATS_OK) {
        log.Say("stream", "made the stream " + options.stream);
    }
    return status;
}

// Adds the subjects that are missing.
natsStatus Complete(jsCtx* context, jsStreamInfo& info, const Options& options, Log& log,
                    jsErrCode& code) {
    jsStreamConfig& config = *info.Config;
    std::vector<const char*> subjects(config.Subjects, config.Subjects + config.SubjectsLen);
    const std::vector<std::string> wanted = Wanted(options);
    for (const std::string& one : wanted) {
        const bool isThere = std::any_of(subjects.begin(), subjects.end(), [&](const char* other) {
            return Routes::Covers(other, one);
        });
        if (!isThere) {
            // Those that it covers would overlap.
            subjects.erase(
                std::remove_if(subjects.begin(), subjects.end(),
                               [&](const char* other) { return Routes::Covers(one, other); }),
                subjects.end());
            subjects.push_back(one.c_str());
            log.Say("stream", "added " + one + " to the stream " + options.stream);
        }
    }
    jsStreamConfig changed = config;
    changed.Subjects = subjects.data();
    changed.SubjectsLen = static_cast<int>(subjects.size());
    const bool isSame = subjects.size() == static_cast<std::size_t>(config.SubjectsLen) &&
                        std::equal(subjects.begin(), subjects.end(), config.Subjects);
    return isSame ? NATS_OK : js_UpdateStream(nullptr, context, &changed, nullptr, &code);
}

natsStatus PrepareOnce(jsCtx* context, const Options& options, Log& log, jsErrCode& code) {
    jsStreamInfo* found = nullptr;
    natsStatus status = js_GetStreamInfo(&found, context, options.stream.c_str(), nullptr, &code);
    const Info info(found);
    if (status == NATS_NOT_FOUND) {
        return MakeStream(context, options, log, code);
    }
    if (status == NATS_OK) {
        status = Complete(context, *info, options, log, code);
    }
    if (status == NATS_OK && info->Config->Duplicates < Nanoseconds(kLongestCut)) {
        log.Say("short-memory", "the stream " + options.stream + " knows ids for " +
                                    std::to_string(info->Config->Duplicates / 1000000000) +
                                    " s: after a longer cut messages may be there twice");
    }
    return status;
}

// Asks again where there was no answer, as during an election, until there is one or `isOver`.
template <class Question>
void AwaitAnswer(const Nats& nats, const std::string& what, Log& log,
                 const std::atomic<bool>& isOver, const Question& ask) {
    for (bool isTold = false; !isOver;) {
        jsErrCode code{};
        const natsStatus status = ask(code);
        const bool isAway = status == NATS_TIMEOUT || status == NATS_NO_RESPONDERS ||
                            status == NATS_CONNECTION_DISCONNECTED ||
                            code == JSClusterNotAvailErr || !nats.IsConnected();
        if (status == NATS_OK || !isAway || nats.IsClosed()) {
            return Nats::Check(status, what.c_str());
        }
        if (!std::exchange(isTold, true)) {
            log.Say("stream-away", what + " does not answer yet");
        }
        std::this_thread::sleep_for(milliseconds(200));
    }
}

}  // namespace

void PrepareStream(Nats& nats, const Options& options, Log& log, const std::atomic<bool>& isOver) {
    const Context context = MakeContext(nats);
    AwaitAnswer(nats, "the stream " + options.stream, log, isOver,
                [&](jsErrCode& code) { return PrepareOnce(context.get(), options, log, code); });
}

StreamReader::StreamReader(Nats& nats, const Options& options, const Routes::Inward& route,
                           Log& log, const std::atomic<bool>& isOver)
    : m_nats(nats),
      m_log(log),
      m_stream(options.stream),
      m_name([&] {
          std::string name = options.site + "-" +
                             (options.group.empty() ? options.name : options.group) + "-" +
                             route.subject + "-" + route.label;
          for (char& one : name) {
              const bool isPlain = std::isalnum(static_cast<unsigned char>(one)) || one == '-';
              one = one == '*' ? 'A' : one == '>' ? 'Z' : isPlain ? one : '_';
          }
          return name;
      }()),
      m_returns(nats.Returns()) {
    Listen();
    MakeConsumer(route.subject, isOver);
}

void StreamReader::MakeConsumer(const std::string& subject, const std::atomic<bool>& isOver) {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = m_name.c_str();
    config.DeliverPolicy = js_DeliverNew;
    config.AckPolicy = js_AckAll;
    config.AckWait = Nanoseconds(kOpen);
    config.FilterSubject = subject.c_str();
    config.MaxAckPending = 4 * static_cast<std::int64_t>(kAskedAtOnce);
    jsConsumerInfo* made = nullptr;
    const Context context = MakeContext(m_nats);
    const std::string what = "the stream " + m_stream + ", read by " + m_name;
    AwaitAnswer(m_nats, what, m_log, isOver, [&](jsErrCode& code) {
        const natsStatus status = js_GetConsumerInfo(&made, context.get(), m_stream.c_str(),
                                                     m_name.c_str(), nullptr, &code);
        return status == NATS_NOT_FOUND
                   ? js_AddConsumer(&made, context.get(), m_stream.c_str(), &config, nullptr, &code)
                   : status;
    });
    const std::unique_ptr<jsConsumerInfo, InfoFree> owner(made);
    if (made != nullptr && made->NumAckPending != 0) {
        Settle();
    }
}

// Something that was sent has not come, or another one of this name had it. It is sent again, and
// before what is new, once the server gives it up: until then nothing is read.
void StreamReader::Settle() {
    m_heard = m_quietUntil = Clock::now() + kOpen + std::chrono::seconds(1);
    m_asked = 0;
    m_last.sent = 0;
    Listen();
}

// On a new subject: what is still sent to the one before would not be all that is missing.
void StreamReader::Listen() {
    m_inbox = Nats::Inbox() + "m";
    m_messages = m_nats.Subscribe(m_inbox);
    natsSubscription_SetPendingLimits(m_messages.get(), -1, -1);
}

void StreamReader::Ask(Time now) {
    if (m_asked <= kAskedAtOnce / 2 || now - m_askedAt >= kAskedFor) {
        m_nats.Tell("$JS.API.CONSUMER.MSG.NEXT." + m_stream + "." + m_name, m_inbox,
                    "{\"batch\":" + std::to_string(kAskedAtOnce) +
                        ",\"expires\":" + std::to_string(Nanoseconds(kAskedFor)) + "}");
        m_asked = now - m_askedAt >= kAskedFor ? kAskedAtOnce : m_asked + kAskedAtOnce;
        m_askedAt = now;
    }
}

std::vector<NatsMessage> StreamReader::Read(std::size_t most, milliseconds limit) {
    std::vector<NatsMessage> read;
    const Time now = Clock::now();
    if (m_nats.Returns() != m_returns) {
        m_returns = m_nats.Returns();
        Settle();
    }
    if (now < m_quietUntil || !m_nats.IsConnected()) {
        std::this_thread::sleep_for(limit);
        return read;
    }
    Ask(now);
    while (read.size() < most) {
        NatsMessage message = Nats::Next(m_messages.get(), read.empty() ? limit : milliseconds(0));
        if (message == nullptr) {
            break;
        }
        m_heard = now;
        m_saidAway = false;
        if (Nats::Header(message.get(), "Status") != nullptr) {
            continue;  // what was asked for has expired
        }
        m_asked -= m_asked == 0 ? 0 : 1;
        const std::uint64_t before = m_last.stream;
        if (!IsNext(message.get())) {
            m_log.Say("gap",
                      "the stream's next message has not come: waiting until it is sent again");
            Settle();
            break;
        }
        if (m_last.stream > before) {
            read.push_back(std::move(message));
        } else {
            m_last.stream = before;  // it was handed out already
        }
    }
    ExpectAnswer(now);
    return read;
}

// Whoever is asked says at least that the time is over.
void StreamReader::ExpectAnswer(Time now) {
    if (now - m_heard >= kSilence && !std::exchange(m_saidAway, true)) {
        m_log.Say("reader-away",
                  "nobody answers for the reader " + m_name + " of the stream " + m_stream);
    }
}

// Whether nothing is missing before it.
bool StreamReader::IsNext(natsMsg* message) {
    Place place;
    if (!FindPlace(message, place) || (m_last.sent != 0 && place.sent != m_last.sent + 1)) {
        return false;
    }
    m_last = place;
    return true;
}

// The subject for answers tells: $JS.ACK.STREAM.NAME.TIMES.STREAM-SEQUENCE.SENT-SEQUENCE...., or
// with domain and account before the stream.
bool StreamReader::FindPlace(natsMsg* message, Place& place) {
    const char* const reply = natsMsg_GetReply(message);
    const std::vector<std::string> parts = Split(reply == nullptr ? "" : reply, '.');
    const std::size_t first = parts.size() == 9 ? 5 : 7;
    if (parts.size() < first + 2 || parts[1] != "ACK") {
        return false;
    }
    place.stream = std::strtoull(parts[first].c_str(), nullptr, 10);
    place.sent = std::strtoull(parts[first + 1].c_str(), nullptr, 10);
    return true;
}

void StreamReader::Acknowledge(natsMsg* last) { m_nats.Tell(natsMsg_GetReply(last), "", "+ACK"); }

void StreamReader::StillAtIt(natsMsg* last) { m_nats.Tell(natsMsg_GetReply(last), "", "+WPI"); }
