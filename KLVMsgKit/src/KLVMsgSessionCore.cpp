#include "KLVMsgSessionCore.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

namespace {

// How long a connection that was shut down here is read, so that what the peer was sent arrives.
constexpr std::chrono::seconds kLastWords(5);

constexpr std::chrono::milliseconds kFirstPause(10);
constexpr std::chrono::milliseconds kLongestPause(500);

KLVMsgOutcome Failure(int error, std::string text) {
    return {KLVMsgOutcome::kFailed, error, std::move(text)};
}

// It is held for less time than falling asleep takes, so whoever finds it taken tries a while
// first.
void MakeAdaptive(std::mutex& mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_destroy(mutex.native_handle());
    pthread_mutex_init(mutex.native_handle(), &attributes);
    pthread_mutexattr_destroy(&attributes);
}

}  // namespace

KLVMsgSessionCore::KLVMsgSessionCore(const KLVMsgSessionOptions& options)
    : m_options(options),
      m_process(getpid()),
      m_endSignal(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_loop(m_mutex, *this, m_types, m_options) {
    MakeAdaptive(m_mutex);
    m_ready = m_endSignal.Number() == -1
                  ? KLVMsgSessionSockets::Failure("cannot make what a session waits with", errno)
                  : m_loop.Prepare();
}

KLVMsgSessionCore::~KLVMsgSessionCore() {
    try {
        End(std::chrono::seconds(5));
    } catch (const std::bad_alloc&) {
        // The loop's own destructor ends it.
    }
}

bool KLVMsgSessionCore::IsInChild() const { return getpid() != m_process; }

void KLVMsgSessionCore::Signal(int descriptor) {
    const std::uint64_t one = 1;
    static_cast<void>(!write(descriptor, &one, sizeof one));
}

// Words for which there is no memory are left out: what has been done is told in any case.
KLVMsgOutcome KLVMsgSessionCore::Outcome(KLVMsgOutcome::Status status, int error,
                                         std::string_view words) {
    KLVMsgOutcome outcome;
    outcome.status = status;
    outcome.error = error;
    try {
        outcome.text = words;
    } catch (const std::bad_alloc&) {
        outcome.text.clear();
    }
    return outcome;
}

KLVMsgOutcome KLVMsgSessionCore::Late() {
    return Outcome(KLVMsgOutcome::kTooLate, ETIMEDOUT, "the time was over");
}

KLVMsgOutcome KLVMsgSessionCore::Ended(KLVMsgOutcome::Status status) {
    return Outcome(status, ESHUTDOWN, "the session has ended");
}

KLVMsgOutcome KLVMsgSessionCore::TooMany() {
    return Outcome(KLVMsgOutcome::kFull, EMFILE, "there are as many connections as there may be");
}

KLVMsgOutcome KLVMsgSessionCore::NoRoom() {
    return Outcome(KLVMsgOutcome::kFull, ENOBUFS, "there is no room in the queue");
}

KLVMsgOutcome KLVMsgSessionCore::Gone(const KLVMsgPeers& meant) {
    if (!m_ready) {
        return m_ready;
    }
    // One from which there still is something to be read is not told yet, and has its cause.
    std::string cause;
    m_book.ForMeant(meant, [&](const Peer& peer) {
        if (peer.link != nullptr && !peer.isTold && !peer.link->connection.Takes()) {
            cause = peer.link->connection.Text();
        }
    });
    return {KLVMsgOutcome::kPeerGone, ENOTCONN, cause.empty() ? m_book.WhyGone(meant) : cause};
}

// Requires: the mutex is held.
KLVMsgOutcome KLVMsgSessionCore::IsReady() const {
    return m_isEnding || m_isDraining ? Ended(KLVMsgOutcome::kFailed) : m_ready;
}

// Set-up ------------------------------------------------------------------------------------------

KLVMsgOutcome KLVMsgSessionCore::Register(Message prototype, const std::type_info& type,
                                          const KLVMsgFramedMessage* framed, bool isCall) {
    std::string name;
    Message made;
    try {
        const KLVString text = prototype->GetMessageType();
        name.assign(text.Text(), static_cast<std::size_t>(text.Length()));
        made.reset(prototype->NewInstance());
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        return Failure(EINVAL, "the message's own code failed");
    }
    const Lock lock(m_mutex);
    if (KLVMsgOutcome may = MayRegister(); !may) {
        return may;
    }
    if (name.empty() || name.find('\0') != std::string::npos) {
        return Failure(EINVAL, "a type name is neither empty nor has zero bytes");
    }
    if (m_types.OfName(name) != KLVMsgMessageTypes::kNone) {
        return Failure(EINVAL, "there is a prototype for " + name);
    }
    const KLVMsgSocketMessage* const object = made.get();
    if (object == nullptr || typeid(*object) != type) {
        return Failure(EINVAL, "NewInstance of " + name + " makes an object of another class");
    }
    AddType({name, &type, std::move(prototype), framed != nullptr,
             framed != nullptr ? framed->LargestBody() : 0, isCall});
    return {};
}

KLVMsgOutcome KLVMsgSessionCore::RegisterOthers() {
    auto prototype = std::make_unique<KLVMsgAnyMessage>();
    const std::size_t largest = prototype->LargestBody();
    const Lock lock(m_mutex);
    if (KLVMsgOutcome may = MayRegister(); !may) {
        return may;
    }
    if (m_types.Any() != KLVMsgMessageTypes::kNone) {
        return Failure(EINVAL, "the other types have been registered");
    }
    KLVMsgMessageTypes::Type type{"", &typeid(KLVMsgAnyMessage), std::move(prototype), true,
                                  largest};
    type.isAny = true;
    AddType(std::move(type));
    return {};
}

// Requires: the mutex is held.
KLVMsgOutcome KLVMsgSessionCore::MayRegister() const {
    KLVMsgOutcome ready = IsReady();
    if (ready && m_isStarted) {
        return Failure(EALREADY,
                       "the session has been started: classes are registered before that");
    }
    return ready;
}

// Room first: a type that is known has its place everywhere.
void KLVMsgSessionCore::AddType(KLVMsgMessageTypes::Type type) {
    m_receivers.resize(kSets + m_types.Size() + 1);
    m_inbox.Prepare(m_types.Size() + 1);
    m_types.Add(std::move(type));
}

KLVMsgOutcome KLVMsgSessionCore::Serve(const KLVMsgSocketAddress& address, KLVMsgAdmit admit,
                                       int* port, const Transports& transports) {
    if (!m_ready) {
        return m_ready;
    }
    KLVMsgOutcome outcome = transports == nullptr ? KLVMsgOutcome() : transports->Check();
    std::vector<KLVMsgDescriptor> sockets;
    int bound = address.port;
    if (!outcome || !(outcome = KLVMsgSessionSockets::Listen(address, sockets, bound))) {
        return outcome;
    }
    KLVMsgLoop::Listener made;
    made.text = KLVMsgSessionSockets::Text(KLVMsgSocketAddress(address.host, bound));
    made.port = bound;
    if (admit != nullptr) {
        made.admit = std::make_shared<const KLVMsgAdmit>(std::move(admit));
    }
    const Lock lock(m_mutex);
    const std::uint64_t before = m_book.NextId();
    outcome = IsReady();
    try {
        for (auto socket = sockets.begin(); outcome && socket != sockets.end(); ++socket) {
            KLVMsgLoop::Listener one;
            one.socket = std::move(*socket);
            one.text = made.text;
            one.port = bound;
            one.admit = made.admit;
            one.transports = transports;
            outcome = m_loop.AddListener(m_book.NextId(), std::move(one));
        }
    } catch (const std::bad_alloc&) {
        m_loop.RemoveListeners(bound, before);
        throw;
    }
    if (!outcome) {
        m_loop.RemoveListeners(bound, before);
    } else if (port != nullptr) {
        *port = bound;
    }
    return outcome;
}

KLVMsgOutcome KLVMsgSessionCore::StopServing(int port) {
    const Lock lock(m_mutex);
    KLVMsgOutcome outcome = IsReady();
    if (outcome && (port < 0 || m_loop.RemoveListeners(port) == 0)) {
        outcome = Failure(ENOENT, "nobody is served at port " + std::to_string(port));
    }
    WakeThoseWithoutHope();
    return outcome;
}

KLVMsgOutcome KLVMsgSessionCore::Connect(const KLVMsgSocketAddress& address,
                                         const std::string& label, Time limit, KLVMsgPeer* made,
                                         const Transports& transports) {
    {
        const Lock lock(m_mutex);
        if (KLVMsgOutcome ready = IsReady(); !ready) {
            return ready;
        }
    }
    KLVMsgDescriptor socket;
    KLVMsgOutcome outcome = transports == nullptr ? KLVMsgOutcome() : transports->Check();
    if (outcome) {
        outcome = KLVMsgSessionSockets::Connect(address, limit, m_endSignal.Number(), socket);
    }
    const std::string text = KLVMsgSessionSockets::PeerText(socket.Number());
    std::unique_ptr<KLVMsgTransport> transport;
    if (outcome) {
        transport = Plain(std::move(socket));
        if (transports != nullptr) {
            outcome = Greet(transport, *transports, address, limit);
        }
    }
    const Lock lock(m_mutex);
    if (m_isEnding || m_isDraining) {
        return Ended(KLVMsgOutcome::kFailed);
    }
    if (!outcome) {
        return outcome;
    }
    if (m_live >= m_options.connectionLimit) {
        return TooMany();
    }
    Peer* peer = nullptr;
    outcome = Adopt(std::move(transport), label, text, peer);
    if (made != nullptr && outcome) {
        *made = peer->peer;
    }
    return outcome;
}

KLVMsgOutcome KLVMsgSessionCore::ConnectAgain(const KLVMsgSocketAddress& address,
                                              const std::string& label, Time limit,
                                              KLVMsgPeer* made, const Transports& transports) {
    KLVMsgWaiter waiter;
    for (auto pause = kFirstPause;; pause = std::min(2 * pause, kLongestPause)) {
        KLVMsgOutcome outcome = Connect(address, label, limit, made, transports);
        const Time now = Clock::now();
        if (outcome || outcome.error == ESHUTDOWN || outcome.error == EINVAL || now >= limit) {
            return outcome;
        }
        Lock lock(m_mutex);
        if (!m_isEnding && !m_isDraining) {
            const KLVMsgEntry<KLVMsgWaiter> entry(m_endWaiters, waiter);
            waiter.Wait(lock, std::min(limit, now + pause));
        }
        if (m_isEnding || m_isDraining) {
            return Ended(KLVMsgOutcome::kFailed);
        }
        if (Clock::now() >= limit) {
            return outcome;
        }
    }
}

KLVMsgOutcome KLVMsgSessionCore::Start() {
    const Lock lock(m_mutex);
    KLVMsgOutcome outcome = IsReady();
    if (outcome && !m_isStarted) {
        outcome = m_loop.Start();
        m_isStarted = static_cast<bool>(outcome);
    }
    return outcome;
}

// A connection that was made, or accepted.
KLVMsgOutcome KLVMsgSessionCore::Adopt(std::unique_ptr<KLVMsgTransport> transport,
                                       const std::string& label, const std::string& address,
                                       Peer*& made) {
    Peer& peer = m_book.Add(label, address);
    peer.sent.owner = &peer;
    KLVMsgOutcome outcome;
    try {
        outcome = m_loop.Add(std::move(transport), peer.peer.id, &peer, peer.link);
    } catch (...) {
        m_book.Remove(peer);
        throw;
    }
    if (!outcome) {
        m_book.Remove(peer);
        return outcome;
    }
    ++m_live;
    made = &peer;
    TellCame(peer, *peer.link->transport);
    return outcome;
}

// Connections -------------------------------------------------------------------------------------

KLVMsgOutcome KLVMsgSessionCore::SetLabel(KLVMsgPeer peer, const std::string& label) {
    const Lock lock(m_mutex);
    if (m_isEnding) {
        return Ended(KLVMsgOutcome::kPeerGone);
    }
    Peer* const found = m_book.Find(peer);
    if (found == nullptr || !found->IsThere()) {
        return Gone(peer);
    }
    if (found->keep != nullptr) {
        return Failure(EBUSY, "a connection that is kept keeps its label");
    }
    m_book.SetLabel(*found, label);
    // Somebody may wait for what has come from this label.
    for (std::uint32_t type = 0; type < m_types.Size(); ++type) {
        WakeReceivers(type);
    }
    LimitReading(*found);
    WakeThoseWithoutHope();
    WakePresenceWaiters();
    return {};
}

std::vector<KLVMsgPeer> KLVMsgSessionCore::Peers(const KLVMsgPeers& meant) {
    const Lock lock(m_mutex);
    std::vector<Peer*> found;
    m_book.Find(meant, found);
    std::vector<KLVMsgPeer> peers;
    for (const Peer* const peer : found) {
        if (peer->IsThere()) {
            peers.push_back(peer->peer);
        }
    }
    return peers;
}

KLVMsgOutcome KLVMsgSessionCore::Disconnect(const KLVMsgPeers& meant) {
    const Lock lock(m_mutex);
    if (m_isEnding) {
        return Ended(KLVMsgOutcome::kPeerGone);
    }
    const std::string cause = "the peer was disconnected here";
    std::size_t lost = 0;
    bool isAny = meant.HowMeant() != KLVMsgPeers::kOne && EndKeeps(meant, cause, lost) != 0;
    m_book.ForMeant(meant, [&](Peer& peer) {
        if (peer.link != nullptr && !peer.link->connection.Discards()) {
            isAny = true;
            peer.link->connection.Leave(Clock::now() + kLastWords);
            FailAwaited(peer.awaited, cause);
            UpdateCost(peer);
            TellGone(peer, KLVMsgEvent::kShutDownHere, "shut down here", 0);
            m_loop.Touch(*peer.link);
        }
    });
    return isAny ? KLVMsgOutcome() : Gone(meant);
}

KLVMsgOutcome KLVMsgSessionCore::WaitUntil(bool isThere, const KLVMsgPeers& meant,
                                           KLVMsgTimeLimit limit) {
    const Time deadline = limit.Deadline();
    Lock lock(m_mutex);
    PresenceWaiter waiter{{}, &meant, isThere};
    const KLVMsgEntry<PresenceWaiter> entry(m_presenceWaiters, waiter);
    while (m_book.IsAnyThere(meant) != isThere) {
        if (isThere && (!m_ready || m_isEnding)) {
            break;
        }
        if (isThere && meant.HowMeant() == KLVMsgPeers::kOne) {
            return Gone(meant);
        }
        if (!waiter.waiter.Wait(lock, deadline)) {
            return m_book.IsAnyThere(meant) != isThere ? Late() : KLVMsgOutcome();
        }
    }
    return m_isEnding ? Ended(KLVMsgOutcome::kPeerGone) : m_ready;
}

// Tells once that nothing more will come from there.
void KLVMsgSessionCore::TellGone(Peer& peer, KLVMsgEvent::Cause cause, const std::string& text,
                                 int error) {
    if (peer.isTold) {
        return;
    }
    peer.isTold = true;
    FailQuestions(peer, KLVMsgOutcome::kPeerGone, ENOTCONN, text);
    if (peer.keep != nullptr) {
        OpenPlace(*peer.keep);
    }
    try {
        m_book.NoteGone(peer, text);
    } catch (const std::bad_alloc&) {
        // Whoever asks is told that it has gone, without the cause.
    }
    Tell([&] {
        KLVMsgEvent event = Event(KLVMsgEvent::kGone, &peer);
        event.cause = cause;
        event.error = error;
        event.what = peer.address + ": " + text;
        return event;
    });
    WakePresenceWaiters();
    WakeThoseWithoutHope();
    WakeRoomless();
}

void KLVMsgSessionCore::WakePresenceWaiters() {
    for (PresenceWaiter* const one : m_presenceWaiters) {
        if (m_book.IsAnyThere(*one->meant) == one->isThere) {
            one->waiter.Wake();
        }
    }
}

void KLVMsgSessionCore::Forget(Peer& peer) { m_book.Remove(peer); }

void KLVMsgSessionCore::OnOver(KLVMsgLoop::Link& link) {
    if (link.client == nullptr) {
        GuestIsOver(link);
        return;
    }
    Peer& peer = *static_cast<Peer*>(link.client);
    const KLVMsgLoop::LinkPtr kept = std::move(peer.link);
    if (peer.keep != nullptr) {
        Part(peer, kept);
    }
    peer.link = nullptr;
    link.client = nullptr;
    --m_live;
    if (peer.isReadingPaused) {
        peer.isReadingPaused = false;
        --m_paused;
    }
    FailAwaited(peer.awaited, link.connection.Text());
    UpdateCost(peer);
    m_past.messagesSent += link.connection.output.MessagesTaken();
    m_past.bytesSent += link.connection.output.Taken();
    m_past.messagesReceived += peer.messagesReceived;
    m_past.bytesReceived += link.received;
    TellGone(peer, link.connection.WhyOver(), link.connection.Text(), link.connection.Error());
    if (peer.sent.count == 0) {
        Forget(peer);
    }
    if (m_isEnding && m_live == 0) {
        for (KLVMsgWaiter* const one : m_endWaiters) {
            one->Wake();
        }
    }
}

void KLVMsgSessionCore::OnAccepted(Lock& lock, std::uint64_t listener, KLVMsgDescriptor socket,
                                   const std::string& address) {
    try {
        std::unique_ptr<KLVMsgTransport> transport = Plain(std::move(socket));
        KLVMsgOutcome outcome;
        if (m_loop.FindListener(listener)->transports != nullptr) {
            outcome = Invite(std::move(transport), listener, address);
        } else {
            std::string served;
            outcome = Admit(lock, listener, address, {}, served);
            Peer* made = nullptr;
            if (outcome && (outcome = Adopt(std::move(transport), "", address, made))) {
                made->served.swap(served);
            }
        }
        if (!outcome && outcome.error != ESHUTDOWN) {
            TellRefused(address, outcome.error, outcome.text);
        }
    } catch (const std::bad_alloc&) {
        m_events.Miss();
    }
}

void KLVMsgSessionCore::OnListenerFailed(const KLVMsgLoop::Listener& listener, int error) {
    EndOneHalf();
    Tell([&] {
        KLVMsgEvent event = Event(KLVMsgEvent::kServingFailed, nullptr);
        event.address = listener.text;
        event.error = error;
        event.what = KLVMsgSessionSockets::Failure("cannot accept at " + listener.text, error).text;
        return event;
    });
}

// What happens ------------------------------------------------------------------------------------

KLVMsgEvent KLVMsgSessionCore::Event(KLVMsgEvent::Kind kind, const Peer* peer) {
    KLVMsgEvent event;
    event.kind = kind;
    if (peer != nullptr) {
        event.peer = peer->isPlace ? KLVMsgPeer() : peer->peer;
        event.label = peer->label;
        event.address = peer->address;
    }
    return event;
}

void KLVMsgSessionCore::PushEvent(KLVMsgEvent event) {
    if (m_observer != nullptr) {
        m_observed.Push(event);
        m_loop.AskForErrand();
    }
    m_events.Push(std::move(event), m_inbox.LastOrder());
    WakeForEvent();
    UpdateReadable();
}

void KLVMsgSessionCore::OnStalls(KLVMsgLoop::Link& link) {
    if (link.client != nullptr) {
        const Peer& peer = *static_cast<Peer*>(link.client);
        Tell([&] {
            KLVMsgEvent event = Event(KLVMsgEvent::kStalls, &peer);
            event.what = peer.address + ": no byte moves, though one is due";
            return event;
        });
    }
}

KLVMsgEvent KLVMsgSessionCore::NextEvent(KLVMsgTimeLimit limit) {
    KLVMsgEvent event;
    Lock lock(m_mutex);
    if (!m_ready) {
        static_cast<KLVMsgOutcome&>(event) = m_ready;
        return event;
    }
    const auto isOver = [this] {
        return !m_events.IsEmpty() || m_isEnding || m_eventHandler != nullptr;
    };
    if (!isOver()) {
        const Time deadline = limit.Deadline();
        KLVMsgWaiter waiter;
        const KLVMsgEntry<KLVMsgWaiter> entry(m_eventWaiters, waiter);
        while (!isOver() && waiter.Wait(lock, deadline)) {
        }
    }
    if (m_eventHandler != nullptr) {
        static_cast<KLVMsgOutcome&>(event) =
            Failure(EINVAL, "events have a handler: they are Dispatch's");
    } else if (!m_events.IsEmpty()) {
        event = m_events.Take();
        UpdateReadable();
    } else {
        static_cast<KLVMsgOutcome&>(event) = m_isEnding ? Ended(KLVMsgOutcome::kFailed) : Late();
    }
    return event;
}

int KLVMsgSessionCore::Descriptor() {
    const Lock lock(m_mutex);
    if (m_readable.Number() == -1) {
        m_readable = KLVMsgDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        m_isReadable = false;
        UpdateReadable();
    }
    return m_readable.Number();
}

void KLVMsgSessionCore::UpdateReadable() {
    WakeIfDrained();
    const bool isReadable =
        m_inbox.Count() != 0 || !m_events.IsEmpty() || m_isEnding || m_isDraining;
    if (m_readable.Number() == -1 || isReadable == m_isReadable) {
        return;
    }
    m_isReadable = isReadable;
    if (isReadable) {
        Signal(m_readable.Number());
    } else {
        std::uint64_t count = 0;
        static_cast<void>(!read(m_readable.Number(), &count, sizeof count));
    }
}

void KLVMsgSessionCore::AddCounts(KLVMsgCounts& counts, Peer& peer) {
    counts.messagesReceived += peer.messagesReceived;
    counts.messagesInInbox += peer.sent.count;
    counts.bytesInInbox += peer.sent.cost - peer.sent.count * KLVMsgParcel::kPerMessage;
    if (peer.link != nullptr) {
        const KLVMsgConnection& connection = peer.link->connection;
        const KLVMsgOutput& output = connection.output;
        counts.connections += peer.isPlace ? 0 : 1;
        counts.messagesSent += output.MessagesTaken();
        counts.bytesSent += output.Taken();
        counts.messagesQueued += output.Messages();
        counts.bytesQueued += output.Appended() - output.Taken();
        counts.bytesReceived += peer.link->received;
        counts.stalled += connection.Stalls() ? 1 : 0;
    }
}

KLVMsgCounts KLVMsgSessionCore::Counts(const KLVMsgPeers& meant) {
    const Lock lock(m_mutex);
    KLVMsgCounts counts;
    m_book.ForMeant(meant, [&](Peer& peer) {
        if (peer.IsThere() || peer.isPlace) {
            AddCounts(counts, peer);
        }
    });
    return counts;
}

KLVMsgCounts KLVMsgSessionCore::Counts() {
    const Lock lock(m_mutex);
    KLVMsgCounts counts = m_past;
    m_book.ForEach([&](Peer& peer) {
        const std::uint64_t before = counts.messagesReceived;
        AddCounts(counts, peer);
        if (peer.link == nullptr) {
            counts.messagesReceived = before;  // those of the past are counted
        }
    });
    return counts;
}
