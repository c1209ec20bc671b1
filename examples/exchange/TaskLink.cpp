#include <KLVMsgCommModules.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <vector>

#include "Library.h"
#include "Link.h"
#include "Messages.h"
#include "Outcome.h"

namespace {

const int backlog = 512;  // the message task accepts ten connections a second

// The time limit while it lives. A peer that stops in the middle of a message holds the library's
// locks, and with them whoever calls it: then the process ends, with these words.
class Watch {
public:
    explicit Watch(const std::string& words) : m_words(words + "\n") {
        TimeLimit::Restart(m_words.c_str());
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() { TimeLimit::End(); }

private:
    const std::string m_words;
};

struct Everything : KLVMsgMessageQuery {
    void Search(const KLVBasVector<KLVMsgSocketMessage*>& messages,
                KLVBasVector<int>& indexes) const override {
        for (std::size_t i = 0; i < messages.Size(); ++i) {
            indexes.PushBack(static_cast<int>(i));
        }
    }
};

KLVMsgChannelQueryByLabel ByLabel(const std::string& label) {
    return KLVMsgChannelQueryByLabel(KLVString(label.data(), static_cast<int>(label.size())));
}

// A peer is a connection number here, which may come back for somebody else. So the label says who
// it is: a connection that has just been accepted has none.
KLVMsgChannel ChannelOf(KLVMsgPeer peer) {
    KLVMsgChannel channel;
    channel.connection = static_cast<int>(peer.id);
    return channel;
}

std::string LabelOn(const KLVMsgChannel& channel) {
    const KLVString label = channel.GetLabel();
    return {label.Text(), static_cast<std::size_t>(label.Length())};
}

KLVBasVector<KLVMsgChannel> Channels(KLVMsgChannelQuery* query) {
    KLVBasVector<KLVMsgChannel> channels;
    Communicator().RetrieveConnections(query, channels);
    return channels;
}

// The application owns every message, sent and received, and asks for what it wants to know.
class TaskLink : public Link {
public:
    TaskLink(const std::string& program, const std::string& stalled)
        : m_gaveUp(Printable(program) + ": gave up: "), m_stalled(m_gaveUp + stalled) {
        std::apply([](auto&... prototypes) { (RegisterPrototype(prototypes), ...); }, m_prototypes);
    }

    // In the order that the library asks for: first the connections and the task, then its thread.
    ~TaskLink() override {
        const Watch watch(m_stalled);
        Communicator().ShutdownMessageTask();
        if (m_thread != nullptr) {
            m_thread->Join();
        }
        Everything everything;
        TakeFromInbox(everything);
    }

    int Serve(const KLVMsgSocketAddress& address) override {
        m_serves = true;
        return ::Serve(address, backlog, "").GetSocket()->address.port;
    }

    void Connect(const KLVMsgSocketAddress& address, const std::string& label) override {
        const Watch watch(m_gaveUp + "the " + label + " does not accept");
        ::Connect(address, label.c_str());
    }

    void Start() override {
        Communicator().PrepareStartupMessageTask();
        try {
            m_thread = std::make_unique<KLVBasAtiThread>(m_task);
        } catch (const std::system_error& error) {
            throw std::runtime_error(std::string("cannot start a thread: ") + error.what());
        }
    }

    void Post(const std::string& label, Message message) override {
        const Watch watch(m_stalled);
        KLVMsgChannelQueryByLabel query = ByLabel(label);
        Posted& posted = Keep(std::move(message));
        Communicator().ISendSocketMessage(&query, posted.message.get(), posted.ids);
    }

    void Post(KLVMsgPeer peer, Message message) override {
        const Watch watch(m_stalled);
        Posted& posted = Keep(std::move(message));
        unsigned int id = 0;
        Communicator().ISendSocketMessage(ChannelOf(peer), posted.message.get(), id);
        posted.ids.PushBack(id);
    }

    // That it is written means that this was tried: the error tells how it went.
    KLVMsgOutcome Send(const std::string& label, Message message) override {
        const Watch watch(m_stalled);
        Communicator().SendSocketMessage(label.c_str(), message.get());
        const std::string cause = ErrorOn(label);
        return cause.empty() ? KLVMsgOutcome() : Gone();
    }

    void SetLabel(KLVMsgPeer peer, const std::string& label) override {
        const Watch watch(m_stalled);
        ChannelOf(peer).SetLabel(KLVString(label.data(), static_cast<int>(label.size())));
    }

    std::string LabelOf(KLVMsgPeer peer) override {
        const Watch watch(m_stalled);
        return LabelOn(ChannelOf(peer));
    }

    std::set<std::string> Present() override {
        const Watch watch(m_stalled);
        return Active();
    }

    std::string CauseOf(const std::string& label) override {
        const Watch watch(m_stalled);
        const std::string cause = ErrorOn(label);
        return cause.empty() ? "" : ": " + cause;
    }

