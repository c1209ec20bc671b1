// How connections begin. Where they are not plain a client greets on the thread that connects, and
// hands over what is admitted; what Keep connects, and a server, greets in the loop, and whoever is
// not done is nobody's peer.
#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "KLVMsgGreeting.h"
#include "KLVMsgPlainTransport.h"
#include "KLVMsgSessionCore.h"

std::unique_ptr<KLVMsgTransport> KLVMsgSessionCore::Plain(KLVMsgDescriptor socket) const {
    auto transport =
        std::make_unique<KLVMsgPlainTransport>(socket.Number(), m_options.silence.Duration());
    static_cast<void>(socket.Release());
    return transport;
}

std::string KLVMsgSessionCore::HostOf(const KLVMsgSocketAddress& address) {
    return address.host.Length() != 0 ? address.host.Text() : "127.0.0.1";
}

void KLVMsgSessionCore::TellCame(const Peer& peer, const KLVMsgTransport& transport) {
    Tell([&] {
        KLVMsgEvent event = Event(KLVMsgEvent::kCame, &peer);
        event.what = peer.address + ": a connection";
        const char* before = " of ";
        for (const std::string& name : transport.Names()) {
            event.what += before + name;
            before = ", ";
        }
        return event;
    });
    WakePresenceWaiters();
}

void KLVMsgSessionCore::TellRefused(const std::string& address, int error, const std::string& why) {
    Tell([&] {
        KLVMsgEvent event = Event(KLVMsgEvent::kRefused, nullptr);
        event.address = address;
        event.error = error;
        event.what = address + ": a connection was refused: " + why;
        return event;
    });
}

// Requires: the mutex is not held.
KLVMsgOutcome KLVMsgSessionCore::Greet(std::unique_ptr<KLVMsgTransport>& transport,
                                       KLVMsgTransportFactory& transports,
                                       const KLVMsgSocketAddress& address, Time limit) {
    transport = transports.ToServer(std::move(transport), HostOf(address));
    const Time own = Clock::now() + transports.GreetingLimit();
    std::string warning;
    KLVMsgOutcome outcome =
        KLVMsgGreeting::Await(*transport, std::min(limit, own), m_endSignal.Number(), warning);
    const std::string text = KLVMsgSessionSockets::Text(address);
    if (!warning.empty()) {
        const Lock lock(m_mutex);
        TellNotRenewed(text, warning);
    }
    if (!outcome) {
        outcome.text = "cannot connect to " + text + ": " + outcome.text;
    }
    return outcome;
}

// Makes room by giving up the one that has greeted longest: who means it needs a moment only.
KLVMsgOutcome KLVMsgSessionCore::Invite(std::unique_ptr<KLVMsgTransport> transport,
                                        std::uint64_t listener, const std::string& address) {
    if (m_live >= m_options.connectionLimit) {
        EndOneHalf();
        return TooMany();
    }
    const Transports transports = m_loop.FindListener(listener)->transports;
    if (m_guests.size() >= transports->MostGreetings()) {
        const KLVMsgLoop::LinkPtr oldest = m_guests.begin()->second.link;
        oldest->connection.End(KLVMsgEvent::kShutDownHere,
                               "others came before the greeting was done");
        GuestIsOver(*oldest);
        m_loop.Touch(*oldest);
    }
    const std::uint64_t id = m_book.NextId();
    const auto guest = m_guests.emplace(id, Guest{listener, address, nullptr, false}).first;
    KLVMsgOutcome outcome;
    try {
        outcome = m_loop.AddGuest(transports->ToClient(std::move(transport)), id,
                                  Clock::now() + transports->GreetingLimit(), guest->second.link);
    } catch (...) {
        m_guests.erase(guest);
        throw;
    }
    if (!outcome) {
        m_guests.erase(guest);
    }
    return outcome;
}

void KLVMsgSessionCore::OnGreeted(Lock& lock, KLVMsgLoop::Link& link,
                                  const KLVMsgTransport::Greeting& greeting) {
    if (KLVMsgKeep* const keep = KeepThatGreets(link); keep != nullptr) {
        GreetedServer(*keep, greeting);
        return;
    }
    const auto guest = m_guests.find(link.id);
    if (guest == m_guests.end()) {
        return;
    }
    if (!greeting.warning.empty()) {
        TellNotRenewed(guest->second.address, greeting.warning);
    }
    if (greeting.state == KLVMsgTransport::Greeting::kGoesOn) {
        return;
    }
    guest->second.isTold = true;
    if (greeting.state == KLVMsgTransport::Greeting::kFailed) {
        TellRefused(guest->second.address, greeting.error, greeting.text);
        return;
    }
    KLVMsgOutcome outcome;
    try {
        outcome = AdoptGuest(lock, link, guest->second);
    } catch (const std::bad_alloc&) {
        outcome = {KLVMsgOutcome::kFailed, ENOMEM, ""};
    }
    if (outcome) {
        m_guests.erase(guest);
    } else if (outcome.error != ESHUTDOWN) {
        TellRefused(guest->second.address, outcome.error, outcome.text);
    }
}

// Requires: the loop's thread, on which alone guests come and go.
KLVMsgOutcome KLVMsgSessionCore::AdoptGuest(Lock& lock, KLVMsgLoop::Link& link,
                                            const Guest& guest) {
    std::string served;
    KLVMsgOutcome outcome =
        Admit(lock, guest.listener, guest.address, link.transport->Names(), served);
    if (!outcome || m_isEnding) {
        return outcome ? Ended(KLVMsgOutcome::kFailed) : outcome;
    }
    AdoptGreeted(guest.link, "", guest.address).served.swap(served);
    return {};
}

KLVMsgSessionCore::Peer& KLVMsgSessionCore::AdoptGreeted(const KLVMsgLoop::LinkPtr& link,
                                                         const std::string& label,
                                                         const std::string& address) {
    Peer& peer = m_book.Add(label, address);
    peer.sent.owner = &peer;
    peer.link = link;
    link->client = &peer;
    ++m_live;
    TellCame(peer, *link->transport);
    return peer;
}

void KLVMsgSessionCore::GuestIsOver(KLVMsgLoop::Link& link) {
    if (KLVMsgKeep* const keep = KeepThatGreets(link); keep != nullptr) {
        GreetingFailed(*keep, link.connection.Error(), link.connection.Text());
        return;
    }
    const auto guest = m_guests.find(link.id);
    if (guest == m_guests.end()) {
        return;
    }
    if (!guest->second.isTold) {
        TellRefused(guest->second.address, link.connection.Error(), link.connection.Text());
    }
    m_guests.erase(guest);
}

void KLVMsgSessionCore::TellNotRenewed(const std::string& address, const std::string& warning) {
    Tell([&] {
        KLVMsgEvent event = Event(KLVMsgEvent::kNotRenewed, nullptr);
        event.address = address;
        event.what = warning;
        return event;
    });
}
