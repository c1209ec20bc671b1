#include "KLVMsgSocketCommunicator.h"

#include <climits>
#include <vector>

#include "KLVBasUtlsleep.h"
#include "KLVMsgAtExit.h"
#include "KLVMsgChannelList.h"
#include "KLVMsgChannelQueryByLabel.h"
#include "KLVMsgChannelWait.h"
#include "KLVMsgCommSocket.h"
#include "KLVMsgCycle.h"
#include "KLVMsgInputStream.h"
#include "KLVMsgMessageQuery.h"
#include "KLVMsgNotedNumbers.h"
#include "KLVMsgOutputStream.h"
#include "KLVMsgRegistryInternals.h"
#include "KLVMsgSocketErrorInfo.h"
#include "KLVMsgSocketField.h"
#include "KLVMsgSocketInternals.h"
#include "KLVMsgSocketMessage.h"
#include "KLVMsgVectors.h"

template class KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>;

// The id of the next record; guarded by the communicator's lock, never reset.
static unsigned int msg_send_id_counter = 1;

// How often the blocking operations look again, in milliseconds.
static const unsigned pollMilliseconds = 20;

// Takes a lock, and forgets what is known under noted numbers: they have been given out anew, and
// the old connections have gone. Every operation begins so with the communicator's lock. A cycle
// looks its sockets up so with the registry's as well: no further number is noted meanwhile.
template <class Guard>
class KLVMsgSocketCommunicator::UpToDate {
public:
    explicit UpToDate(KLVMsgSocketCommunicator& communicator) { communicator.ForgetNoted(true); }

    const Guard lock;
};

KLVMsgSocketCommunicator::KLVMsgSocketCommunicator()
    : m_lists(std::make_unique<KLVMsgCycleLists>()) {}

KLVMsgSocketCommunicator::~KLVMsgSocketCommunicator() {
    m_inputStream = nullptr;
    m_outputStream = nullptr;
}

// Drops what is known under the noted numbers, and with `acceptedToo` what an earlier wait has
// accepted under them and is still unknown. Requires, as the next two do: the lock is held.
void KLVMsgSocketCommunicator::ForgetNoted(bool acceptedToo) {
    if (!KLVMsgAnyNoted) {
        return;
    }
    for (int number = 0; KLVMsgTakeNote(number);) {
        Forget(number);
        if (acceptedToo) {
            KLVMsgEraseEvery(m_organizer.waitable.newChannels, number);
        }
    }
}

// A queued record keeps its place and its id: the ids of the queue have no gap.
void KLVMsgSocketCommunicator::Forget(int number) {
    KLVMsgEraseEvery(m_organizer.channels, number);
    KLVMsgEraseEvery(m_organizer.waitable.channels, number);
    for (std::size_t i = 0; i < m_pending.Size(); ++i) {
        if (m_pending[i].channel.connection == number) {
            m_pending[i].channel = KLVMsgChannel();
            m_pending[i].message = nullptr;
        }
    }
}

// Shuts down a known connection, unless its number was given out anew since the operation began.
void KLVMsgSocketCommunicator::ShutDown(int number) {
    const KLVMsgLockedRegistry registry;
    if (!KLVMsgIsNoted(number)) {
        registry.ShutDownConnection(number);
    }
}

// Set-up ------------------------------------------------------------------------------------------

void KLVMsgSocketCommunicator::AddConnection(const KLVMsgChannel& channel, bool flag) {
    const Operation operation(*this);
    m_organizer.RegisterChannel(channel, flag);
}

// What the organizer's RemoveChannel does with a query, though numbers may come back meanwhile.
void KLVMsgSocketCommunicator::RemoveConnection(KLVMsgChannelQuery* query, bool) {
    const Operation operation(*this);
    KLVBasVector<KLVMsgChannel> selected;
    m_organizer.LookupChannel(query, selected);
    KLVMsgEraseSelected(selected, m_organizer.channels, m_organizer.waitable.channels);
    for (std::size_t i = 0; i < selected.Size(); ++i) {
        ShutDown(selected[i].connection);
    }
}

