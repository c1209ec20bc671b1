// For the bridge's own sources: from NATS to sessions.
#pragma once

#include <KLVMsgSession.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Log.h"
#include "Nats.h"
#include "Options.h"
#include "Stream.h"

// Hands what comes on one subject to the connections that have one label, on a thread of its own.
// Without a stream what finds nobody, or no room, is dropped. With one a message is acknowledged
// when the session has taken its last byte, and is kept until then.
class Subscriber {
public:
    // All of them outlive it. Waits for a stream that does not answer until `isOver`. Throws
    // std::runtime_error where NATS refuses what it needs.
    Subscriber(KLVMsgSession& session, Nats& nats, const Options& options,
               const Routes::Inward& route, Counts& counts, Log& log,
               const std::atomic<bool>& isOver);
    ~Subscriber();

    void Start();

private:
    void Run();
    void RunStream();

    // Whether a message is one for sessions; it is counted if not.
    bool IsForUs(natsMsg* message);
    std::vector<natsMsg*> Ours(const std::vector<NatsMessage>& messages);

    // Until it is done; false when the bridge ends before.
    bool HandOver(const std::vector<NatsMessage>& messages);
    void LeaveOut(std::vector<natsMsg*>& ours, std::size_t place, const std::string& why);
    bool AreThere(const std::vector<KLVMsgPeer>& peers);
    KLVMsgOutcome Send(natsMsg* message, bool waits);
    void Tell(const KLVMsgOutcome& sent);
    static std::string TypeOf(natsMsg* message);

    KLVMsgSession& m_session;
    const Options& m_options;
    const Routes::Inward m_route;
    Counts& m_counts;
    Log& m_log;
    NatsSubscription m_messages;             // without a stream
    std::unique_ptr<StreamReader> m_reader;  // with one
    bool m_saidTrouble = false;
    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};
