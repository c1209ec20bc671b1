// The vocabulary of the session's tests: messages, sessions in pairs, and what happened.
#pragma once

#include <KLVMsgSession.h>

#include <functional>
#include <string>
#include <utility>

#include "Support.h"

using namespace std::chrono_literals;

// Longer than any test may take: who waits that long has missed its wake-up.
inline const KLVMsgTimeLimit ever(1h);

// A framed message; some texts make its own code misbehave, as `hook` does.
struct Word : KLVMsgFramedMessage {
    explicit Word(std::string content = "") : text(std::move(content)) {}
    bool Encode(std::string& bytes) const override {
        hook(text);
        return bytes = text, text != "not encoded";
    }
    bool Decode(std::string_view bytes) override {
        text = bytes;
        return text == "throws at the receiver" ? throw 1 : text != "refused";
    }
    KLVMsgSocketMessage* NewInstance() override { return new Word; }
    KLVString GetMessageType() const override { return "Word"; }

    static inline std::function<void(const std::string& text)> hook = [](const std::string&) {};
    std::string text;
};
struct Other : Word {
    using Word::Word;
    KLVMsgSocketMessage* NewInstance() override { return new Other; }
    KLVString GetMessageType() const override { return "Other"; }
};

// A question, or an answer.
struct Quiz : KLVMsgCallMessage {
    explicit Quiz(std::string content = "", KLVString name = "Quiz") : text(content), type(name) {}
    bool EncodeFields(std::string& bytes) const override { return bytes = text, true; }
    bool DecodeFields(std::string_view bytes) override { return text = bytes, text != "refused"; }
    KLVMsgSocketMessage* NewInstance() override { return new Quiz("", type); }
    KLVString GetMessageType() const override { return type; }
    std::string text;
    KLVString type;
};

inline bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
inline std::string WordBytes(const std::string& text) { return TextBytes("Word", text); }
inline const KLVMsgSocketAddress anyPort("127.0.0.1", 0);
inline KLVMsgSocketAddress At(int port) { return {"127.0.0.1", port}; }

// A session that serves.
struct Session : KLVMsgSession {
    explicit Session(const KLVMsgSessionOptions& options = {}) : KLVMsgSession(options) {
        Register(Word()), Register(Other()), Register(TextMessage("Text"));
        Register(Quiz()), Register(Quiz("", "Reply"));
        Serve(anyPort, &port);
        Start();
    }

    // The next word's text, or why there is none.
    template <class Message = Word, class... From>
    std::string Next(From... from) {
        const auto word = Receive<Message>(ever, KLVMsgPeers(from)...);
        return word ? word->text : word.KLVMsgOutcome::text;
    }

    // The next event of this kind, whatever was before it.
    KLVMsgEvent Await(KLVMsgEvent::Kind kind) {
        KLVMsgEvent event = NextEvent(ever);
        return !event || event.kind == kind ? event : Await(kind);
    }

    // The next connection that comes, under a label.
    KLVMsgPeer Came(const std::string& label = "") {
        const KLVMsgPeer peer = Await(KLVMsgEvent::kCame).peer;
        SetLabel(peer, label);
        return peer;
    }

    bool Queues(unsigned n) {
        return Eventually([&] { return Counts().messagesQueued == n; });
    }
    bool Holds(unsigned n) {
        return Eventually([&] { return Counts().messagesInInbox == n; });
    }

    int port = 0;
};

// Two, connected with each other: each is the other one's "peer".
struct Pair {
    explicit Pair(const KLVMsgSessionOptions& options = {}) : here(options) {
        EXPECT_TRUE(here.Connect(At(there.port), "peer", ever));
        there.Came("peer");
        peer = here.Came("peer");
    }
    // Otherwise each would wait for the answers that the other one may still give.
    ~Pair() { here.Disconnect("peer"), there.Disconnect("peer"); }
    Session here, there;
    KLVMsgPeer peer;  // as we know the other one
};

// A session and a connection to it whose other end does what a test says, and at first nothing.
struct MutePair {
    explicit MutePair(const KLVMsgSessionOptions& options = {}) : session(options) {}
    Session session;
    PlainPeer mute{session.port};
    KLVMsgPeer id = session.Came("mute");
};

// More than the sockets of a connection hold: with a peer that does not read, all that is queued
// behind it waits.
inline const Word flood(std::string(std::size_t{24} << 20, 'x'));
