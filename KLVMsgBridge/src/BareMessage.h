// For the bridge's own sources: a message whose body is not framed.
#pragma once

#include <KLVMsgSession.h>

#include <algorithm>
#include <string>
#include <utility>

#include "BodyRules.h"

// Its body is all that the rule says, lengths in it included.
class BareMessage : public KLVMsgSocketMessage {
public:
    BareMessage(std::string name, BodyRule rule, std::string bytes = "")
        : type(std::move(name)), body(std::move(bytes)), m_rule(rule) {}

    int WriteMessage(KLVMsgOutputStream* stream) override {
        int count = 0;
        const bool isBody = m_rule.IsBody(body);
        if (isBody && !body.empty()) {
            stream->write(body.data(), static_cast<int>(body.size()), count);
        }
        return isBody && count == static_cast<int>(body.size());
    }
    int ReadMessage(KLVMsgInputStream* stream) override {
        return ReadTo(stream, m_rule.Prefix()) && ReadTo(stream, m_rule.Size(body));
    }
    KLVMsgSocketMessage* NewInstance() override { return new BareMessage(type, m_rule); }
    KLVString GetMessageType() const override { return type.c_str(); }

    std::string type;
    std::string body;

private:
    // Until the body has so many bytes. Room is made as they come.
    bool ReadTo(KLVMsgInputStream* stream, std::size_t size) {
        char piece[4096];
        while (body.size() < size) {
            int count = 0;
            stream->read(piece, static_cast<int>(std::min(size - body.size(), sizeof piece)),
                         count);
            if (count <= 0) {
                return false;
            }
            body.append(piece, static_cast<std::size_t>(count));
        }
        return true;
    }

    BodyRule m_rule;
};
