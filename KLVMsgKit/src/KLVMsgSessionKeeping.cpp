// Connections that come back. All of it runs with the mutex held, on the loop's thread but for Keep
// and Disconnect, and waits for nothing.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <utility>

#include "KLVMsgSessionCore.h"

namespace {

KLVMsgOutcome Failure(int error, std::string text) {
    return {KLVMsgOutcome::kFailed, error, std::move(text)};
}

KLVMsgOutcome NoMemory() { return Failure(ENOMEM, std::string()); }

}  // namespace

KLVMsgOutcome KLVMsgSessionCore::Keep(const KLVMsgSocketAddress& address, const std::string& label,
                                      KLVMsgSocketMessage* hello, const KLVMsgFramedMessage* framed,
                                      const Transports& transports) {
    if (transports != nullptr) {
        if (KLVMsgOutcome usable = transports->Check(); !usable) {
            return usable;
        }
    }
    auto made = std::make_unique<KLVMsgKeep>();
    made->transports = transports;
    made->host = HostOf(address);
    if (hello != nullptr) {
        KLVMsgWireWriter bytes(*m_spentBodies);
        KLVMsgOutcome written = bytes.Write(*hello, framed, m_options.largestBody);
        if (!written) {
            return written;
        }
        made->helloHead = bytes.Head();
        made->helloBody = bytes.Shared();
        made->helloHead += made->helloBody == nullptr ? bytes.Body() : std::string_view();
    }
    if (address.port < 1 || address.port > 65535 || label.empty()) {
        return Failure(EINVAL, "a connection that is kept has a port from 1 to 65535, and a label");
    }
    const Lock lock(m_mutex);
    KLVMsgOutcome outcome = IsReady();
    if (outcome && m_keeps.count(label) != 0) {
        outcome = Failure(EEXIST, "a connection is kept under the label " + label + " already");
    } else if (outcome && m_book.IsAnyThere(label)) {
        outcome = Failure(EEXIST, "a connection has the label " + label);
    }
    if (outcome) {
        outcome = PrepareDialer();
    }
    return outcome ? MakeKeep(address, label, std::move(made)) : outcome;
}

KLVMsgOutcome KLVMsgSessionCore::PrepareDialer() {
    if (m_dialer != nullptr) {
        return {};
    }
    auto made = std::make_unique<KLVMsgDialer>();
    KLVMsgOutcome outcome = made->Prepare();
    if (outcome && (outcome = m_loop.Watch(made->Descriptor()))) {
        m_dialer = std::move(made);
    }
    m_chance.seed(static_cast<unsigned>(Clock::now().time_since_epoch().count() ^ getpid() << 16));
    return outcome;
}

KLVMsgOutcome KLVMsgSessionCore::MakeKeep(const KLVMsgSocketAddress& address,
                                          const std::string& label,
                                          std::unique_ptr<KLVMsgKeep> made) {
    Peer& place = m_book.Add(label, KLVMsgSessionSockets::Text(address));
    place.isPlace = true;
    place.keep = made.get();
    made->place = &place;
    try {
        place.link = NewPlaceLink(place);
        m_dialer->Add(place.peer.id, address);
        m_keeps.emplace(label, std::move(made));
    } catch (...) {
        m_dialer->Forget(place.peer.id);
        m_book.Remove(place);
        throw;
    }
    m_dialer->Dial(place.peer.id, Clock::now());
    return {};
}

// It is not the loop's, and has no transport: as if somebody wrote to it all the time.
KLVMsgLoop::LinkPtr KLVMsgSessionCore::NewPlaceLink(const Peer& place) const {
    auto link =
        std::make_shared<KLVMsgLoop::Link>(place.peer.id, nullptr, nullptr, m_types, m_options);
    link->isWriting = true;
    return link;
}

bool KLVMsgSessionCore::IsAway(const std::string& label) const {
    const auto found = m_keeps.find(label);
    return found != m_keeps.end() && found->second->place->link != nullptr;
}

// Going ------------------------------------------------------------------------------------------

