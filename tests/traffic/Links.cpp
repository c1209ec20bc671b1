// The processes that links.py starts: `links session|bare FILE SILENCE TYPE...`. They do what their
// standard input says, write what comes to the file and tell events. SILENCE in milliseconds.
#include <KLVMsgSession.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <fstream>
#include <iostream>
#include <sstream>

#include "Library.h"

namespace {

using namespace std::chrono_literals;

std::ofstream out;
std::vector<std::string> types;

struct Item : KLVMsgFramedMessage {
    explicit Item(const std::string& name = "") : type(name) {}
    bool Encode(std::string& bytes) const override { return bytes = body, true; }
    bool Decode(std::string_view bytes) override { return Put(type), Put(bytes), true; }
    KLVMsgSocketMessage* NewInstance() override { return new Item(type); }
    KLVString GetMessageType() const override { return type.c_str(); }
    bool Next(std::istream& file) { return Get(file, type) && Get(file, body); }

    static void Put(std::string_view text) {
        const auto length = static_cast<std::uint32_t>(text.size());
        out.write(reinterpret_cast<const char*>(&length), sizeof length) << text;
    }
    static bool Get(std::istream& file, std::string& text) {
        std::uint32_t length = 0;
        file.read(reinterpret_cast<char*>(&length), sizeof length);
        text.resize(file ? length : 0);
        return bool(file.read(text.data(), length));
    }
    std::string type, body;
};
template <std::size_t N>
struct Numbered : Item {  // to a session a type is a class
    Numbered() : Item(types.at(N)) {}
    KLVMsgSocketMessage* NewInstance() override { return new Numbered; }
};

void Check(const KLVMsgOutcome& done) { done ? void() : throw std::runtime_error(done.text); }

template <std::size_t... N>
struct Session : KLVMsgSession {
    explicit Session(const KLVMsgSessionOptions& options) : KLVMsgSession(options) {
        (Check(Register(Numbered<N>())), ...);
        Check(Start());
    }
    int Open(bool serves, const KLVMsgSocketAddress& at, const std::string& label) {
        int port = at.port;
        Check(serves ? Serve(at, &port) : Connect(at, label, 10s));
        return port;
    }
    void Go(const Item& item, const std::string& label, const std::string& how) {
        const KLVMsgOutcome done = how == "send" ? Send(label, item, 1h) : Post(label, item);
        done.status == KLVMsgOutcome::kFull ? Go(item, label, "send") : Check(done);
    }
    void Turn() {
        pollfd both[] = {{STDIN_FILENO, POLLIN, 0}, {Descriptor(), POLLIN, 0}};
        poll(both, 2, -1);
        (ReceiveAll<Numbered<N>>(0ms), ...);
        for (KLVMsgEvent event; (event = NextEvent(0ms));) {
            std::cout << "event " << event.kind << " " << event.cause << " " << event.label << " "
                      << event.what << std::endl;
        }
    }
};
template <std::size_t... N>
Session<N...> Of(std::index_sequence<N...>);  // as many types as that

struct Bare : Library {  // nobody asks for what is in its inbox
    Bare() : prototypes(types.begin(), types.end()) {
        for (Item& one : prototypes) {
            Communicator().RegisterMessagePrototype(one.type.c_str(), &one);
        }
    }
    int Open(bool serves, const KLVMsgSocketAddress& at, const std::string& label) {
        return (serves ? Serve(at, 16, "entrance") : Connect(at, label.c_str()))
            .GetSocket()
            ->address.port;
    }
    void Go(Item& item, const std::string& label, const std::string& how) {
        KLVBasVector<KLVMsgChannel> to;
        const KLVMsgChannelQueryByLabel query(label.c_str());
        Communicator().RetrieveConnections(const_cast<KLVMsgChannelQueryByLabel*>(&query), to);
        const int number = to.Size() == 1 ? to[0].connection : throw std::runtime_error("no peer");
        // Paced, when the one before has left: another bare receiver needs each header in one
        // piece, which behind a part of a segment, or more than it has room for, it may not be.
        const int paced = how == "pace";
        setsockopt(number, IPPROTO_TCP, TCP_NODELAY, &paced, sizeof paced);
        for (int left = paced; left != 0; ioctl(number, SIOCOUTQ, &left)) {
        }
        unsigned int id = 0;
        Communicator().ISendSocketMessage(to[0], &item, id);
        Communicator().TransmitPendingMessage();
    }
    void Turn() { Communicator().WaitConnectionsAndMessages(nullptr, 20); }

    std::deque<Item> prototypes;
};

// serve HOST PORT; connect HOST PORT [LABEL]; post, send or pace FILE [LABEL].
template <class Peer>
void Obey(Peer&& peer) {
    for (std::string line;; out.flush()) {
        peer.Turn();
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        if (poll(&input, 1, 0) == 0) {
            continue;
        }
        if (!std::getline(std::cin, line)) {
            return;
        }
        int port = 0;
        std::istringstream words(line);
        std::string what, where, label;
        words >> what >> where;
        if (what == "serve" || what == "connect") {
            words >> port >> label;
            port = peer.Open(what == "serve", {where.c_str(), port}, label);
        } else {
            words >> label;
            std::ifstream file(where, std::ios::binary);
            for (Item item; item.Next(file);) {
                peer.Go(item, label, what);
            }
        }
        std::cout << "done " << port << std::endl;
    }
}

}  // namespace

int main(int argc, char** argv) try {
    types.assign(argv + 4, argv + argc);
    out.open(argv[2], std::ios::binary);
    KLVMsgSessionOptions options;
    options.silence = std::chrono::milliseconds(std::stol(argv[3]));
    argv[1] == std::string("bare") ? Obey(Bare())
                                   : Obey(decltype(Of(std::make_index_sequence<40>()))(options));
    return 0;
} catch (const std::exception& error) {
    std::cout << "failed " << error.what() << std::endl;
    return 1;
}
