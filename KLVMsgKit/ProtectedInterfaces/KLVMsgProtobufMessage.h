// For applications that have Protocol Buffers: a message whose body is an object of theirs.
#pragma once

#include <google/protobuf/message_lite.h>

#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "KLVMsgFramedMessage.h"

// Content is a class that protoc has made of a .proto file. The type's name is the one that stands
// there, with its package ("shop.Order"), unless a derived class overrides GetMessageType and
// NewInstance. A message without a field that its file requires is not sent: the receiver gets one
// that is not whole.
//
//     KLVMsgProtobufMessage<shop::Order> order;
//     order.content.set_item("bolt");
template <class Content>
class KLVMsgProtobufMessage : public KLVMsgFramedMessage {
    static_assert(
        std::is_base_of<google::protobuf::MessageLite, Content>::value,
        "KLVMsgProtobufMessage<T>: T must be a class that protoc has made of a .proto file");

public:
    // An empty message, and one with the given content.
    KLVMsgProtobufMessage() = default;
    explicit KLVMsgProtobufMessage(Content initial) : content(std::move(initial)) {}

    bool Encode(std::string& bytes) const override {
        return content.IsInitialized() && content.SerializePartialToString(&bytes);
    }

    bool Decode(std::string_view bytes) override {
        return content.ParsePartialFromArray(bytes.data(), static_cast<int>(bytes.size())) &&
               content.IsInitialized();
    }

    KLVMsgSocketMessage* NewInstance() override { return new KLVMsgProtobufMessage; }
    KLVString GetMessageType() const override { return std::string(content.GetTypeName()).c_str(); }

    Content content;  // what the body holds
};
