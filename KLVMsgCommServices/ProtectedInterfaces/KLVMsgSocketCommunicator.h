// For applications: sending and receiving messages.
//
// Invariants:
// - One lock, the singleton's, guards all fields. Two of them, the output stream and the task flag,
//   are atomic, since they are also looked at without it. Every operation holds the lock for its
//   whole run, except where it says otherwise. The registry's lock may be taken while it is held,
//   and never the other way round.
// - Messages and streams are the application's. The inbox and the queue only point to messages.
// - The ids in the pending queue are consecutive: each queued record takes the next one, and the
//   queue is only ever emptied as a whole.
// - What is known under a number (channels, watched channels, queued records) is about the
//   connection that has it. When the registry hands a number out anew, the next operation that
//   takes the lock begins by dropping all that. A queued record is emptied, and leaves with the
//   next transmission.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "KLVBasAtiGlobalSingleton.h"
#include "KLVBasVector.h"
#include "KLVMsgChannel.h"
#include "KLVMsgChannelMsgStruct.h"
#include "KLVMsgChannelOrganizer.h"
#include "KLVMsgExport.h"
#include "KLVString.h"

class KLVMSG_EXPORT KLVMsgSocketCommunicator;
class KLVMsgChannelQuery;
class KLVMsgCycle;
struct KLVMsgCycleLists;
struct KLVMsgTurn;
class KLVMsgInputStream;
class KLVMsgMessageQuery;
class KLVMsgOutputStream;
class KLVMsgSocketMessage;

extern template class KLVMSG_EXPORT KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>;

