// For applications: a received message of whatever class it is.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "KLVMsgPeer.h"
#include "KLVMsgSocketMessage.h"

// When it is done: the message, which is the caller's, where it came from, and what it is.
//
//     if (auto any = session.ReceiveAny(limit); const auto* greeting = any.As<Greeting>()) ...
struct KLVMsgReceivedAny : KLVMsgReceived<KLVMsgSocketMessage> {
    // The message if it is of exactly this class; null otherwise, and when the outcome is not done.
    template <class Message>
    Message* As() const {
        static_assert(std::is_base_of<KLVMsgSocketMessage, Message>::value,
                      "KLVMsgReceivedAny::As<T>: T must be a class that is derived from "
                      "KLVMsgSocketMessage");
        const KLVMsgSocketMessage* const any = message.get();
        return any != nullptr && typeid(*any) == typeid(Message)
                   ? static_cast<Message*>(message.get())
                   : nullptr;
    }

    // The same as a received message of that class, to which the message goes over; not done, with
    // the message left here, if it is of another one.
    template <class Message>
    KLVMsgReceived<Message> Take() {
        KLVMsgReceived<Message> taken;
        if (As<Message>() != nullptr) {
            taken.message.reset(static_cast<Message*>(message.release()));
            taken.peer = peer;
        } else {
            taken.status = kFailed;
            taken.text = "it is a message of another class: " + type;
        }
        return taken;
    }

    std::string type;  // its type's name
};
