// For the bridge's own sources: the connection to NATS.
#pragma once

#include <nats/nats.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "Log.h"
#include "Options.h"
#include "Window.h"

struct NatsFree {
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
    void operator()(natsSubscription* subscription) const {
        natsSubscription_Destroy(subscription);
    }
    void operator()(natsConnection* connection) const { natsConnection_Destroy(connection); }
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
    void operator()(jsCtx* context) const { jsCtx_Destroy(context); }
};
using NatsMessage = std::unique_ptr<natsMsg, NatsFree>;
using NatsSubscription = std::unique_ptr<natsSubscription, NatsFree>;

// One connection, which comes back by itself when it is lost, unless it is refused again and again.
// May be used on every thread.
class Nats {
public:
    // The names of headers.
    static constexpr const char* kType = "KLVMsg-Type";
    static constexpr const char* kSite = "KLVMsg-Site";
    static constexpr const char* kBridge = "KLVMsg-Bridge";

    // Connects. Throws std::runtime_error with the cause. The options and the log outlive it.
    Nats(const Options& options, Log& log);

    // Sends what is still to go out, closes, and waits for the last that NATS has to tell.
    ~Nats();

    bool IsConnected() const { return m_isConnected; }

    // Whether it comes back no more: a server has refused who the bridge is twice in a row.
    bool IsClosed() const;

    // How often it has come back.
    std::uint64_t Returns() const { return m_returns; }

    // With a reply subject, an id, and the id that the stream's last message is to have: none of
    // them where it is empty. Null, or why it was not taken.
    const char* Publish(const Parcel& parcel, const std::string& reply,
                        const std::string& expected);

    // The same without headers.
    void Tell(const std::string& subject, const std::string& reply, const std::string& text);

    // Whether servers take it at all: for what they do not take they close the connection.
    bool HasRoomFor(const Parcel& parcel) const;

    // What comes on a subject; of those with the same group each message goes to one. Throws
    // std::runtime_error.
    NatsSubscription Subscribe(const std::string& subject, const std::string& group = "");

    // The next one; null when none came in time.
    static NatsMessage Next(natsSubscription* from, std::chrono::milliseconds limit);

    // A subject of one's own for answers, without its last part.
    static std::string Inbox();

    static const char* Header(natsMsg* message, const char* name);
    static std::string_view Body(natsMsg* message);

    natsConnection* Get() { return m_connection.get(); }

    // Throws std::runtime_error for all but NATS_OK.
    static void Check(natsStatus status, const char* what);

private:
    void SetUp(natsOptions* options);
    void SetUpEvents(natsOptions* options);
    void SetUpTls(natsOptions* options);

    const Options& m_options;
    Log& m_log;
    const std::string m_bridge;  // its whole name
    std::atomic<bool> m_isConnected{false};
    std::atomic<std::uint64_t> m_returns{0};
    mutable std::mutex m_mutex;
    std::condition_variable m_closing;
    bool m_isClosed = false;
    std::unique_ptr<natsConnection, NatsFree> m_connection;
};
