// Compiled with one statement at a time as MISUSE, which must be refused in words.
#include <KLVMsgSession.h>

struct Note : KLVMsgFramedMessage {
    bool Encode(std::string&) const override { return true; }
    bool Decode(std::string_view) override { return true; }
    KLVMsgSocketMessage* NewInstance() override { return new Note; }
    KLVString GetMessageType() const override { return "Note"; }
};

void Misuse(KLVMsgSession& session, Note note) { MISUSE, void(session), void(note); }
