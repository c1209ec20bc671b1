#include "Subscriber.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "BareMessage.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPeriod(100);
constexpr std::chrono::seconds kTaking(2);
constexpr std::size_t kMostAtOnce = 256;                  // messages that one Send waits for
constexpr std::size_t kMostBytes = std::size_t{1} << 20;  // of them

KLVMsgOutcome Nobody() {
    return {KLVMsgOutcome::kPeerGone, 0, "no connection has the label, or one of them has gone"};
}

}  // namespace

Subscriber::Subscriber(KLVMsgSession& session, Nats& nats, const Options& options,
                       const Routes::Inward& route, Counts& counts, Log& log,
                       const std::atomic<bool>& isOver)
    : m_session(session), m_options(options), m_route(route), m_counts(counts), m_log(log) {
    if (options.stream.empty()) {
        m_messages = nats.Subscribe(route.subject, options.group);
    } else {
        m_reader = std::make_unique<StreamReader>(nats, options, route, log, isOver);
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
        Tell(posted);
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
    const BodyRule* const rule = m_options.rules.Of(TypeOf(message));
    const bool isBody = rule == nullptr || rule->IsBody(Nats::Body(message));
    if (!cameBack && !isBody) {
        ++m_counts.undelivered;
        m_log.Say("no-body", "it is no body of " + TypeOf(message) + " by its rule");
    }
    return !cameBack && isBody;
}

std::vector<natsMsg*> Subscriber::Ours(const std::vector<NatsMessage>& messages) {
    std::vector<natsMsg*> ours;
    for (const NatsMessage& message : messages) {
        if (IsForUs(message.get())) {
            ours.push_back(message.get());
        }
    }
    return ours;
}

std::string Subscriber::TypeOf(natsMsg* message) {
    const char* const header = Nats::Header(message, Nats::kType);
    return header != nullptr ? header : Routes::TypeOf(natsMsg_GetSubject(message));
}

// Runs of messages, of which all but the last one are queued: they go out before it on every
// connection, so that all have been taken when it has. Where a connection goes meanwhile, what was
// queued for it goes with it: then the run begins anew.
bool Subscriber::HandOver(const std::vector<NatsMessage>& messages) {
    std::vector<natsMsg*> ours = Ours(messages);
    std::vector<KLVMsgPeer> there;
    std::size_t bytes = 0;
    for (std::size_t run = 0, done = 0; done < ours.size();) {
        if (done == run) {
            there = m_session.Peers(m_route.label);
            bytes = 0;
        }
        bytes += Nats::Body(ours[done]).size();
        const bool ends = done + 1 == ours.size() || bytes > kMostBytes;
        KLVMsgOutcome sent = there.empty() ? Nobody() : Send(ours[done], ends);
        if (sent && ends && !AreThere(there)) {
            sent = Nobody();
        }
        if (sent) {
            ++done;
        }
        if (sent && ends) {
            m_counts.handedOn += done - std::exchange(run, done);
            Tell(sent);
            if (done != ours.size()) {  // slow readers may take minutes for all of them
                m_reader->Acknowledge(ours[done - 1]);
            }
        } else if (sent.status == KLVMsgOutcome::kFailed) {
            LeaveOut(ours, done, sent.text);  // it always will fail: its name is too long
            done = run;
        } else if (!sent) {
            done = sent.status == KLVMsgOutcome::kPeerGone ? run : done;
            Tell(sent);
            m_reader->StillAtIt(messages.back().get());
            std::this_thread::sleep_for(kPeriod);
        }
        if (m_isOver && (ends || !sent) && done != ours.size()) {
            return false;
        }
    }
    return true;
}

void Subscriber::LeaveOut(std::vector<natsMsg*>& ours, std::size_t place, const std::string& why) {
    ++m_counts.undelivered;
    m_log.Say("no-message", "a message for " + m_route.label + ": " + why);
    ours.erase(ours.begin() + static_cast<std::ptrdiff_t>(place));
}

// Whether all of them still are.
bool Subscriber::AreThere(const std::vector<KLVMsgPeer>& peers) {
    const std::vector<KLVMsgPeer> now = m_session.Peers(m_route.label);
    return std::includes(now.begin(), now.end(), peers.begin(), peers.end());
}

// What becomes of the messages, when that is another thing than before.
void Subscriber::Tell(const KLVMsgOutcome& sent) {
    const std::string whose = "what comes for " + m_route.label;
    if (!sent && !std::exchange(m_saidTrouble, true)) {
        m_log.Say(m_reader == nullptr ? "undelivered" : "waiting",
                  whose + (m_reader == nullptr ? " is dropped: " : " waits: ") + sent.text);
    } else if (sent && std::exchange(m_saidTrouble, false)) {
        m_log.Say("delivered", whose + " is handed on again");
    }
}

// Waits for its last byte, or queues it.
KLVMsgOutcome Subscriber::Send(natsMsg* message, bool waits) {
    const std::string type = TypeOf(message);
    const auto send = [&](const auto& one) {
        return waits ? m_session.Send(m_route.label, one, kTaking)
                     : m_session.Post(m_route.label, one);
    };
    const BodyRule* const rule = m_options.rules.Of(type);
    return rule == nullptr ? send(KLVMsgAnyMessage(type, Nats::Body(message)))
                           : send(BareMessage(type, *rule, std::string(Nats::Body(message))));
}
