// For applications: the interface of every message class.
#pragma once

#include "KLVMsgExport.h"
#include "KLVString.h"

class KLVMsgInputStream;
class KLVMsgOutputStream;

// A message that travels between processes. The application derives one class for each type,
// registers one object of it as the prototype, and owns every message: prototypes, those it sends
// (until they are no longer pending) and those it retrieves. The library destroys none.
//
// Nothing frames a body: ReadMessage takes exactly the bytes that WriteMessage wrote, or the next
// header is read from the wrong place. Both are called on the thread that drives the communicator,
// with its lock held: they may call the registry and must not call the communicator. An exception
// passes through, and the rest of the cycle is dropped. A message that was being read is delivered
// as it is.
class KLVMSG_EXPORT KLVMsgSocketMessage {
public:
    // Writes the body, once for each channel that the message is sent to. The result is for the
    // application's own use: the library ignores it.
    virtual int WriteMessage(KLVMsgOutputStream* stream) = 0;

    // Reads the body into a message that NewInstance has just made. A read may return less than was
    // asked for: repeat it until the field is complete or the count is not positive. The result is
    // ignored, and the message delivered whether it is whole or not.
    virtual int ReadMessage(KLVMsgInputStream* stream) = 0;

    // A new message of the same class, which the caller owns. Called on the prototype, with the
    // registry's lock held.
    virtual KLVMsgSocketMessage* NewInstance() = 0;

    // The type's name, under which the receiver has registered the prototype. Not empty, and
    // without zero bytes: a receiver takes neither.
    virtual KLVString GetMessageType() const = 0;

    virtual ~KLVMsgSocketMessage();
};
