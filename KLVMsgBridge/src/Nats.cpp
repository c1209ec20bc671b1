#include "Nats.h"

#include <stdexcept>
#include <vector>

#include "Text.h"

namespace {

constexpr std::int64_t kAsk = 2000;          // ms between two questions whether the server is there
constexpr std::int64_t kAgain = 250;         // ms between two attempts to come back
constexpr std::size_t kHeaders = 512;        // bytes at the most, but for type, site and bridge
constexpr std::size_t kMostHeaders = 65535;  // bytes that a stream stores
constexpr std::size_t kSubject = 2048;  // bytes: servers take lines of 4096, with the reply's in it

// Which server it is; without user and password, which the URL may have.
std::string ServerOf(natsConnection* connection) {
    char url[256] = "";
    natsConnection_GetConnectedUrl(connection, url, sizeof url);
    const std::string text = url;
    const std::size_t user = text.find("//") + 2, at = text.rfind('@');
    return at == text.npos ? text : text.substr(0, user) + text.substr(at + 1);
}

}  // namespace

void Nats::Check(natsStatus status, const char* what) {
    if (status != NATS_OK) {
        const char* const detail = nats_GetLastError(nullptr);
        std::string text = std::string(what) + ": " + natsStatus_GetText(status);
        if (detail != nullptr && *detail != '\0') {
            text += std::string(" (") + detail + ")";
        }
        throw std::runtime_error(text);
    }
}

Nats::Nats(const Options& options, Log& log)
    : m_options(options), m_log(log), m_bridge(options.site + "/" + options.name) {
    natsOptions* made = nullptr;
    Check(natsOptions_Create(&made), "NATS");
    const std::unique_ptr<natsOptions, NatsFree> owner(made);
    SetUp(made);
    SetUpEvents(made);
    SetUpTls(made);
    natsConnection* connection = nullptr;
    m_isConnected = true;  // it may be lost before the next line is done
    Check(natsConnection_Connect(&connection, made), "cannot connect to NATS");
    m_connection.reset(connection);
    m_log.Say("nats-connected", "connected to " + ServerOf(connection));
}

// What NATS tells comes on a thread of its own, one after the other: after this nothing more.
Nats::~Nats() {
    natsConnection_Close(m_connection.get());
    std::unique_lock<std::mutex> lock(m_mutex);
    m_closing.wait(lock, [this] { return m_isClosed; });
}

bool Nats::IsClosed() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_isClosed;
}

void Nats::SetUp(natsOptions* made) {
    const std::vector<std::string> urls = Split(m_options.nats, ',');
    std::vector<const char*> servers = Pointers(urls);
    Check(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())), "--nats");
    natsOptions_SetName(made, m_bridge.c_str());
    natsOptions_SetMaxReconnect(made, -1);
    natsOptions_SetReconnectWait(made, kAgain);
    natsOptions_SetReconnectJitter(made, kAgain, kAgain);
    natsOptions_SetPingInterval(made, kAsk);
    natsOptions_SetMaxPingsOut(made, 2);
    natsOptions_SetNoEcho(made, true);
}

void Nats::SetUpEvents(natsOptions* made) {
    natsOptions_SetErrorHandler(
        made,
        [](natsConnection*, natsSubscription*, natsStatus status, void* self) {
            static_cast<Nats*>(self)->m_log.Say("nats-error",
                                                std::string("NATS: ") + natsStatus_GetText(status));
        },
        this);
    natsOptions_SetDisconnectedCB(
        made,
        [](natsConnection* connection, void* self) {
            static_cast<Nats*>(self)->m_isConnected = false;
            if (!natsConnection_IsClosed(connection)) {
                static_cast<Nats*>(self)->m_log.Say("nats-lost", "the connection to NATS is lost");
            }
        },
        this);
    natsOptions_SetReconnectedCB(
        made,
        [](natsConnection* connection, void* self) {
            ++static_cast<Nats*>(self)->m_returns;
            static_cast<Nats*>(self)->m_isConnected = true;
            static_cast<Nats*>(self)->m_log.Say("nats-connected",
                                                "connected again, to " + ServerOf(connection));
        },
        this);
    natsOptions_SetClosedCB(
        made,
        [](natsConnection*, void* self) {
            Nats& nats = *static_cast<Nats*>(self);
            const std::lock_guard<std::mutex> lock(nats.m_mutex);
            nats.m_isClosed = true;
            nats.m_closing.notify_all();  // with the lock held: it is gone as soon as that is free
        },
        this);
}

