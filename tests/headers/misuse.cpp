// Each case is compiled by itself, with its number as MISUSE, and must be refused in words.
#include <KLVMsgSession.h>

struct Note : KLVMsgFramedMessage {
    bool Encode(std::string&) const override { return true; }
    bool Decode(std::string_view) override { return true; }
    KLVMsgSocketMessage* NewInstance() override { return new Note; }
    KLVString GetMessageType() const override { return "Note"; }
};

void Misuse(KLVMsgSession& session, Note note) {
#if MISUSE == 0
    session.Send("peer", note, std::chrono::seconds(5));  // no misuse
#elif MISUSE == 1
    session.Send("peer", note, 5);
#elif MISUSE == 2
    session.Post("peer", &note);
#elif MISUSE == 3
    session.Post("peer", std::string("note"));
#elif MISUSE == 4
    session.Receive<std::string>(std::chrono::seconds(5));
#elif MISUSE == 5
    session.Register("Note");
#endif
}