void KLVMsgSocketCommunicator::RetrieveConnections(KLVMsgChannelQuery* query,
                                                   KLVBasVector<KLVMsgChannel>& channels) {
    const Operation operation(*this);
    m_organizer.LookupChannel(query, channels);
}

void KLVMsgSocketCommunicator::RegisterMessagePrototype(const char* type,
                                                        KLVMsgSocketMessage* prototype) {
    KLVMsgRegistry().RegisterMessagePrototype(KLVString(type), prototype);
}

void KLVMsgSocketCommunicator::SetDefaultInputStream(KLVMsgInputStream* stream) {
    const Operation operation(*this);
    m_inputStream = stream;
}

void KLVMsgSocketCommunicator::SetDefaultOutputStream(KLVMsgOutputStream* stream) {
    const Operation operation(*this);
    m_outputStream = stream;
}

// Sending -----------------------------------------------------------------------------------------

void KLVMsgSocketCommunicator::ISendSocketMessage(const KLVMsgChannel& channel,
                                                  KLVMsgSocketMessage* message, unsigned int& id) {
    const Operation operation(*this);
    id = Queue(channel, message);
}

void KLVMsgSocketCommunicator::ISendSocketMessage(KLVMsgChannelQuery* query,
                                                  KLVMsgSocketMessage* message,
                                                  KLVBasVector<unsigned int>& ids) {
    const Operation operation(*this);
    KLVBasVector<KLVMsgChannel> channels;
    m_organizer.LookupChannel(query, channels);

    KLVMsgAppending<unsigned int> appendingIds(ids);
    for (std::size_t i = 0; i < channels.Size(); ++i) {
        ids.PushBack(msg_send_id_counter + static_cast<unsigned int>(i));
    }
    KLVMsgAppending<KLVMsgChannelMsgStruct> appending(m_pending);
    for (std::size_t i = 0; i < channels.Size(); ++i) {
        const unsigned int id = msg_send_id_counter + static_cast<unsigned int>(i);
        m_pending.PushBack({channels[i], message, id});
    }
    msg_send_id_counter += static_cast<unsigned int>(channels.Size());
    appendingIds.Keep();
    appending.Keep();
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
    const Operation operation(*this);
    return PositionInQueue(id) < m_pending.Size();
}

void KLVMsgSocketCommunicator::QueryPendingStatus(const KLVBasVector<unsigned int>& ids,
                                                  KLVBasVector<unsigned int>& pending) {
    pending.Clear();
    const Operation operation(*this);
    std::vector<bool> asked(m_pending.Size());
    for (std::size_t i = 0; i < ids.Size(); ++i) {
        const std::size_t position = PositionInQueue(ids[i]);
        if (position < asked.size()) {
            asked[position] = true;
        }
    }
    KLVMsgAppending<unsigned int> appending(pending);
    for (std::size_t i = 0; i < asked.size(); ++i) {
        if (asked[i]) {
            pending.PushBack(m_pending[i].id);
        }
    }
    appending.Keep();
}

// One turn for each queued record. A listening socket is not held: nothing is written there.
static void AddTurns(const KLVBasVector<KLVMsgChannelMsgStruct>& records,
                     const KLVMsgLockedRegistry& registry, KLVMsgCycle& cycle) {
    for (std::size_t i = 0; i < records.Size(); ++i) {
        const KLVMsgChannel& channel = records[i].channel;
        cycle.AddTurn({registry.FindStreamSocket(channel.connection), channel});
    }
}

// `socket` is what stood under the record's number when the transmission began; null if it was none
// that could be written to.
static void Transmit(const KLVMsgChannelMsgStruct& record, KLVMsgCommSocket* socket,
                     KLVMsgOutputStream& stream) {
    if (record.message == nullptr || socket == nullptr || !KLVMsgLoad(socket->outputOpen)) {
        return;
    }
    const int number = socket->descriptor;
    stream.m_connectionNumber = number;
    const KLVString type = record.message->GetMessageType();  // which may call the registry
    if (KLVMsgLockedRegistry().SendMessageHeader(socket, number, type) != 0) {
        record.message->WriteMessage(&stream);
    }
}