    void End(Message farewell) override {
        SendToAll(*farewell);
        const auto deadline = KLVMsgTimeLimit(std::chrono::seconds(5)).Deadline();
        while (!Present().empty() && KLVMsgTimeLimit::Clock::now() < deadline) {
            KLVBasUtlsleep(20);
        }
    }

protected:
    // The communicator's own blocking retrieve has no time limit, and does not see a peer go.
    KLVMsgReceived<KLVMsgSocketMessage> Take(const char* type, KLVMsgTimeLimit limit) override {
        KLVMsgReceived<KLVMsgSocketMessage> received;
        const auto deadline = limit.Deadline();
        for (;; KLVBasUtlsleep(20)) {
            const Watch watch(m_stalled);
            ForgetWritten();
            const bool more = m_serves || !Active().empty();  // before the last look
            if (TakeOldest(type, received)) {
                return received;
            }
            if (!more || KLVMsgTimeLimit::Clock::now() >= deadline) {
                static_cast<KLVMsgOutcome&>(received) = more ? Late() : Gone();
                return received;
            }
        }
    }

private:
    struct Posted {
        Message message;
        KLVBasVector<unsigned int> ids;
    };
    using Taken = std::deque<std::pair<KLVMsgPeer, Message>>;

    static KLVMsgOutcome Gone() { return {KLVMsgOutcome::kPeerGone, 0, "the peer has gone"}; }
    static KLVMsgOutcome Late() { return {KLVMsgOutcome::kTooLate, 0, "too late"}; }

    template <class Prototype>
    static void RegisterPrototype(Prototype& prototype) {
        Communicator().RegisterMessagePrototype(Prototype::type, &prototype);
    }

    Posted& Keep(Message message) {
        m_posted.push_back({std::move(message), {}});
        return m_posted.back();
    }

    // A message may go when none of its ids is pending.
    void ForgetWritten() {
        const auto written = [](const Posted& posted) {
            KLVBasVector<unsigned int> pending;
            Communicator().QueryPendingStatus(posted.ids, pending);
            return pending.Size() == 0;
        };
        m_posted.erase(std::remove_if(m_posted.begin(), m_posted.end(), written), m_posted.end());
    }

    // The oldest first. The inbox gives them the other way round.
    static Taken TakeFromInbox(KLVMsgMessageQuery& query) {
        KLVBasVector<KLVMsgChannelMsgStruct> records;
        Communicator().IRetrieveMessagesWithChannel(&query, records);
        Taken taken;
        for (std::size_t i = 0; i < records.Size(); ++i) {
            KLVMsgPeer peer;
            peer.id = static_cast<unsigned>(records[i].channel.connection);
            taken.emplace_front(peer, records[i].message);
        }
        return taken;
    }

    bool TakeOldest(const char* type, KLVMsgReceived<KLVMsgSocketMessage>& received) {
        Taken& taken = m_taken[type];
        if (taken.empty()) {
            KLVMsgMessageQueryByType query(type);
            taken = TakeFromInbox(query);
        }
        if (taken.empty()) {
            return false;
        }
        received.peer = taken.front().first;
        received.message = std::move(taken.front().second);
        taken.pop_front();
        return true;
    }

    // The listening socket and those who have not said who they are have no label.
    static std::set<std::string> Active() {
        KLVBasVector<KLVMsgChannel> channels = Channels(nullptr);
        std::set<std::string> labels;
        for (std::size_t i = 0; i < channels.Size(); ++i) {
            if (channels[i].IsActiveInCurrentThreads()) {
                labels.insert(LabelOn(channels[i]));
            }
        }
        labels.erase("");
        return labels;
    }

    void SendToAll(KLVMsgSocketMessage& message) {
        const Watch watch(m_stalled);
        KLVMsgChannelQuery* const everybody = nullptr;
        Communicator().SendSocketMessage(everybody, &message);
    }

    static std::string ErrorOn(const std::string& label) {
        KLVMsgChannelQueryByLabel query = ByLabel(label);
        const KLVBasVector<KLVMsgChannel> channels = Channels(&query);
        int code = 0;
        KLVString text;
        if (channels.Size() != 0) {
            Communicator().GetErrorsOnChannel(channels[0], code, text);
        }
        return code == 0 ? "" : text.Text();
    }

    const std::string m_gaveUp;   // the beginning of the last words
    const std::string m_stalled;  // all of them, when the message task stands still
    bool m_serves = false;
    // What outlives the library's use of it.
    MessageTypes m_prototypes;
    std::deque<Posted> m_posted;
    std::map<std::string, Taken> m_taken;  // by the type's name
    Library m_library;
    KLVMsgMessageTask m_task;
    std::unique_ptr<KLVBasAtiThread> m_thread;
};

}  // namespace

std::unique_ptr<Link> NewTaskLink(const std::string& program, const std::string& stalled) {
    return std::make_unique<TaskLink>(program, stalled);
}