// What is sent to the label from now on waits there.
void KLVMsgSessionCore::OpenPlace(KLVMsgKeep& keep) {
    if (keep.place->link == nullptr) {
        keep.place->link = std::move(keep.spareLink);
        MoveRoomless(keep.connection->peer, keep.place->peer);
    }
}

// Those who wait for room wait for it there from now on.
void KLVMsgSessionCore::MoveRoomless(KLVMsgPeer from, KLVMsgPeer to) {
    for (KLVMsgDelivery* const delivery : m_roomless) {
        std::replace(delivery->roomless.begin(), delivery->roomless.end(), from, to);
    }
}

// Its connection is over.
void KLVMsgSessionCore::Part(Peer& peer, const KLVMsgLoop::LinkPtr& link) {
    KLVMsgKeep& keep = *peer.keep;
    OpenPlace(keep);
    peer.keep = nullptr;
    keep.connection = nullptr;
    keep.pauses.Lasted(Clock::now() - keep.since);
    if (link->isWriting) {
        keep.leaving = link;
        keep.leavingAwaited = std::exchange(peer.awaited, {});
    } else {
        TakeBack(keep, *link, peer.awaited);
    }
}

// Whoever wrote to a connection when it was over has done so.
void KLVMsgSessionCore::TakeBackLate(KLVMsgLoop::Link& link) {
    for (const auto& [label, keep] : m_keeps) {
        if (keep->leaving.get() == &link) {
            const KLVMsgLoop::LinkPtr over = std::move(keep->leaving);
            TakeBack(*keep, link, keep->leavingAwaited);
            return;
        }
    }
}

// What was not begun goes back to the place, before what has come there meanwhile, and the next
// attempt is due.
void KLVMsgSessionCore::TakeBack(KLVMsgKeep& keep, KLVMsgLoop::Link& link, Queue& awaited) {
    Peer& place = *keep.place;
    KLVMsgOutput& output = link.connection.output;
    TellTaken(awaited, output.Taken());  // by whoever was still writing
    output.Took(0);                      // what a transport held has not arrived
    const std::size_t hello = keep.HelloSize();
    const bool isHelloOut = output.Taken() < hello && !output.IsEmpty();
    if (isHelloOut && output.CutOut(0, hello)) {
        for (Peer::Awaited& one : awaited) {
            one.begin -= hello;
            one.end -= hello;
        }
    }
    std::size_t lost = 0;
    const char* why = "a part of it had been taken";
    KLVMsgOutput since;
    Queue sinceAwaited;
    try {
        KLVMsgOutput& queue = place.link->connection.output;
        MoveQueue(queue, place.awaited, since, sinceAwaited);
        const bool isBegun = MoveQueue(output, awaited, queue, place.awaited);
        lost = isBegun && !isHelloOut ? 1 : 0;
        MoveQueue(since, sinceAwaited, queue, place.awaited);
    } catch (const std::bad_alloc&) {
        lost += output.Messages() + since.Messages();
        why = "there was no memory to keep what was queued";
        output.Clear();
    }
    FailAwaited(awaited, link.connection.Text());
    FailAwaited(sinceAwaited, link.connection.Text());
    if (lost != 0) {
        TellLost(place, lost, why);
    }
    UpdateCost(place);
    WakeRoomless();
    m_dialer->Dial(place.peer.id, Clock::now() + keep.pauses.Next(m_chance()));
}

// Moves what was not begun with those who wait for it; true where a message was, which is dropped.
bool KLVMsgSessionCore::MoveQueue(KLVMsgOutput& from, Queue& awaited, KLVMsgOutput& to,
                                  Queue& toAwaited) {
    toAwaited.MakeRoom(awaited.size());
    KLVMsgOutput::Position shift = 0;
    const bool isBegun = from.MoveTo(to, shift);
    const std::size_t left = !awaited.empty() && awaited.front().begin < from.Taken() ? 1 : 0;
    for (std::size_t i = left; i < awaited.size(); ++i) {
        toAwaited.push_back(
            {awaited[i].begin + shift, awaited[i].end + shift, awaited[i].delivery});
    }
    while (awaited.size() > left) {
        awaited.pop_back();
    }
    return isBegun;
}

