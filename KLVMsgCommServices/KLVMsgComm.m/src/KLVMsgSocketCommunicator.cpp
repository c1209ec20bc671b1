#include "KLVMsgSocketCommunicator.h"

#include <climits>
#include <vector>

#include "KLVBasUtlsleep.h"
#include "KLVMsgChannelList.h"
#include "KLVMsgChannelQueryByLabel.h"
#include "KLVMsgCommSocket.h"
#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgInputStream.h"
#include "KLVMsgMessageQuery.h"
#include "KLVMsgOutputStream.h"
#include "KLVMsgSocketErrorInfo.h"
#include "KLVMsgSocketInternals.h"
#include "KLVMsgSocketMessage.h"

template class KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>;

using CommunicatorLock = KLVBasAtiGlobalSingletonLock<KLVMsgSocketCommunicator>;

// The id of the next record; guarded by the communicator's lock, never reset.
static unsigned int msg_send_id_counter = 1;

// How often the blocking operations look again, in milliseconds.
static const unsigned pollMilliseconds = 20;

namespace {

KLVMsgConnectionServicesUtils& Registry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

// Empties a vector when its work is over, also when a message's own code throws in the middle of
// it.
template <class T>
class ClearAtExit {
public:
    explicit ClearAtExit(KLVBasVector<T>& vector) : m_vector(vector) {}
    ~ClearAtExit() { m_vector.Clear(); }
    ClearAtExit(const ClearAtExit&) = delete;
    ClearAtExit& operator=(const ClearAtExit&) = delete;

private:
    KLVBasVector<T>& m_vector;
};

// Takes elements off the end until `size` are left.
template <class T>
void Shrink(KLVBasVector<T>& vector, std::size_t size) {
    while (vector.Size() > size) {
        vector.Erase(static_cast<int>(vector.Size() - 1));
    }
}

}  // namespace

KLVMsgSocketCommunicator::KLVMsgSocketCommunicator() = default;

KLVMsgSocketCommunicator::~KLVMsgSocketCommunicator() {
    m_inputStream = nullptr;
    m_outputStream = nullptr;
}

// Set-up ------------------------------------------------------------------------------------------

void KLVMsgSocketCommunicator::AddConnection(const KLVMsgChannel& channel, bool flag) {
    const CommunicatorLock lock;
    m_organizer.RegisterChannel(channel, flag);
}

void KLVMsgSocketCommunicator::RemoveConnection(KLVMsgChannelQuery* query, bool flag) {
    const CommunicatorLock lock;
    m_organizer.RemoveChannel(query, flag);
}

void KLVMsgSocketCommunicator::RetrieveConnections(KLVMsgChannelQuery* query,
                                                   KLVBasVector<KLVMsgChannel>& channels) {
    const CommunicatorLock lock;
    m_organizer.LookupChannel(query, channels);
}

void KLVMsgSocketCommunicator::RegisterMessagePrototype(const char* type,
                                                        KLVMsgSocketMessage* prototype) {
    Registry().RegisterMessagePrototype(KLVString(type), prototype);
}

void KLVMsgSocketCommunicator::SetDefaultInputStream(KLVMsgInputStream* stream) {
    const CommunicatorLock lock;
    m_inputStream = stream;
}

void KLVMsgSocketCommunicator::SetDefaultOutputStream(KLVMsgOutputStream* stream) {
    const CommunicatorLock lock;
    m_outputStream = stream;
}

// Sending -----------------------------------------------------------------------------------------

void KLVMsgSocketCommunicator::ISendSocketMessage(const KLVMsgChannel& channel,
                                                  KLVMsgSocketMessage* message, unsigned int& id) {
    const CommunicatorLock lock;
    id = Queue(channel, message);
}

void KLVMsgSocketCommunicator::ISendSocketMessage(KLVMsgChannelQuery* query,
                                                  KLVMsgSocketMessage* message,
                                                  KLVBasVector<unsigned int>& ids) {
    const CommunicatorLock lock;
    KLVBasVector<KLVMsgChannel> channels;
    m_organizer.LookupChannel(query, channels);
    for (std::size_t i = 0; i < channels.Size(); ++i) {
        ids.PushBack(msg_send_id_counter);
        try {
            Queue(channels[i], message);
        } catch (...) {
            Shrink(ids, ids.Size() - 1);  // the next record will have this id
            throw;
        }
    }
}

void KLVMsgSocketCommunicator::ISendSocketMessage(const char* label, KLVMsgSocketMessage* message,
                                                  unsigned int& id) {
    id = 0;
    KLVMsgChannelQueryByLabel query{KLVString(label)};
    KLVBasVector<unsigned int> ids;
    ISendSocketMessage(&query, message, ids);
    if (ids.Size() == 1) {
        id = ids[0];
    }
}

