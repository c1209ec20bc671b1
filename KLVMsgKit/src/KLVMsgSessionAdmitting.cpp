// Who may connect to a session, and what is known of who has.
#include <cerrno>
#include <exception>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "KLVMsgPeerInfoData.h"
#include "KLVMsgSessionCore.h"

namespace {

// Lets a mutex go, and has it again at the end.
class Released {
public:
    explicit Released(KLVMsgSessionCore::Lock& lock) : m_lock(lock) { m_lock.unlock(); }
    ~Released() { m_lock.lock(); }
    Released(const Released&) = delete;
    Released& operator=(const Released&) = delete;

private:
    KLVMsgSessionCore::Lock& m_lock;
};

KLVMsgOutcome NotAdmitted(const std::string& why) { return {KLVMsgOutcome::kFailed, EACCES, why}; }

// Asks the application. What it throws refuses.
KLVMsgOutcome AskAdmit(const KLVMsgAdmit& admit, const KLVMsgPeerInfo& info) {
    try {
        return admit(info) ? KLVMsgOutcome() : NotAdmitted("it was not admitted");
    } catch (const std::exception& error) {
        return NotAdmitted(std::string("who was to admit it failed: ") + error.what());
    } catch (...) {
        return NotAdmitted("who was to admit it failed");
    }
}

std::shared_ptr<KLVMsgPeerInfoData> Addresses(const std::string& peer, const std::string& served) {
    auto data = std::make_shared<KLVMsgPeerInfoData>();
    std::tie(data->host, data->port) = KLVMsgSessionSockets::Parts(peer);
    std::tie(data->servedHost, data->servedPort) = KLVMsgSessionSockets::Parts(served);
    return data;
}

}  // namespace

// Whether a connection that was accepted may be one. With ESHUTDOWN nobody serves there any more,
// so that nothing is to be told about it.
KLVMsgOutcome KLVMsgSessionCore::Admit(Lock& lock, std::uint64_t listener,
                                       const std::string& address,
                                       const std::vector<std::string>& names, std::string& served) {
    if (m_live >= m_options.connectionLimit) {
        EndOneHalf();
        return TooMany();
    }
    const KLVMsgLoop::Listener* const serving = m_loop.FindListener(listener);
    if (serving == nullptr) {
        return Ended(KLVMsgOutcome::kFailed);  // while the greeting went on
    }
    served = serving->text;
    const std::shared_ptr<const KLVMsgAdmit> admit = serving->admit;
    if (admit == nullptr) {
        return {};
    }
    const auto data = Addresses(address, served);
    data->names = names;
    data->since = std::chrono::system_clock::now();
    KLVMsgOutcome outcome;
    {
        const Released released(lock);
        outcome = AskAdmit(*admit, KLVMsgPeerInfo(data));
    }
    // Meanwhile others have connected from here, or serving has ended.
    if (m_loop.FindListener(listener) == nullptr) {
        return Ended(KLVMsgOutcome::kFailed);
    }
    return outcome && m_live >= m_options.connectionLimit ? TooMany() : outcome;
}

KLVMsgPeerInfo KLVMsgSessionCore::Info(KLVMsgPeer peer) {
    const Lock lock(m_mutex);
    Peer* const found = m_book.Find(peer);
    if (found == nullptr) {
        return KLVMsgPeerInfo(m_isEnding ? Ended(KLVMsgOutcome::kPeerGone) : Gone(peer));
    }
    const auto data = Addresses(found->address, found->served);
    data->peer = found->peer;
    data->label = found->label;
    data->since = found->since;
    if (found->link != nullptr && found->link->transport != nullptr) {
        data->names = found->link->transport->Names();
    }
    AddCounts(data->counts, *found);
    return KLVMsgPeerInfo(data);
}