void KLVMsgSocketCommunicator::TransmitPendingMessage() {
    if (m_outputStream == nullptr) {
        return;
    }
    const Operation operation(*this);
    KLVMsgOutputStream* const stream = m_outputStream;
    if (stream == nullptr || m_pending.Size() == 0) {
        return;  // the stream may have been taken away while this call waited for the lock
    }
    const KLVMsgAtExit clear([this] { m_pending.Clear(); });
    KLVMsgCycle cycle(*m_lists);
    AddTurns(m_pending, UpToDate<KLVMsgLockedRegistry>(*this).lock, cycle);
    for (std::size_t i = 0; i < m_pending.Size(); ++i) {
        Transmit(m_pending[i], static_cast<KLVMsgCommSocket*>(cycle.Current().socket), *stream);
        cycle.EndTurn();
    }
}

// Requires, as the next two do: the lock is held.
unsigned int KLVMsgSocketCommunicator::Queue(const KLVMsgChannel& channel,
                                             KLVMsgSocketMessage* message) {
    m_pending.PushBack({channel, message, msg_send_id_counter});
    return msg_send_id_counter++;  // after the append: the ids in the queue have no gap
}

// A position outside the queue when the id is not in it. The difference holds across the wrap.
std::size_t KLVMsgSocketCommunicator::PositionInQueue(unsigned int id) const {
    return m_pending.Size() == 0 ? 0 : id - m_pending[0].id;
}

// The message task --------------------------------------------------------------------------------

void KLVMsgSocketCommunicator::PrepareStartupMessageTask() {
    m_taskRunning.store(true, std::memory_order_relaxed);
}

bool KLVMsgSocketCommunicator::IsOkToShutDownMessageTask() const {
    return !m_taskRunning.load(std::memory_order_relaxed);
}

void KLVMsgSocketCommunicator::ShutdownMessageTask() {
    const Operation operation(*this);
    for (std::size_t i = 0; i < m_organizer.channels.Size(); ++i) {
        ShutDown(m_organizer.channels[i].connection);
    }
    m_organizer.channels.Clear();
    m_organizer.waitable.channels.Clear();
    m_taskRunning.store(false, std::memory_order_relaxed);
}

// Receiving ---------------------------------------------------------------------------------------

// True when the list has the channel of position `i` before that. Each wait appends in ascending
// order of descriptors, so only the first `foundEarlier`, of earlier waits, can stand apart.
static bool IsRepeated(const KLVBasVector<KLVMsgChannel>& list, std::size_t i,
                       std::size_t foundEarlier) {
    if (foundEarlier != 0) {
        return static_cast<std::size_t>(KLVMsgFindChannel(list, list[i].connection)) != i;
    }
    return i != 0 && list[i] == list[i - 1];
}

// Takes the first entry of each lost connection off the watched channels, whoever has the number by
// then.
static void DropLost(const std::vector<KLVMsgTurn>& turns, KLVBasVector<KLVMsgChannel>& watched) {
    for (const KLVMsgTurn& turn : turns) {
        if (turn.lost) {
            KLVMsgEraseFirst(watched, turn.channel.connection);
        }
    }
}

void KLVMsgSocketCommunicator::WaitConnectionsAndMessages(KLVMsgChannelWaitable* waitable,
                                                          int timeout) {
    const Operation operation(*this);
    KLVMsgChannelWaitable& waited = waitable == nullptr ? m_organizer.waitable : *waitable;
    const KLVMsgAtExit clear([&waited] { waited.readyChannels.Clear(); });
    const std::size_t foundEarlier = waited.readyChannels.Size();
    KLVMsgCycle cycle(*m_lists);
    Wait(waited, timeout, cycle);
    MakeKnown(waited.newChannels);

    const KLVMsgAtExit dropLost([&] { DropLost(cycle.Turns(), waited.channels); });
    for (std::size_t i = 0; i < waited.readyChannels.Size(); ++i) {
        const KLVMsgChannel channel = waited.readyChannels[i];
        const bool received =
            !IsRepeated(waited.readyChannels, i, foundEarlier) && ReceiveMessage(cycle.Current());
        cycle.Current().lost = !received && channel.GetSocket() == nullptr;
        cycle.EndTurn();
    }
}

