// What hub and clients ask of the library: a few operations, which it offers in two ways.
// TaskLink.cpp has them on its own interface, with the message task, and SessionLink.cpp on a
// session.
#pragma once

#include <KLVMsgOutcome.h>
#include <KLVMsgPeer.h>
#include <KLVMsgSocketAddress.h>
#include <KLVMsgSocketMessage.h>
#include <KLVMsgTimeLimit.h>

#include <memory>
#include <set>
#include <string>
#include <utility>

// The connections of a process, one object for all of them. A connection is found by its label,
// which is empty until SetLabel gives it one. What fails is thrown as a std::runtime_error with its
// cause.
class Link {
public:
    using Message = std::unique_ptr<KLVMsgSocketMessage>;

    Link() = default;
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    virtual ~Link() = default;  // closes all connections

    // Lets others connect, and returns the port.
    virtual int Serve(const KLVMsgSocketAddress& address) = 0;
    virtual void Connect(const KLVMsgSocketAddress& address, const std::string& label) = 0;

    // From now on messages move.
    virtual void Start() = 0;

    // Queue the message for those who have the label, or for whoever a message came from.
    virtual void Post(const std::string& label, Message message) = 0;
    virtual void Post(KLVMsgPeer peer, Message message) = 0;

    // Posts the message and waits until it is written.
    virtual KLVMsgOutcome Send(const std::string& label, Message message) = 0;

    // The oldest message of a class that has come. Peer gone: there is nobody to wait for. It may
    // have come in part only.
    template <class Type>
    KLVMsgReceived<Type> Receive(KLVMsgTimeLimit limit) {
        return As<Type>(Take(Type::type, limit));
    }

    // The peer of a message stands for its connection until the next message is asked for.
    virtual void SetLabel(KLVMsgPeer peer, const std::string& label) = 0;
    virtual std::string LabelOf(KLVMsgPeer peer) = 0;

    // The labels of those who are there and have one.
    virtual std::set<std::string> Present() = 0;

    // Why somebody is lost, as far as it is known: ": CAUSE".
    virtual std::string CauseOf(const std::string& label) = 0;

    // Sends the message to all, and waits a while for them to leave: closing first could overtake
    // what they have not read.
    virtual void End(Message farewell) = 0;

protected:
    virtual KLVMsgReceived<KLVMsgSocketMessage> Take(const char* type, KLVMsgTimeLimit limit) = 0;

    // Takes the message for one of another class, which it is.
    template <class To, class From>
    static KLVMsgReceived<To> As(KLVMsgReceived<From> received) {
        KLVMsgReceived<To> result;
        static_cast<KLVMsgOutcome&>(result) = received;
        result.message.reset(static_cast<To*>(received.message.release()));
        result.peer = received.peer;
        return result;
    }
};

// How the library is used: through its own interface with the message task, or through a session.
enum class By { kTask, kSession };

// Of either kind. A message task that stands still for the time limit ends the process with the
// words "PROGRAM: gave up: STALLED".
std::unique_ptr<Link> NewTaskLink(const std::string& program, const std::string& stalled);
std::unique_ptr<Link> NewSessionLink();
inline std::unique_ptr<Link> NewLink(By by, const std::string& program,
                                     const std::string& stalled) {
    return by == By::kTask ? NewTaskLink(program, stalled) : NewSessionLink();
}
