#include "Bridge.h"

#include <stdexcept>
#include <system_error>
#include <thread>

#include "BareMessage.h"
#ifdef KLVMSG_BRIDGE_TLS
#include <KLVMsgTls.h>
#endif

namespace {

constexpr std::chrono::seconds kEnding(10);

KLVMsgSessionOptions Limits() {
    KLVMsgSessionOptions limits;
    // What the session has read is lost with the bridge: the rest stays with its sender.
    limits.inboxLimit = std::size_t{4} << 20;
    return limits;
}

void Check(const KLVMsgOutcome& outcome, const std::string& what) {
    if (!outcome) {
        throw std::runtime_error(what + ": " + outcome.text);
    }
}

}  // namespace

Bridge::Bridge(Nats& nats, const Options& options, Counts& counts, Log& log,
               const std::atomic<bool>& isOver)
    : m_options(options), m_log(log), m_session(Limits()) {
    RegisterTypes();
    if (!options.stream.empty()) {
        PrepareStream(nats, options, log, isOver);
    }
    m_publisher = std::make_unique<Publisher>(m_session, nats, options, counts, log);
    for (const Routes::Inward& route : options.routes.Inwards()) {
        m_subscribers.push_back(
            std::make_unique<Subscriber>(m_session, nats, options, route, counts, log, isOver));
    }
    Check(m_session.Observe([this](const KLVMsgEvent& event) { OnEvent(event); }), "events");
    OpenPlaces();
    Check(m_session.Start(), "the session");
    m_publisher->Start();
    for (const auto& subscriber : m_subscribers) {
        subscriber->Start();
    }
}

Bridge::~Bridge() {
    m_subscribers.clear();
    std::thread draining;
    try {
        draining = std::thread([this] { m_session.Drain(kEnding); });
    } catch (const std::system_error&) {  // no thread can be had
        m_session.End(std::chrono::milliseconds(0));
    }
    if (!m_publisher->AwaitEnd(kEnding)) {
        m_log.Say("left", "not everything was stored in time");
    }
    m_session.Disconnect(KLVMsgPeers::All());  // or they would be waited for
    if (draining.joinable()) {
        draining.join();
    }
    m_publisher.reset();
}

std::string Bridge::Words() {
    const KLVMsgCounts counts = m_session.Counts();
    return "connections " + std::to_string(counts.connections) + ", received " +
           std::to_string(counts.messagesReceived) + ", sent " +
           std::to_string(counts.messagesSent) + ", queued " +
           std::to_string(counts.messagesQueued) + ", in the inbox " +
           std::to_string(counts.messagesInInbox) + ", stalled " + std::to_string(counts.stalled);
}

void Bridge::RegisterTypes() {
    for (const auto& [type, rule] : m_options.rules.All()) {
        Check(m_session.Register(BareMessage(type, rule)), type);
    }
    Check(m_session.RegisterOthers(), "all types");
}

void Bridge::OpenPlaces() {
#ifdef KLVMSG_BRIDGE_TLS
    if (!m_options.certificate.empty()) {
        const KLVMsgTls tls({m_options.certificate, m_options.key, m_options.authority});
        return Open(tls);
    }
#endif
    Open();
}

// With what protects, if anything.
template <class... Protection>
void Bridge::Open(const Protection&... protection) {
    for (const Options::Place& place : m_options.serves) {
        int port = 0;
        const KLVMsgSocketAddress address(place.host.c_str(), place.port);
        Check(m_session.Serve(address, &port, protection...),
              "cannot serve port " + std::to_string(place.port));
        m_labels.emplace_back(port, place.label);
        m_log.Say("serving", "serving on " + place.host + ", port " + std::to_string(port));
    }
    for (const Options::Place& place : m_options.connects) {
        const KLVMsgSocketAddress address(place.host.c_str(), place.port);
        Check(m_session.Keep(address, place.label, protection...),
              "cannot connect to " + place.label);
    }
}

// Who is served gets the label of the port before anything of him is received.
void Bridge::OnEvent(const KLVMsgEvent& event) {
    if (event.kind == KLVMsgEvent::kCame) {
        const int port = m_session.Info(event.peer).ServedPort();
        for (const auto& [served, label] : m_labels) {
            if (port != 0 && served == port) {
                m_session.SetLabel(event.peer, label);
            }
        }
    }
    m_log.Say("session", event.what);
}
