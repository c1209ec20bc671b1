#include "Subscriber.h"

#include <utility>
#include <vector>

#include "BareMessage.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPeriod(100);
constexpr std::size_t kMostAtOnce = 256;                  // messages that one Send waits for
constexpr std::size_t kMostBytes = std::size_t{1} << 20;  // of them

}  // namespace

Subscriber::Subscriber(KLVMsgSession& session, Nats& nats, const Options& options,
                       const Routes::Inward& route, Counts& counts, Log& log)
    : m_session(session),
      m_nats(nats),
      m_options(options),
      m_route(route),
      m_counts(counts),
      m_log(log) {
    if (options.stream.empty()) {
        m_messages = nats.Subscribe(route.subject, options.group);
    } else {
        m_reader = std::make_unique<StreamReader>(nats, options, route, log);
    }
}

Subscriber::~Subscriber() {
    m_isOver = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void Subscriber::Start() {
    m_thread = std::thread([this] { m_reader == nullptr ? Run() : RunStream(); });
}

// At most once.
void Subscriber::Run() {
    while (!m_isOver) {
        const NatsMessage message = Nats::Next(m_messages.get(), kPeriod);
        if (message == nullptr || !IsForUs(message.get())) {
            continue;
        }
        const KLVMsgOutcome posted = Send(message.get(), false);
        ++(posted ? m_counts.handedOn : m_counts.undelivered);
        if (!posted && !std::exchange(m_saidTrouble, true)) {
            m_log.Say("undelivered",
                      "what comes for " + m_route.label + " is dropped: " + posted.text);
        } else if (posted && std::exchange(m_saidTrouble, false)) {
            m_log.Say("delivered", "what comes for " + m_route.label + " is handed on again");
        }
    }
}

void Subscriber::RunStream() {
    while (!m_isOver) {
        std::vector<NatsMessage> messages = m_reader->Read(kMostAtOnce, kPeriod);
        if (!messages.empty() && HandOver(messages)) {
            m_reader->Acknowledge(messages.back().get());
        }
    }
}

bool Subscriber::IsForUs(natsMsg* message) {
    ++m_counts.came;
    const char* const site = Nats::Header(message, Nats::kSite);
    const bool cameBack = site != nullptr && m_options.site == site;
    m_counts.cameBack += cameBack ? 1 : 0;
    return !cameBack;
}

// All but the last one are queued: they go out before it on every connection, so that all of them
// have been taken when it has.
bool Subscriber::HandOver(const std::vector<NatsMessage>& messages) {
    std::vector<natsMsg*> ours;
    for (const NatsMessage& message : messages) {
        if (IsForUs(message.get())) {
            ours.push_back(message.get());
        }
    }
    std::size_t bytes = 0;
    for (std::size_t done = 0; done < ours.size();) {
        bytes += Nats::Body(ours[done]).size();
        const bool waits = done + 1 == ours.size() || bytes > kMostBytes;
        const KLVMsgOutcome sent = Send(ours[done], waits);
        if (m_isOver && !sent) {
            return false;
        }
        if (sent || sent.status == KLVMsgOutcome::kFailed) {
            bytes = waits ? 0 : bytes;
            ++(sent ? m_counts.handedOn : m_counts.undelivered);
            ++done;
            if (!sent) {
                m_log.Say("undelivered", "a message for " + m_route.label + ": " + sent.text);
            } else if (waits && std::exchange(m_saidTrouble, false)) {
                m_log.Say("delivered", "what comes for " + m_route.label + " is handed on again");
            }
            continue;
        }
        if (!std::exchange(m_saidTrouble, true)) {
            m_log.Say("waiting", "what comes for " + m_route.label + " waits: " + sent.text);
        }
        m_reader->StillAtIt(messages.back().get());
        std::this_thread::sleep_for(kPeriod);
    }
    return true;
}

// Waits for its last byte, or queues it. Failed: there is no such message, now or later.
KLVMsgOutcome Subscriber::Send(natsMsg* message, bool waits) {
    const char* const header = Nats::Header(message, Nats::kType);
    const std::string type =
        header != nullptr ? header : Routes::TypeOf(natsMsg_GetSubject(message));
    const auto send = [&](const auto& one) {
        return waits ? m_session.Send(m_route.label, one, std::chrono::seconds(1))
                     : m_session.Post(m_route.label, one);
    };
    const BodyRule* const rule = m_options.rules.Of(type);
    if (rule == nullptr) {
        return send(KLVMsgAnyMessage(type, Nats::Body(message)));
    }
    const BareMessage bare(type, *rule, std::string(Nats::Body(message)));
    return bare.IsWhole() ? send(bare)
                          : KLVMsgOutcome{KLVMsgOutcome::kFailed, 0,
                                          "it is no body of " + type + " by its rule"};
}
