// For applications and the library's own sources: the registry of open connections.
//
// Invariants:
// - One lock, the singleton's, guards all fields. Every operation but RemoveConnection holds it for
//   its whole run, blocking socket calls included, and none calls another that takes it.
// - A connection number is the registered socket's descriptor. The operating system reuses numbers,
//   and so does the registry; a number that it hands out anew starts unknown to the communicator.
// - The registry owns the sockets: RemoveConnection destroys them when nobody is using them any
//   more. It owns no prototype, and its destruction (Finalize) closes and destroys no registered
//   socket.
#pragma once

#include "KLVBasAtiGlobalSingleton.h"
#include "KLVMsgExport.h"
#include "KLVMsgMapIntoString.h"
#include "KLVMsgSocketAddress.h"
#include "KLVMsgStringToSocketMsgProto.h"
#include "KLVString.h"
#include "omi_IntTable.h"

class KLVMSG_EXPORT KLVMsgConnectionServicesUtils;
class KLVMsgCommSocket;
class KLVMsgServerSocket;
class KLVMsgSocket;
class KLVMsgSocketMessage;

extern template class KLVMSG_EXPORT KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>;

// Keeps every socket of the process under its connection number, with a name for each number, and
// the prototypes of the message types. A message header on the wire:
//
//     0        4            4 + L
//     +--------+------------+----------
//     |   L    | type name  | body ...     L: unsigned 32-bit, byte order of the host
//     +--------+------------+----------
//
class KLVMSG_EXPORT KLVMsgConnectionServicesUtils
    : public KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils> {
public:
    // For Instance; an application does not construct a second one.
    KLVMsgConnectionServicesUtils();
    ~KLVMsgConnectionServicesUtils();
    KLVMsgConnectionServicesUtils(const KLVMsgConnectionServicesUtils&) = delete;
    KLVMsgConnectionServicesUtils& operator=(const KLVMsgConnectionServicesUtils&) = delete;

    // Connections ---------------------------------------------------------------------------------

    // Registers a KLVMsgCommSocket or KLVMsgServerSocket made with `new` under its descriptor and
    // returns 1: the registry owns it from then on. Returns 0 when the number is taken, also by a
    // socket that is closed (ShutDownConnection takes that one out): the entry stays, and the
    // socket stays the caller's. What the communicator knows under the number is kept, since a
    // channel may be made known before its socket.
    // Requires: `socket` is not null, and of one of these two classes itself.
    int AddConnection(KLVMsgSocket* socket);

    // The socket under a number, or null. The pointer is valid until the connection is removed.
    KLVMsgSocket* GetSocket(int number);

    // True when a socket is registered under the number and not marked as closed.
    bool IsConnectionOpen(int number);

    // Shuts the socket down, unregisters and destroys it; its name stays. Nothing happens for an
    // unknown number. Takes no lock: for callers that hold it, or know that nobody else uses the
    // registry. ShutDownConnection is the form for everybody else.
    //
    // Neither form waits for the transfer of a body, on any thread. ShutDownConnection does wait
    // for that of a header, as every operation here. Both directions end at once, which ends a read
    // or a write in progress, and the socket is unregistered at once. It is closed and destroyed at
    // the end of that connection's turn. A socket that is closed already makes no system call.
    void RemoveConnection(int number);

    // RemoveConnection under the lock.
    void ShutDownConnection(int number);

    // Opens a listening socket and registers it. A socket that is still registered under its number
    // is destroyed. Returns null only when no socket could be made: one whose bind or listen failed
    // is registered too, and HasError tells. After a failed bind it may still listen, on a port of
    // the system's choice, until it is shut down.
    //
    // Blocks until the host is resolved. Before that it waits until other threads' waits have let
    // go of listening sockets that were shut down, so that their ports are free. That takes a
    // moment, and a second at the most. The socket is the registry's.
    KLVMsgServerSocket* StartServer(KLVMsgSocketAddress address, int backlog);

    // Connects to `server` and registers the socket like StartServer. Returns null when that
    // failed: errno tells the cause, and nothing is left open. Where the host does not resolve that
    // is whatever the resolver left in errno. It tries once, without a time limit of its own, and
    // holds up every other user of the registry meanwhile. The first argument is not used. The
    // socket is the registry's.
    KLVMsgCommSocket* ConnectToServer(KLVMsgSocketAddress first, KLVMsgSocketAddress server);

    // Names ---------------------------------------------------------------------------------------

    // Names a number, registered or not. A name outlives its connection and is found by the next
    // one with the same number.
    void SetName(int number, const KLVString& name);

    // Sets `name` to the name of a number, or leaves it alone when there is none.
    void GetName(int number, KLVString& name);

    // Messages ------------------------------------------------------------------------------------

    // Sends a header: one send for the length, one for the type name. Returns 1, or 0 when the
    // number is no stream socket with an open output, or when a send took less than all; what was
    // sent before that stays sent. Clears the socket's last error first. May block in send.
    int SendMessageHeader(int number, const KLVString& typeName);

    // Reads a header: one recv for the length, one for the name, neither repeated. Returns 1 and
    // sets `typeName`, which ends at the name's first zero byte if it has one. Returns 0 and leaves
    // it alone when the number is no stream socket with an open input, when a recv got less than
    // all (those bytes are lost), when the name is empty, or when its length is 2^31 - 1 and above,
    // or more than there is memory for. Clears the socket's last error first.
    //
    // A connection found lost on the length is removed from the registry, and its error with it.
    // One found lost on the name, or closed by the peer, is shut down and stays. Waits while
    // nothing has arrived, which holds up every other user of the registry. The name's buffer is
    // kept until the process ends.
    int RetrieveMessageTypeFromSocket(int number, KLVString& typeName);

    // With true, the buffers that headers are read into are released from now on. With false, and
    // at first, two kinds are kept until the process ends: that of each type name that has come,
    // and that of a length of which only a part has come. That is some 32 bytes a message, or 9 GB
    // an hour at 80,000 messages a second. Nothing else changes.
    void ReleaseHeaderBuffers(bool release);

    // Registers a prototype, which stays the application's and outlives the registry's use of it. A
    // second one under the same name is ignored. A null one holds its name and makes no message.
    void RegisterMessagePrototype(const KLVString& typeName, KLVMsgSocketMessage* prototype);

    // A new message, made by the prototype's NewInstance under the lock and owned by the caller, or
    // null when no prototype has that name.
    KLVMsgSocketMessage* GetMsgInstance(const KLVString& typeName);

    // Errors --------------------------------------------------------------------------------------

    // True when the number is registered and its socket's last error is not 0.
    bool HasError(int number);

    // Sets the last error of a registered socket to 0.
    void ClearError(int number);

    // Sets `code` to the errno of a registered socket's last failure, 0 when there was none; leaves
    // it alone for an unknown number.
    void GetLastErrorCode(int number, int& code);

private:
    friend class KLVMsgLockedRegistry;  // through which the floors above look up sockets

    KLVMSG_LOCAL KLVMsgSocket* Find(int number) const;
    KLVMSG_LOCAL void Register(KLVMsgSocket* socket);
    KLVMSG_LOCAL bool AddAccepted(KLVMsgCommSocket* socket);
    KLVMSG_LOCAL KLVString SharedTypeName(const char* text) const;
    KLVMSG_LOCAL int SendMessageHeader_priv(int number, const KLVString& typeName);
    KLVMSG_LOCAL int RetrieveMessageTypeFromSocket_priv(int number, KLVString& typeName);
    KLVMSG_LOCAL int WriteHeader(KLVMsgCommSocket& socket, const KLVString& typeName);
    KLVMSG_LOCAL int ReadHeader(KLVMsgCommSocket& socket, int number, KLVString& typeName);
    KLVMSG_LOCAL int ReadNameLength(KLVMsgCommSocket& socket, int number);
    KLVMSG_LOCAL int ReadName(KLVMsgCommSocket& socket, int length, KLVString& typeName);

    omi_IntTable<void*> m_connections;  // number to KLVMsgSocket*, owned
    omi_Btree<KLVString, KLVMsgSocketMessage*> m_prototypes;
    omi_Btree<int, KLVString> m_names;
    bool m_releaseHeaderBuffers = false;
};
