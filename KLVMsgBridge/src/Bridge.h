// For the bridge's own sources: all of it, for as long as it is the bridge's turn.
#pragma once

#include <KLVMsgSession.h>

#include <atomic>
#include <memory>
#include <vector>

#include "Log.h"
#include "Nats.h"
#include "Options.h"
#include "Publisher.h"
#include "Subscriber.h"

// A session, and what goes to and fro between it and NATS.
class Bridge {
public:
    // Does not move anything yet. Throws std::runtime_error where the session, or NATS, refuses
    // what it needs. All of them outlive it.
    Bridge(Nats& nats, const Options& options, Counts& counts, Log& log,
           const std::atomic<bool>& isOver);

    // Takes nothing new, and waits for what is under way.
    ~Bridge();

    // The session's own counts, in words.
    std::string Words();

private:
    void RegisterTypes();
    void OpenPlaces();
    template <class... Protection>
    void Open(const Protection&... protection);
    void OnEvent(const KLVMsgEvent& event);

    const Options& m_options;
    Log& m_log;
    std::vector<std::pair<int, std::string>> m_labels;  // of those who are served, by port
    KLVMsgSession m_session;  // before it ends its thread reads the labels
    std::unique_ptr<Publisher> m_publisher;
    std::vector<std::unique_ptr<Subscriber>> m_subscribers;
};