void KLVMsgSessionCore::TellLost(const Peer& peer, std::size_t count, const char* why) {
    Tell([&] {
        KLVMsgEvent event = Event(KLVMsgEvent::kLost, &peer);
        event.what = peer.address + ": " + std::to_string(count) +
                     (count == 1 ? " message is lost: " : " messages are lost: ") + why;
        return event;
    });
}

// Coming back ------------------------------------------------------------------------------------

void KLVMsgSessionCore::OnReadable() {
    m_dialer->Work([this](std::uint64_t id, KLVMsgOutcome outcome, KLVMsgDescriptor socket) {
        KLVMsgPeer place;
        place.id = id;
        OnDialed(*m_book.Find(place)->keep, std::move(outcome), std::move(socket));
    });
}

void KLVMsgSessionCore::OnDialed(KLVMsgKeep& keep, KLVMsgOutcome outcome, KLVMsgDescriptor socket) {
    GoOn(keep, [&] { return outcome ? ComeBack(keep, std::move(socket)) : std::move(outcome); });
}

// What does not bring it further is told, and the next attempt is due later.
template <class Step>
void KLVMsgSessionCore::GoOn(KLVMsgKeep& keep, const Step& step) {
    KLVMsgOutcome outcome;
    try {
        outcome = step();
    } catch (const std::bad_alloc&) {
        outcome = NoMemory();
    }
    if (!outcome) {
        TellAway(keep, outcome);
        m_dialer->Dial(keep.place->peer.id, Clock::now() + keep.pauses.Next(m_chance()));
    }
}

KLVMsgOutcome KLVMsgSessionCore::ComeBack(KLVMsgKeep& keep, KLVMsgDescriptor socket) {
    if (m_live >= m_options.connectionLimit) {
        return TooMany();
    }
    if (keep.transports != nullptr) {
        return GreetServer(keep, std::move(socket));
    }
    KLVMsgLoop::LinkPtr spare = NewPlaceLink(*keep.place);
    const std::string address = KLVMsgSessionSockets::PeerText(socket.Number());
    Peer* made = nullptr;
    KLVMsgOutcome outcome = Adopt(Plain(std::move(socket)), keep.place->label, address, made);
    if (outcome) {
        Resume(keep, *made, std::move(spare));
    }
    return outcome;
}

// The server has not admitted it yet: GreetedServer goes on.
KLVMsgOutcome KLVMsgSessionCore::GreetServer(KLVMsgKeep& keep, KLVMsgDescriptor socket) {
    KLVMsgLoop::LinkPtr guest;
    KLVMsgOutcome outcome =
        m_loop.AddGuest(keep.transports->ToServer(Plain(std::move(socket)), keep.host),
                        m_book.NextId(), Clock::now() + keep.transports->GreetingLimit(), guest);
    keep.guest = std::move(guest);
    return outcome;
}

// Null: it is no Keep's, or is no longer wanted.
KLVMsgKeep* KLVMsgSessionCore::KeepThatGreets(const KLVMsgLoop::Link& link) const {
    for (const auto& [label, keep] : m_keeps) {
        if (keep->guest.get() == &link) {
            return keep.get();
        }
    }
    return nullptr;
}

void KLVMsgSessionCore::GreetedServer(KLVMsgKeep& keep, const KLVMsgTransport::Greeting& greeting) {
    if (!greeting.warning.empty()) {
        TellNotRenewed(keep.place->address, greeting.warning);
    }
    if (greeting.state == KLVMsgTransport::Greeting::kDone) {
        const KLVMsgLoop::LinkPtr guest = std::move(keep.guest);
        GoOn(keep, [&] { return BeAdmitted(keep, guest); });
    } else if (greeting.state == KLVMsgTransport::Greeting::kFailed) {
        GreetingFailed(keep, greeting.error, greeting.text);
    }
}