bool KLVMsgSocketCommunicator::SendSocketMessage(const KLVMsgChannel& channel,
                                                 KLVMsgSocketMessage* message) {
    unsigned int id = 0;
    ISendSocketMessage(channel, message, id);
    bool pending = QueryPendingStatus(id);
    while (pending) {
        KLVBasUtlsleep(pollMilliseconds);
        pending = QueryPendingStatus(id);
    }
    return pending;
}

void KLVMsgSocketCommunicator::SendSocketMessage(KLVMsgChannelQuery* query,
                                                 KLVMsgSocketMessage* message) {
    KLVBasVector<unsigned int> ids;
    ISendSocketMessage(query, message, ids);
    KLVBasVector<unsigned int> pending;
    QueryPendingStatus(ids, pending);
    while (pending.Size() != 0) {
        KLVBasUtlsleep(pollMilliseconds);
        QueryPendingStatus(ids, pending);
    }
}

void KLVMsgSocketCommunicator::SendSocketMessage(const char* label, KLVMsgSocketMessage* message) {
    KLVMsgChannelQueryByLabel query{KLVString(label)};
    SendSocketMessage(&query, message);
}

bool KLVMsgSocketCommunicator::QueryPendingStatus(unsigned int& id) {
    const CommunicatorLock lock;
    return PositionInQueue(id) < m_pending.Size();
}

void KLVMsgSocketCommunicator::QueryPendingStatus(const KLVBasVector<unsigned int>& ids,
                                                  KLVBasVector<unsigned int>& pending) {
    pending.Clear();
    const CommunicatorLock lock;
    std::vector<bool> asked(m_pending.Size());
    for (std::size_t i = 0; i < ids.Size(); ++i) {
        const std::size_t position = PositionInQueue(ids[i]);
        if (position < asked.size()) {
            asked[position] = true;
        }
    }
    for (std::size_t i = 0; i < asked.size(); ++i) {
        if (asked[i]) {
            pending.PushBack(m_pending[i].id);
        }
    }
}

void KLVMsgSocketCommunicator::TransmitPendingMessage() {
    if (m_outputStream == nullptr) {
        return;
    }
    const CommunicatorLock lock;
    KLVMsgOutputStream* const stream = m_outputStream;
    if (stream == nullptr) {
        return;  // taken away while this call waited for the lock
    }
    const ClearAtExit<KLVMsgChannelMsgStruct> clear(m_pending);
    for (std::size_t i = 0; i < m_pending.Size(); ++i) {
        Transmit(m_pending[i], *stream);
    }
}

// Requires, as the next three do: the lock is held.
unsigned int KLVMsgSocketCommunicator::Queue(const KLVMsgChannel& channel,
                                             KLVMsgSocketMessage* message) {
    m_pending.PushBack({channel, message, msg_send_id_counter});
    return msg_send_id_counter++;  // after the append: the ids in the queue have no gap
}

// A position outside the queue when the id is not in it. The difference holds across the wrap.
std::size_t KLVMsgSocketCommunicator::PositionInQueue(unsigned int id) const {
    return m_pending.Size() == 0 ? 0 : id - m_pending[0].id;
}

void KLVMsgSocketCommunicator::Transmit(const KLVMsgChannelMsgStruct& record,
                                        KLVMsgOutputStream& stream) {
    if (record.message == nullptr) {
        return;
    }
    const KLVMsgCommSocket* const socket = KLVMsgAsStreamSocket(record.channel.GetSocket());
    if (socket == nullptr || !socket->outputOpen) {
        return;
    }
    stream.m_connectionNumber = socket->descriptor;
    if (Registry().SendMessageHeader(socket->descriptor, record.message->GetMessageType()) != 0) {
        record.message->WriteMessage(&stream);
    }
}

// The message task --------------------------------------------------------------------------------

void KLVMsgSocketCommunicator::PrepareStartupMessageTask() {
    m_taskRunning.store(true, std::memory_order_relaxed);
}

bool KLVMsgSocketCommunicator::IsOkToShutDownMessageTask() const {
    return !m_taskRunning.load(std::memory_order_relaxed);
}

void KLVMsgSocketCommunicator::ShutdownMessageTask() {
    const CommunicatorLock lock;
    m_organizer.Shutdown();
    m_taskRunning.store(false, std::memory_order_relaxed);
}

// Receiving ---------------------------------------------------------------------------------------