// Waits. What it has accepted remains in the waitable when it fails half way.
void KLVMsgSocketCommunicator::Wait(KLVMsgChannelWaitable& waitable, int timeout,
                                    KLVMsgCycle& cycle) {
    if (waitable.channels.Size() + waitable.readyChannels.Size() == 0) {
        return;  // nothing to look up: the registry may not be there, or not any more
    }
    KLVMsgBeginWait(waitable, cycle, UpToDate<KLVMsgLockedRegistry>(*this).lock);
    // What it accepts is noted too, and stays: that is about to be made known.
    const KLVMsgAtExit forgetReplaced([this] { ForgetNoted(false); });
    KLVMsgWait(waitable, timeout, cycle);
}

// Takes the accepted connections over, one by one: where memory runs short the others remain.
void KLVMsgSocketCommunicator::MakeKnown(KLVBasVector<KLVMsgChannel>& accepted) {
    while (accepted.Size() != 0) {
        m_organizer.RegisterChannel(accepted[0], true);
        accepted.Erase(0);
    }
}

// Reads one message into the inbox. False when there was no header to read; a message that nobody
// registered is passed over, its body left in the socket.
bool KLVMsgSocketCommunicator::ReceiveMessage(const KLVMsgTurn& turn) {
    KLVMsgCommSocket* const socket = KLVMsgAsStreamSocket(turn.socket);
    if (socket == nullptr) {
        return false;
    }
    // Room in the inbox comes first: what has been read cannot be put back.
    KLVMsgAppending<KLVMsgChannelMsgStruct> room(m_inbox);
    m_inbox.PushBack({});

    const int number = turn.channel.connection;
    KLVString type;
    if (KLVMsgLockedRegistry().RetrieveMessageType(socket, number, type) == 0 ||
        type.Length() == 0) {
        return false;
    }
    KLVMsgSocketMessage* const message = KLVMsgRegistry().GetMsgInstance(type);
    if (message != nullptr) {
        m_inbox[m_inbox.Size() - 1] = {turn.channel, message, 0};
        room.Keep();  // also when it throws: the application has no other way to find it
        m_inputStream->m_connectionNumber = number;
        message->ReadMessage(m_inputStream);
    }
    return true;
}

void KLVMsgSocketCommunicator::AddMessage(const KLVMsgChannelMsgStruct& record) {
    const Operation operation(*this);
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
    const Operation operation(*this);
    KLVBasVector<KLVMsgSocketMessage*> messages;
    for (std::size_t i = 0; i < m_inbox.Size(); ++i) {
        messages.PushBack(m_inbox[i].message);
    }
    KLVBasVector<int> indexes;
    query->Search(messages, indexes);

    std::vector<bool> leaving(m_inbox.Size());
    KLVMsgAppending<Element> appending(taken);
    for (std::size_t i = indexes.Size(); i-- > 0;) {
        const std::size_t position = static_cast<std::size_t>(indexes[i]);
        if (position < leaving.size() && !leaving[position]) {
            taken.PushBack(project(m_inbox[position]));
            leaving[position] = true;
        }
    }
    appending.Keep();

    std::size_t kept = 0;
    for (std::size_t i = 0; i < m_inbox.Size(); ++i) {
        if (!leaving[i]) {
            m_inbox[kept++] = m_inbox[i];
        }
    }
    KLVMsgShrink(m_inbox, kept);
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
    const Operation operation(*this);
    const int error = KLVMsgLockedRegistry().LastErrorBehind(channel.connection);
    if (error != 0) {
        KLVMsgSocketErrorInfo(error, text);
    }
    code = error;
}
