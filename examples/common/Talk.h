// What the examples with a session have in common. What fails is thrown as a std::runtime_error
// with its cause.
#pragma once

#include <KLVMsgSession.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "Outcome.h"

// A session with the prototypes of what may come. A peer that stops in the middle of a message is
// given up when the time is over, unless options say otherwise.
struct Talk : KLVMsgSession {
    template <class... Messages>
    explicit Talk(const Messages&... prototypes) : Talk(Options(), prototypes...) {}

    template <class... Messages>
    explicit Talk(const KLVMsgSessionOptions& options, const Messages&... prototypes)
        : KLVMsgSession(options) {
        (Check(Register(prototypes)), ...);
    }

    static KLVMsgSessionOptions Options() {
        KLVMsgSessionOptions options;
        options.stall = Limit();
        options.stallEnds = true;
        return options;
    }

    // Serves on 127.0.0.1 and says so: "WHAT 127.0.0.1, port PORT". Tells the port, which it
    // returns, to the reader of the pipe as well, if there is one (-1: none). `admit` may be empty:
    // everybody may connect.
    int ServeAndTell(const char* what, int portPipe, int port = 0, KLVMsgAdmit admit = {}) {
        Check(Serve({"127.0.0.1", port}, std::move(admit), &port));
        Check(Start());
        std::printf("%s 127.0.0.1, port %d\n", what, port);
        std::fflush(stdout);
        if (portPipe != -1 && write(portPipe, &port, sizeof port) != sizeof port) {
            throw std::runtime_error("nobody asks for the port");
        }
        return port;
    }

    void ConnectAndStart(int port, const std::string& name) {
        Check(Connect({"127.0.0.1", port}, name, Limit()),
              "gave up: the " + name + " does not accept");
        Check(Start());
    }
};

// A message whose body is a text.
class Text : public KLVMsgFramedMessage {
public:
    explicit Text(const std::string& value) : text(value) {}

    bool Encode(std::string& bytes) const override {
        bytes = text;
        return true;
    }
    bool Decode(std::string_view bytes) override {
        text = bytes;
        return true;
    }

    std::string text;
};

// A message whose body is numbers, as they lie in memory.
template <class Fields>
struct Numbers : KLVMsgFramedMessage {
    bool Encode(std::string& bytes) const override {
        bytes.assign(reinterpret_cast<const char*>(&fields), sizeof fields);
        return true;
    }
    bool Decode(std::string_view bytes) override {
        std::memcpy(&fields, bytes.data(), std::min(bytes.size(), sizeof fields));
        return bytes.size() == sizeof fields;
    }

    Fields fields = {};
};

// A question, or an answer, whose fields are a text.
class CallText : public KLVMsgCallMessage {
public:
    explicit CallText(const std::string& value) : text(value) {}

    bool EncodeFields(std::string& bytes) const override {
        bytes = text;
        return true;
    }
    bool DecodeFields(std::string_view bytes) override {
        text = bytes;
        return true;
    }

    std::string text;
};