// The entry object of the library, one for the process, made by the first Instance(). It knows the
// connections as channels, keeps a queue of messages to send and an inbox of those received, and is
// driven by one message task (KLVMsgMessageTask) or by hand with WaitConnectionsAndMessages and
// TransmitPendingMessage.
//
// Operations may be called from any thread. One that takes the lock waits for a cycle in progress:
// up to the cycle's time limit and the time its transfers take.
class KLVMSG_EXPORT KLVMsgSocketCommunicator
    : public KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator> {
public:
    // For Instance; an application does not construct a second one.
    KLVMsgSocketCommunicator();

    // Releases its own storage only: queued messages are not sent, no message is destroyed, no
    // connection closed. The message task has ended before that.
    ~KLVMsgSocketCommunicator();

    KLVMsgSocketCommunicator(const KLVMsgSocketCommunicator&) = delete;
    KLVMsgSocketCommunicator& operator=(const KLVMsgSocketCommunicator&) = delete;

    // Set-up --------------------------------------------------------------------------------------

    // Makes a channel known; with `flag` the message task watches it. A channel made known twice is
    // there twice: sends by label go out twice, and it is read once in a cycle all the same.
    void AddConnection(const KLVMsgChannel& channel, bool flag);

    // Shuts down and forgets the connections that the query selects, or all of them without a
    // query. The flag has no effect.
    void RemoveConnection(KLVMsgChannelQuery* query, bool flag);

    // Appends to `channels` the known channels that the query selects, or all without a query.
    void RetrieveConnections(KLVMsgChannelQuery* query, KLVBasVector<KLVMsgChannel>& channels);

    // Registers the prototype of a message type; a null name is the empty one. The first one under
    // a name stays. It remains the application's and must outlive every receive that can use it.
    // Takes the registry's lock only.
    void RegisterMessagePrototype(const char* type, KLVMsgSocketMessage* prototype);

    // Set the streams that carry message bodies. They remain the application's, as does a stream
    // set before. Both are set before anything is sent or waited for.
    void SetDefaultInputStream(KLVMsgInputStream* stream);
    void SetDefaultOutputStream(KLVMsgOutputStream* stream);

    // Sending -------------------------------------------------------------------------------------
    //
    // A send queues one record per channel; TransmitPendingMessage writes it. The message must
    // live, unchanged, as long as one of its ids is pending; from then on it may be reused or
    // destroyed. An id that is no longer pending says that the transmission was attempted, not that
    // it succeeded: GetErrorsOnChannel tells. Nothing fails at queuing time: an unknown channel, a
    // label that matches none or a null message only mean that nothing is written.
    //
    // Ids count from 1 through the whole process and start again from 0 after 2^32 records.

    // Queues the message for one channel and sets `id`.
    void ISendSocketMessage(const KLVMsgChannel& channel, KLVMsgSocketMessage* message,
                            unsigned int& id);

    // Queues it for each known channel that the query selects, all without a query, and appends
    // their ids in the same order. A listening socket's channel counts too; nothing is written
    // there.
    void ISendSocketMessage(KLVMsgChannelQuery* query, KLVMsgSocketMessage* message,
                            KLVBasVector<unsigned int>& ids);

    // Queues it for each known channel with this label; a null label is the empty one. Sets `id` to
    // the record's id when there is exactly one, and to 0 otherwise.
    void ISendSocketMessage(const char* label, KLVMsgSocketMessage* message, unsigned int& id);

    // Queue it in the same way, and then wait until none of its records is pending. They ask every
    // 20 ms, without a time limit, and do not hold the lock meanwhile. Not for the thread that
    // drives the communicator: they would wait for themselves. The result is always false: not
    // pending.
    bool SendSocketMessage(const KLVMsgChannel& channel, KLVMsgSocketMessage* message);
    void SendSocketMessage(KLVMsgChannelQuery* query, KLVMsgSocketMessage* message);
    void SendSocketMessage(const char* label, KLVMsgSocketMessage* message);

    // True while the record with this id is in the queue.
    bool QueryPendingStatus(unsigned int& id);

    // Replaces the content of `pending` with those of `ids` that are in the queue, in the order of
    // the queue, each once.
    void QueryPendingStatus(const KLVBasVector<unsigned int>& ids,
                            KLVBasVector<unsigned int>& pending);

    // Writes every queued message, header and body, in the order of the queue, and empties it. What
    // cannot be written (no stream socket, output not open, header failed) is dropped without a
    // report. Without an output stream it returns at once, and the queue stays. May block in
    // send, and raise SIGPIPE where the thread does not block it as KLVBasAtiThread's do.
    //
    // The connections are looked up once, at the beginning; none gets a byte of a record that was
    // queued for another. An exception empties the queue, too: std::bad_alloc, or one of a
    // message's own.
    void TransmitPendingMessage();

    // The message task ----------------------------------------------------------------------------

    // Lets the next KLVMsgMessageTask::Run work. Takes no lock.
    void PrepareStartupMessageTask();

    // True when the message task is not to run, or to end. Takes no lock.
    bool IsOkToShutDownMessageTask() const;

    // Shuts down all known connections (see KLVMsgChannel::Shutdown) and asks the message task to
    // end. The task first ends its current cycle. Does not wait for its thread.
    void ShutdownMessageTask();

    // Receiving -----------------------------------------------------------------------------------

    // One cycle: waits up to `timeout` milliseconds on the waitable, the watched channels without
    // one; makes the connections accepted meanwhile known and watched; and reads one message from
    // each connection that has data, however often it is listed, into the inbox. A message without
    // a registered prototype is lost, and its body is taken for the next header. A message is also
    // lost when only a part of its header has come. The lock is held throughout: a peer that stops
    // in the middle of a message holds it for as long as it stays connected.
    //
    // A connection found lost is no longer watched, and GetErrorsOnChannel gives 0 for it.
    // One whose descriptor is 1024 or above is accepted and never read: its end shows on a send
    // only. See KLVMsgChannelWaitable for the time and for what a wait reports. Without channels
    // to wait on it returns at once, and as a transmission of an empty queue does not touch the
    // registry: the message task may run before the registry is made, and after its end.
    //
    // std::bad_alloc passes through between two messages: one that has been read is in the inbox,
    // and connections accepted by then are made known by the next cycle with this waitable.
    // Requires: the input stream is set.
    void WaitConnectionsAndMessages(KLVMsgChannelWaitable* waitable, int timeout);

    // Appends a copy of the record to the inbox.
    // Requires: its message is not null.
    void AddMessage(const KLVMsgChannelMsgStruct& record);

    // Move the messages that the query selects out of the inbox and append them, the newest first:
    // whole records, or only the messages. They are the application's from the moment they were
    // read. std::bad_alloc leaves inbox and output as they were.
    // Requires: `query` is not null.
    void IRetrieveMessagesWithChannel(KLVMsgMessageQuery* query,
                                      KLVBasVector<KLVMsgChannelMsgStruct>& records);
    void IRetrieveMessages(KLVMsgMessageQuery* query, KLVBasVector<KLVMsgSocketMessage*>& messages);

    // Does that every 20 ms, the first time after 20 ms, until something is selected. There is no
    // time limit. Returns the new size of `messages`. It does not hold the lock while it sleeps.
    std::size_t RetrieveMessages(KLVMsgMessageQuery* query,
                                 KLVBasVector<KLVMsgSocketMessage*>& messages);

    // Sets `code` to the errno of the last failure on the channel's connection and `text` to its
    // message. Without one `code` is 0 and `text` is left alone. The error is not cleared.
    // There is none for a peer that has closed in order, nor for a connection that was reset and so
    // removed: KLVMsgChannel::IsActiveInCurrentThreads tells whether it is still there. There is
    // none either for a socket that was connected anew (KLVMsgCommSocket::Connect) since it was
    // registered: it is asked for under the number that the socket has now.
    void GetErrorsOnChannel(const KLVMsgChannel& channel, int& code, KLVString& text);

private:
    template <class Guard>
    class UpToDate;
    using Operation = UpToDate<KLVBasAtiGlobalSingletonLock<KLVMsgSocketCommunicator>>;

    KLVMSG_LOCAL void ForgetNoted(bool acceptedToo);
    KLVMSG_LOCAL void Forget(int number);
    KLVMSG_LOCAL void ShutDown(int number);
    KLVMSG_LOCAL unsigned int Queue(const KLVMsgChannel& channel, KLVMsgSocketMessage* message);
    KLVMSG_LOCAL std::size_t PositionInQueue(unsigned int id) const;
    KLVMSG_LOCAL void Wait(KLVMsgChannelWaitable& waitable, int timeout, KLVMsgCycle& cycle);
    KLVMSG_LOCAL void MakeKnown(KLVBasVector<KLVMsgChannel>& accepted);
    KLVMSG_LOCAL bool ReceiveMessage(const KLVMsgTurn& turn);
    template <class Element, class Project>
    void TakeFromInbox(KLVMsgMessageQuery* query, KLVBasVector<Element>& taken, Project project);

    KLVBasVector<KLVMsgChannelMsgStruct> m_inbox;  // in the order of arrival
    KLVMsgChannelOrganizer m_organizer;
    KLVBasVector<KLVMsgChannelMsgStruct> m_pending;            // in the order of queuing
    KLVMsgInputStream* m_inputStream = nullptr;                // not owned
    std::atomic<KLVMsgOutputStream*> m_outputStream{nullptr};  // not owned; null: nothing is sent
    std::atomic<bool> m_taskRunning{false};
    const std::unique_ptr<KLVMsgCycleLists> m_lists;  // of the cycle at work
};
