// For the bridge's own sources: from sessions to NATS.
#pragma once

#include <KLVMsgSession.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "Log.h"
#include "Nats.h"
#include "Options.h"
#include "Window.h"

// Takes what comes to the session and publishes it. Without a stream that is all, and what NATS
// does not take at that moment is dropped. With one it is kept until it is stored, and reading
// stops while too many are open. Each tells the stream which one has to be there before it, so that
// they stay in order though many are under way. Where others publish to the stream as well that
// cannot be: there those that are lost while its leader changes may be overtaken.
//
// A message's id is that of its sender and its number. A sender that wants to know what is stored
// says who it is, before its messages, with one of the type KLVMsgBridgeFrom: 8 bytes with the
// number of the next message, in the byte order of the host, and a name of up to 128 letters,
// digits and -_.:/@; another name is no name. It then gets messages of the type KLVMsgBridgeTaken,
// with 8 bytes that are the number of the last one of which all up to it are stored; and what it
// sends twice under the same number, also through another bridge, is stored once. Others are
// numbered from 1 on each connection.
class Publisher {
public:
    // All of them outlive it.
    Publisher(KLVMsgSession& session, Nats& nats, const Options& options, Counts& counts, Log& log);
    ~Publisher();

    void Start();

    // Once the session drains: waits until all that it had is stored. False when that takes longer.
    bool AwaitEnd(std::chrono::milliseconds limit);

private:
    using Lock = std::unique_lock<std::mutex>;
    using Time = Window::Time;

    struct Sender {
        std::string name;
        std::uint64_t next = 1;
        std::uint64_t stored = 0;  // all up to this one
        std::uint64_t told = 0;    // the last that it was told of
        bool wantsToKnow = false;
    };

    // The two threads.
    void Take();
    void AwaitAnswers();

    bool TakeOne();
    bool TakeMany();
    void Accept(KLVMsgPeer peer, std::string type, std::string body);
    void Meet(KLVMsgPeer peer, std::string_view words);
    void Number(Parcel& parcel);
    void PublishOnce(const Parcel& parcel);
    void Pump(Lock& lock);
    void Look(Time now);
    void TellStored(Lock& lock);
    void ForgetThoseWhoHaveGone();
    void Settle(std::uint64_t key, natsMsg* answer);
    void ReplaceLeader();
    void Note(std::size_t done);
    bool IsOurs(const std::string& id) const;
    void Trouble(const std::string& why);

    KLVMsgSession& m_session;
    Nats& m_nats;
    const Options& m_options;
    Routes m_routes;
    Counts& m_counts;
    Log& m_log;
    const bool m_takesMany;     // all are of one class, and none waits for the window
    const std::string m_run;    // tells this process from all others
    const std::string m_inbox;  // for answers, whose last part is a key
    NatsSubscription m_answers;
    Time m_looked = {};
    Time m_cleared = {};

    std::mutex m_mutex;
    std::condition_variable m_hasRoom;
    Window m_window;
    std::unordered_map<std::uint64_t, Sender> m_senders;  // by connection
    bool m_isAlone = true;  // nobody else is known to publish to the stream
    bool m_saidTrouble = false;
    bool m_isDone = false;  // the taking thread
    std::condition_variable m_done;

    std::atomic<bool> m_isOver{false};
    std::thread m_taking;
    std::thread m_answering;
};