void KLVMsgSocketCommunicator::WaitConnectionsAndMessages(KLVMsgChannelWaitable* waitable,
                                                          int timeout) {
    const CommunicatorLock lock;
    KLVMsgChannelWaitable& waited = waitable == nullptr ? m_organizer.waitable : *waitable;
    const ClearAtExit<KLVMsgChannel> clear(waited.readyChannels);
    waited.WaitForConnectionAndMessages(timeout);

    for (std::size_t i = 0; i < waited.newChannels.Size(); ++i) {
        // An entry that still holds the number would have it served twice.
        m_organizer.ForgetChannel(waited.newChannels[i]);
        m_organizer.RegisterChannel(waited.newChannels[i], true);
    }
    waited.newChannels.Clear();

    for (std::size_t i = 0; i < waited.readyChannels.Size(); ++i) {
        const KLVMsgChannel channel = waited.readyChannels[i];
        if (!ReceiveMessage(channel) && channel.GetSocket() == nullptr) {
            KLVMsgEraseFirst(waited.channels, channel);
        }
    }
}

// Reads one message into the inbox. False when there was no header to read; a message that nobody
// registered is passed over, its body left in the socket.
bool KLVMsgSocketCommunicator::ReceiveMessage(const KLVMsgChannel& channel) {
    KLVString type;
    if (Registry().RetrieveMessageTypeFromSocket(channel.connection, type) == 0 ||
        type.Length() == 0) {
        return false;
    }
    KLVMsgSocketMessage* const message = Registry().GetMsgInstance(type);
    if (message != nullptr) {
        m_inputStream->m_connectionNumber = channel.connection;
        message->ReadMessage(m_inputStream);
        m_inbox.PushBack({channel, message, 0});
    }
    return true;
}

void KLVMsgSocketCommunicator::AddMessage(const KLVMsgChannelMsgStruct& record) {
    const CommunicatorLock lock;
    m_inbox.PushBack(record);
}

void KLVMsgSocketCommunicator::IRetrieveMessagesWithChannel(
    KLVMsgMessageQuery* query, KLVBasVector<KLVMsgChannelMsgStruct>& records) {
    TakeFromInbox(query, records, [](const KLVMsgChannelMsgStruct& record) { return record; });
}

void KLVMsgSocketCommunicator::IRetrieveMessages(KLVMsgMessageQuery* query,
                                                 KLVBasVector<KLVMsgSocketMessage*>& messages) {
    TakeFromInbox(query, messages,
                  [](const KLVMsgChannelMsgStruct& record) { return record.message; });
}

// Appends what `project` makes of the selected records, the newest first, and closes the gaps in
// one pass. A position that is out of range or named twice is passed over.
template <class Element, class Project>
void KLVMsgSocketCommunicator::TakeFromInbox(KLVMsgMessageQuery* query,
                                             KLVBasVector<Element>& taken, Project project) {
    const CommunicatorLock lock;
    KLVBasVector<KLVMsgSocketMessage*> messages;
    for (std::size_t i = 0; i < m_inbox.Size(); ++i) {
        messages.PushBack(m_inbox[i].message);
    }
    KLVBasVector<int> indexes;
    query->Search(messages, indexes);

    std::vector<bool> leaving(m_inbox.Size());
    const std::size_t before = taken.Size();
    try {
        for (std::size_t i = indexes.Size(); i-- > 0;) {
            const std::size_t position = static_cast<std::size_t>(indexes[i]);
            if (position < leaving.size() && !leaving[position]) {
                taken.PushBack(project(m_inbox[position]));
                leaving[position] = true;
            }
        }
    } catch (...) {
        Shrink(taken, before);  // they are still in the inbox
        throw;
    }

    std::size_t kept = 0;
    for (std::size_t i = 0; i < m_inbox.Size(); ++i) {
        if (!leaving[i]) {
            m_inbox[kept++] = m_inbox[i];
        }
    }
    Shrink(m_inbox, kept);
}

std::size_t KLVMsgSocketCommunicator::RetrieveMessages(
    KLVMsgMessageQuery* query, KLVBasVector<KLVMsgSocketMessage*>& messages) {
    const std::size_t before = messages.Size();
    if (before > INT_MAX) {
        return before;
    }
    do {
        KLVBasUtlsleep(pollMilliseconds);
        IRetrieveMessages(query, messages);
    } while (messages.Size() == before);
    return messages.Size();
}

void KLVMsgSocketCommunicator::GetErrorsOnChannel(const KLVMsgChannel& channel, int& code,
                                                  KLVString& text) {
    const CommunicatorLock lock;
    code = 0;
    const KLVMsgSocket* const socket = channel.GetSocket();
    if (socket != nullptr && Registry().HasError(socket->descriptor)) {
        Registry().GetLastErrorCode(socket->descriptor, code);
        KLVMsgSocketErrorInfo(code, text);
    }
}