void Nats::SetUpTls(natsOptions* made) {
    if (!m_options.natsAuthority.empty()) {
        Check(natsOptions_SetSecure(made, true), "TLS");
        Check(natsOptions_LoadCATrustedCertificates(made, m_options.natsAuthority.c_str()),
              m_options.natsAuthority.c_str());
    }
    if (!m_options.natsCertificate.empty()) {
        Check(natsOptions_LoadCertificatesChain(made, m_options.natsCertificate.c_str(),
                                                m_options.natsKey.c_str()),
              m_options.natsCertificate.c_str());
    }
    if (!m_options.natsCredentials.empty()) {
        Check(natsOptions_SetUserCredentialsFromFiles(made, m_options.natsCredentials.c_str(),
                                                      nullptr),
              m_options.natsCredentials.c_str());
    }
}

const char* Nats::Publish(const Parcel& parcel, const std::string& reply,
                          const std::string& expected) {
    natsMsg* made = nullptr;
    natsStatus status =
        natsMsg_Create(&made, parcel.subject.c_str(), reply.empty() ? nullptr : reply.c_str(),
                       parcel.body.data(), static_cast<int>(parcel.body.size()));
    const NatsMessage message(made);
    const auto put = [&](const char* name, const std::string& value) {
        if (status == NATS_OK && !value.empty()) {
            status = natsMsgHeader_Set(made, name, value.c_str());
        }
    };
    put(kType, parcel.type);
    put(kSite, m_options.site);
    put(kBridge, m_bridge);
    put("Nats-Msg-Id", parcel.id);
    put("Nats-Expected-Last-Msg-Id", expected);
    if (status == NATS_OK) {
        status = natsConnection_PublishMsg(m_connection.get(), made);
    }
    return status == NATS_OK ? nullptr : natsStatus_GetText(status);
}

void Nats::Tell(const std::string& subject, const std::string& reply, const std::string& text) {
    const int size = static_cast<int>(text.size());
    if (reply.empty()) {
        natsConnection_Publish(m_connection.get(), subject.c_str(), text.data(), size);
    } else {
        natsConnection_PublishRequest(m_connection.get(), subject.c_str(), reply.c_str(),
                                      text.data(), size);
    }
}

bool Nats::HasRoomFor(const Parcel& parcel) const {
    const auto most = natsConnection_GetMaxPayload(m_connection.get());
    const std::size_t headers =
        kHeaders + parcel.type.size() + m_bridge.size() + m_options.site.size();
    return parcel.subject.size() <= kSubject && headers <= kMostHeaders &&
           parcel.body.size() + headers <= static_cast<std::size_t>(most);
}

NatsSubscription Nats::Subscribe(const std::string& subject, const std::string& group) {
    natsSubscription* made = nullptr;
    Check(group.empty() ? natsConnection_SubscribeSync(&made, m_connection.get(), subject.c_str())
                        : natsConnection_QueueSubscribeSync(&made, m_connection.get(),
                                                            subject.c_str(), group.c_str()),
          subject.c_str());
    return NatsSubscription(made);
}

NatsMessage Nats::Next(natsSubscription* from, std::chrono::milliseconds limit) {
    natsMsg* message = nullptr;
    natsSubscription_NextMsg(&message, from, limit.count());
    return NatsMessage(message);
}

std::string Nats::Inbox() {
    natsInbox* made = nullptr;
    Check(natsInbox_Create(&made), "NATS");
    std::string text = made;
    natsInbox_Destroy(made);
    return text + '.';
}

const char* Nats::Header(natsMsg* message, const char* name) {
    const char* value = nullptr;
    return natsMsgHeader_Get(message, name, &value) == NATS_OK ? value : nullptr;
}

std::string_view Nats::Body(natsMsg* message) {
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}
