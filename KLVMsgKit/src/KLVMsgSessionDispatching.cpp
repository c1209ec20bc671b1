// What calls the application: handlers on the thread that dispatches, and whoever observes events
// on the loop's. Beside it what takes messages of several classes.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "KLVMsgSessionCore.h"

KLVMsgReceivedAny KLVMsgSessionCore::ReceiveAny(KLVMsgTimeLimit limit, const KLVMsgPeers* from) {
    Taken taken;
    KLVMsgOutcome outcome = TakeOne(kUnhandled, {typeid(void), limit, from}, taken);
    static_cast<KLVMsgOutcome&>(taken.received) = std::move(outcome);
    return std::move(taken.received);
}

KLVMsgOutcome KLVMsgSessionCore::SetHandler(const std::type_info& type,
                                            KLVMsgSession::Handler handler) {
    Handler kept = handler == nullptr
                       ? nullptr
                       : std::make_shared<const KLVMsgSession::Handler>(std::move(handler));
    const std::uint32_t number = m_types.OfClass(type);
    if (number == KLVMsgMessageTypes::kNone) {
        return {KLVMsgOutcome::kFailed, EINVAL, "no prototype of this class was registered"};
    }
    const Lock lock(m_mutex);
    if (m_handlers.size() <= number) {
        m_handlers.resize(number + 1);
    }
    m_handlers[number].swap(kept);
    // Who waits for messages of this class has come to the wrong place, or to the right one.
    for (const auto& receivers : m_receivers) {
        for (Receiver* const one : receivers) {
            one->waiter.Wake();
        }
    }
    return {};
}

KLVMsgOutcome KLVMsgSessionCore::SetEventHandler(Observer handler) {
    EventHandler kept =
        handler == nullptr ? nullptr : std::make_shared<const Observer>(std::move(handler));
    const Lock lock(m_mutex);
    m_eventHandler.swap(kept);
    for (Receiver* const one : Receivers(kHandled)) {
        one->waiter.Wake();
    }
    for (KLVMsgWaiter* const one : m_eventWaiters) {
        one->Wake();
    }
    return {};
}

// One of those who wait for it.
void KLVMsgSessionCore::WakeForEvent() {
    const auto wakeFirst = [](const auto& waiting, const auto& waiterOf) {
        for (auto* const one : waiting) {
            if (!waiterOf(*one).IsWoken()) {
                waiterOf(*one).Wake();
                break;
            }
        }
    };
    if (m_eventHandler != nullptr) {
        wakeFirst(Receivers(kHandled), [](Receiver& one) -> KLVMsgWaiter& { return one.waiter; });
    } else {
        wakeFirst(m_eventWaiters, [](KLVMsgWaiter& one) -> KLVMsgWaiter& { return one; });
    }
}

bool KLVMsgSessionCore::HasAnyHandler() const {
    return m_eventHandler != nullptr ||
           std::any_of(m_handlers.begin(), m_handlers.end(),
                       [](const Handler& one) { return one != nullptr; });
}

KLVMsgOutcome KLVMsgSessionCore::Dispatch(KLVMsgTimeLimit limit) {
    Taken taken;
    KLVMsgOutcome outcome = TakeOne(kHandled, {typeid(void), limit, nullptr}, taken);
    std::size_t left = taken.left;
    for (bool isOne = static_cast<bool>(outcome); isOne; --left) {
        if (taken.eventHandler != nullptr) {
            (*std::exchange(taken.eventHandler, nullptr))(taken.event);
        } else {
            (*taken.handler)(std::move(taken.received));
        }
        isOne =
            left != 0 && TakeOne(kHandled, {typeid(void), std::chrono::seconds(0), nullptr}, taken);
    }
    return outcome;
}

// Whether an event is to be handled before the oldest message that was found.
bool KLVMsgSessionCore::IsEventNext(std::uint32_t set, const KLVMsgParcel* found) const {
    return set == kHandled && m_eventHandler != nullptr && !m_events.IsEmpty() &&
           (found == nullptr || m_events.Order() < found->order);
}

// How many messages there are of a type or a set, and events where those belong to it.
std::size_t KLVMsgSessionCore::CountOf(std::uint32_t set) const {
    if (set < m_types.Size()) {
        return m_inbox.Count(set);
    }
    std::size_t count = set == kHandled && m_eventHandler != nullptr ? m_events.Size() : 0;
    for (std::uint32_t each = 0; each < m_types.Size(); ++each) {
        count += IsHandled(each) == (set == kHandled) ? m_inbox.Count(each) : 0;
    }
    return count;
}

// The oldest of a set, with what handles it.
KLVMsgOutcome KLVMsgSessionCore::TakeOne(std::uint32_t set, const Wanted& wanted, Taken& taken) {
    KLVMsgOutcome outcome;
    char bytes[KLVMsgParcel::kLongestOfRun];
    while (taken.received.message == nullptr) {
        KLVMsgParcel::Owner parcel;
        std::string_view body;
        std::uint32_t type = 0;
        {
            Lock lock(m_mutex);
            const KLVMsgParcel* found = m_isEnding ? nullptr : Find(set, wanted.from);
            if (found == nullptr && !(outcome = AwaitParcel(lock, set, wanted, found))) {
                break;
            }
            if (IsEventNext(set, found)) {
                taken.event = m_events.Take();
                taken.eventHandler = m_eventHandler;
                taken.left = CountOf(set);
                UpdateReadable();
                break;
            }
            type = found->type;
            taken.received.type = m_types[type].name;  // takes memory: without it it stays there
            taken.handler = IsHandled(type) ? m_handlers[type] : nullptr;
            parcel = TakeFirst(found, taken.received.peer, bytes, body);
            taken.left = CountOf(set);
        }
        taken.received.message = Unpack(std::move(parcel), type, body, taken.received.peer);
        if (m_types[type].isAny && taken.received.message != nullptr) {
            taken.received.type = static_cast<KLVMsgAnyMessage&>(*taken.received.message).type;
        }
    }
    return outcome;
}

// Those who wait for a type, or for those of a set.
std::list<KLVMsgSessionCore::Receiver*>& KLVMsgSessionCore::Receivers(std::uint32_t type) {
    return m_receivers[type == kHandled ? 0 : type == kUnhandled ? 1 : kSets + type];
}

KLVMsgOutcome KLVMsgSessionCore::Observe(Observer observer) {
    const Lock lock(m_mutex);
    KLVMsgOutcome outcome = IsReady();
    if (outcome && m_isStarted) {
        outcome = {KLVMsgOutcome::kFailed, EALREADY,
                   "the session has been started: who observes is told before that"};
    } else if (outcome) {
        m_observer = std::move(observer);
    }
    return outcome;
}

// Those that happen meanwhile have the next round.
void KLVMsgSessionCore::TellObserver(Lock& lock) {
    m_telling.Swap(m_observed);
    lock.unlock();
    while (!m_telling.IsEmpty()) {
        try {
            m_observer(m_telling.Take());
        } catch (...) {
            // It is its own.
        }
    }
    lock.lock();
}
