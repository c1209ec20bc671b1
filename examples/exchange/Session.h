// The session of hub and client, with the messages of the exchange.
#pragma once

#include <tuple>

#include "Messages.h"
#include "Talk.h"

struct Session : KLVMsgSession {
    explicit Session(Pace pace) : KLVMsgSession(pace, Limit()) {
        std::apply([this](const auto&... prototypes) { (Check(Register(prototypes)), ...); },
                   MessageTypes());
    }
};