void KLVMsgSessionCore::GreetingFailed(KLVMsgKeep& keep, int error, const std::string& why) {
    keep.guest = nullptr;
    GoOn(keep,
         [&] { return Failure(error, "cannot connect to " + keep.place->address + ": " + why); });
}

KLVMsgOutcome KLVMsgSessionCore::BeAdmitted(KLVMsgKeep& keep, const KLVMsgLoop::LinkPtr& guest) {
    if (m_live >= m_options.connectionLimit) {
        return TooMany();
    }
    KLVMsgLoop::LinkPtr spare = NewPlaceLink(*keep.place);
    const std::string address = KLVMsgSessionSockets::PeerText(guest->transport->Descriptor());
    Resume(keep, AdoptGreeted(guest, keep.place->label, address), std::move(spare));
    return {};
}

// What has waited is queued behind the hello.
void KLVMsgSessionCore::Resume(KLVMsgKeep& keep, Peer& made, KLVMsgLoop::LinkPtr spare) {
    Peer& place = *keep.place;
    KLVMsgConnection& connection = made.link->connection;
    try {
        if (keep.HelloSize() != 0) {
            const std::shared_ptr<const std::string>& body = keep.helloBody;
            connection.output.Append(keep.helloHead, body != nullptr ? *body : std::string_view(),
                                     body);
        }
        MoveQueue(place.link->connection.output, place.awaited, connection.output, made.awaited);
    } catch (const std::bad_alloc&) {
        connection.End(KLVMsgEvent::kNoMemory, "there was no memory for what is queued");
        m_loop.Touch(*made.link);
        throw;
    }
    connection.KeepOutput();
    made.keep = &keep;
    keep.connection = &made;
    keep.spareLink = std::move(spare);
    keep.since = Clock::now();
    keep.told.clear();
    place.link = nullptr;
    MoveRoomless(place.peer, made.peer);
    UpdateCost(place);
    UpdateCost(made);
    LimitReading(made);
    m_loop.Touch(*made.link);
    WakeRoomless();
}

// Not each time, but when the cause is another one.
void KLVMsgSessionCore::TellAway(KLVMsgKeep& keep, const KLVMsgOutcome& outcome) {
    if (keep.told == outcome.text && !keep.told.empty()) {
        return;
    }
    Tell([&] {
        KLVMsgEvent event = Event(KLVMsgEvent::kAway, keep.place);
        event.error = outcome.error;
        event.what = outcome.text;
        keep.told = outcome.text;
        return event;
    });
}

// The end ----------------------------------------------------------------------------------------

// Ends those that are meant, and their connections are as others; how many there were. What has
// waited is dropped, and counted.
std::size_t KLVMsgSessionCore::EndKeeps(const KLVMsgPeers& meant, const std::string& cause,
                                        std::size_t& lost) {
    std::size_t count = 0;
    for (auto one = m_keeps.begin(); one != m_keeps.end();) {
        KLVMsgKeep& keep = *one->second;
        if (!meant.Include(KLVMsgPeer(), one->first)) {
            ++one;
            continue;
        }
        ++count;
        if (keep.connection != nullptr) {
            keep.connection->keep = nullptr;
        }
        if (keep.guest != nullptr) {
            keep.guest->connection.End(KLVMsgEvent::kShutDownHere, cause);
            m_loop.Touch(*keep.guest);
        }
        Peer& place = *keep.place;
        for (const KLVMsgLoop::LinkPtr& link : {place.link, keep.leaving}) {
            lost += link != nullptr ? link->connection.output.Messages() : 0;
        }
        FailAwaited(place.awaited, cause);
        FailAwaited(keep.leavingAwaited, cause);
        place.link = nullptr;
        UpdateCost(place);
        m_dialer->Forget(place.peer.id);
        m_book.Remove(place);
        one = m_keeps.erase(one);
    }
    if (count != 0) {
        WakeRoomless();
        WakeThoseWithoutHope();
    }
    return count;
}
