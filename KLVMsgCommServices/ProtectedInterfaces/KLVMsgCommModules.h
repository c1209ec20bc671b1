// For applications: everything public, the base facilities included.
//
// What holds throughout, unless an operation says otherwise:
// - An object is used by one thread at a time. The two singletons, KLVMsgSocketCommunicator and
//   KLVMsgConnectionServicesUtils, guard themselves and may be used from any thread.
// - Nothing throws but std::bad_alloc, which leaves objects as they were and no lock taken, and
//   KLVBasAtiThread where there is no thread to be had. On the message task's thread an exception
//   ends the process.
// - What a pointer handed in points to stays the caller's. Output vectors are appended to, not
//   cleared.
// - Times are in milliseconds, sizes in bytes, error numbers are errno values.
//
// A connection number is a descriptor, and the system gives it to somebody else when it is free.
// Any thread may connect, serve, add, remove, shut down, relabel and ask while the message task
// runs. Work on a connection keeps its number taken until it is done. No message takes a byte from
// another connection, or gives it one. Nothing waits, except for a peer that stops in the middle of
// a message or is slow to connect to. What the application must see to itself:
// - A channel, a pointer from GetSocket or a waitable of its own is not used when its connection
//   has gone: the number, or the memory, may be somebody else's.
// - It does not close the number of a registered socket itself.
// - RemoveConnection of the registry takes no lock: nobody else uses the registry meanwhile. With
//   ShutDownConnection anybody may.
// - A listening socket, or a connection, is watched by one wait at a time, and no other stream
//   reads from a connection that is watched.
// - While Connect or BindLocalAddress of a registered socket runs, nobody else uses that socket.
// - A header and a body written by hand are two steps: the connection may go in between.
// - The process is not forked while a cycle works: in the child that cycle would never end.
// - NewInstance runs under the registry's lock and does not call the registry. WriteMessage,
//   ReadMessage, GetMessageType and a query's Search run under the communicator's lock: they may
//   call the registry, and do not call the communicator.
#pragma once

#if __cplusplus < 201703L
#error "KLVMsgCommModules needs C++17 or later: compile with -std=c++17"
#endif

#include "KLVBasAtiGlobalSingleton.h"
#include "KLVBasAtiMutex.h"
#include "KLVBasAtiThread.h"
#include "KLVBasAtiThreadTask.h"
#include "KLVBasAtiThreadingModel.h"
#include "KLVBasModules.h"
#include "KLVBasUtlsleep.h"
#include "KLVBasVector.h"
#include "KLVBasVectorGeneric.h"
#include "KLVMsgBufferedOutputStream.h"
#include "KLVMsgChannel.h"
#include "KLVMsgChannelMsgStruct.h"
#include "KLVMsgChannelOrganizer.h"
#include "KLVMsgChannelQuery.h"
#include "KLVMsgChannelQueryByLabel.h"
#include "KLVMsgChannelWaitable.h"
#include "KLVMsgCommModules_IF.h"
#include "KLVMsgCommSocket.h"
#include "KLVMsgComm_IF.h"
#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgInetAddress.h"
#include "KLVMsgInputStream.h"
#include "KLVMsgMapIntoString.h"
#include "KLVMsgMessageQuery.h"
#include "KLVMsgMessageQueryByType.h"
#include "KLVMsgMessageTask.h"
#include "KLVMsgOutputStream.h"
#include "KLVMsgServerSocket.h"
#include "KLVMsgSimpleInputStream.h"
#include "KLVMsgSocket.h"
#include "KLVMsgSocketAddress.h"
#include "KLVMsgSocketCommunicator.h"
#include "KLVMsgSocketErrorInfo.h"
#include "KLVMsgSocketMessage.h"
#include "KLVMsgStream.h"
#include "KLVMsgStringToSocketMsgProto.h"
#include "KLVString.h"
#include "VORFatalError.h"
#include "aio_ostream.h"
#include "mem_Allocation.h"
#include "mem_AllocationOperators.h"
#include "omi_Btree.h"
#include "omi_BtreeIterator.h"
#include "omi_IntTable.h"
#include "omi_UintTable.h"
