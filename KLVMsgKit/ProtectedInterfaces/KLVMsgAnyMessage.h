// For applications: a framed message of whatever type, for who passes on what others say.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "KLVMsgFramedMessage.h"

// A type's name and the bytes of a body, of which nothing is understood. Sent, it is a message of
// that type. A session receives it for every type that is not registered by itself, once
// KLVMsgSession::RegisterOthers has been called.
class KLVMsgAnyMessage : public KLVMsgFramedMessage {
public:
    // Of no type; and of one.
    KLVMsgAnyMessage() = default;
    KLVMsgAnyMessage(std::string name, std::string_view bytes)
        : type(std::move(name)), body(bytes) {}

    // The bytes as they are.
    bool Encode(std::string& bytes) const override {
        bytes = body;
        return true;
    }
    bool Decode(std::string_view bytes) override {
        body = bytes;
        return true;
    }

    // One of the same type, without a body.
    KLVMsgSocketMessage* NewInstance() override { return new KLVMsgAnyMessage(type, {}); }
    KLVString GetMessageType() const override { return type.c_str(); }

    std::string type;  // its name, up to a zero byte
    std::string body;  // without the length before it
};
