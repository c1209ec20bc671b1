// The processes that hostile.py, links.py, soak.py and restarts.py command: `puppet session|bare
// FILE SILENCE INBOX TYPE...`, SILENCE in milliseconds, INBOX in MiB. With a FILE what comes is
// taken at once, written there, and events are told. A line of the input is a command, a label, a
// word ("-" for none) and up to three numbers; it is answered with "done" and what came of it.
#include <KLVMsgSession.h>
#ifdef PUPPET_TLS
#include <KLVMsgTls.h>
#endif
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "Library.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr auto ever = 1h;
constexpr auto ahead = std::launch::async;

std::ofstream out;
std::vector<std::string> types;
std::string command, label, word;
long first, second, third;

double MillisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

void Check(const KLVMsgOutcome& done) { done ? void() : throw std::runtime_error(done.text); }

template <class... Values>
std::string Text(const Values&... values) {
    std::ostringstream text;
    ((text << " " << values), ...);
    return text.str();
}

struct Item : KLVMsgFramedMessage {
    explicit Item(std::string name = "", std::string content = "")
        : type(std::move(name)), body(std::move(content)) {}
    bool Encode(std::string& bytes) const override { return bytes = body, true; }
    bool Decode(std::string_view bytes) override {
        out.is_open() ? (Put(type), Put(bytes)) : void(body = bytes);
        return true;
    }
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
    explicit Numbered(std::string content = "") : Item(types.at(N), std::move(content)) {}
    KLVMsgSocketMessage* NewInstance() override { return new Numbered; }
};
struct Unframed : Item {  // reads its body itself, so the loop does
    Unframed() : Item("Bare") {}
    int ReadMessage(KLVMsgInputStream* stream) override { return Item::ReadMessage(stream); }
    KLVMsgSocketMessage* NewInstance() override { return new Unframed; }
};
struct Quiz : KLVMsgCallMessage {
    explicit Quiz(std::string content = "") : text(std::move(content)) {}
    bool EncodeFields(std::string& bytes) const override { return bytes = text, true; }
    bool DecodeFields(std::string_view bytes) override { return text = bytes, true; }
    KLVMsgSocketMessage* NewInstance() override { return new Quiz; }
    KLVString GetMessageType() const override { return "Quiz"; }
    std::string text;
};
using Word = Numbered<0>;
using Other = Numbered<1>;

// Where a folder of certificates is told by the environment, a session serves and connects with
// them.
const char* const certificates = std::getenv("KLVMSG_CERTIFICATES");

template <class Operation>
KLVMsgOutcome InItsWay(const Operation& operation) {
    if (certificates == nullptr) {
        return operation();
    }
#ifdef PUPPET_TLS
    const std::string folder = certificates;
    KLVMsgTlsOptions options;
    options.certificate = folder + "/peer.pem";
    options.key = folder + "/peer.key";
    options.authority = folder + "/authority.pem";
    static const KLVMsgTls tls(options);
    return operation(tls);
#else
    throw std::runtime_error("made without TLS");
#endif
}

template <std::size_t... N>
struct Session {
    explicit Session(const KLVMsgSessionOptions& options)
        : session(std::make_unique<KLVMsgSession>(options)) {
        (Check(N < types.size() ? session->Register(Numbered<N>()) : KLVMsgOutcome()), ...);
        Check(session->Register(Unframed()));
        Check(session->Register(Quiz()));
        Check(session->Start());
    }

    void Turn() {
        pollfd both[] = {{STDIN_FILENO, POLLIN, 0}, {session->Descriptor(), POLLIN, 0}};
        poll(both, 2, -1);
        (session->ReceiveAll<Numbered<N>>(0ms), ...);
        for (KLVMsgEvent event; (event = session->NextEvent(0ms));) {
            std::cout << "event " << event.kind << " " << event.cause << " " << event.label << " "
                      << event.what << std::endl;
        }
    }

    void Go(const Item& item) {
        const bool queued = command == "post" && session->Post(label, item);
        queued ? void() : Check(session->Send(label, item, ever));
    }

    // Answers words from now on: whoever has asked, or all of a label.
    std::string Answer() {
        return Start([this, to = label] {
            while (const auto asked = session->Receive<Word>(ever)) {
                session->Post(to.empty() ? KLVMsgPeers(asked.peer) : to, *asked);
            }
        });
    }

    // Asks for the others, from so many milliseconds on.
    std::string Take() {
        return Start([this, pause = Milliseconds(first)] {
            std::this_thread::sleep_for(pause);
            std::map<KLVMsgPeer, unsigned long> next;
            while (const auto all = session->ReceiveAll<Other>(ever)) {
                for (const auto& one : all.messages) {
                    disordered += std::stoul(one->body) != next[one.peer]++;
                    ++taken;
                }
            }
        });
    }

    template <class Work>
    std::string Start(Work work) {
        return threads.push_back(std::async(ahead, work)), "";
    }

    // All who are there get the label; tells how many.
    std::string Label() {
        const auto peers = session->Peers(KLVMsgPeers::All());
        for (const KLVMsgPeer peer : peers) {
            session->SetLabel(peer, label);
        }
        return Text(peers.size());
    }

    // Sends `first` others of `second` bytes, numbered. Tells how many went; when the queue is
    // full, each has `third` milliseconds.
    std::string Pour() {
        long count = 0;
        for (bool goes = true; goes && count < first; count += goes) {
            Other other(std::to_string(count) + " ");
            other.body.resize(static_cast<std::size_t>(second), 'x');
            goes = session->Post(label, other) || session->Send(label, other, Milliseconds(third));
        }
        return Text(count);
    }

    // Sends others of `second` bytes, or 2000 times that, for `first` milliseconds: one is
    // posted, the next has `third`. Tells how many so far, and which were not done and how.
    std::string Load() {
        const auto end = Clock::now() + Milliseconds(first);
        std::string failed;
        for (; Clock::now() < end; ++loaded, std::this_thread::sleep_for(10ms)) {
            Other other(std::to_string(loaded) + " ");
            other.body.resize(std::size_t(loaded % 500 < 2 ? 2000 * second : second));
            const auto done = loaded % 2 == 0 ? session->Post(label, other)
                                              : session->Send(label, other, Milliseconds(third));
            failed += done ? "" : Text(loaded, done.status);
        }
        return Text(loaded) + failed;
    }

    // Asks in `first` threads from now on, each time with `second` milliseconds.
    std::string Quizzes() {
        outcomes.resize(std::size_t(first));
        for (std::size_t n = 0; n < outcomes.size(); ++n) {
            Start([this, n, to = label, limit = Milliseconds(second)] {
                for (; isAsking; std::this_thread::sleep_for(10ms)) {
                    const Quiz quiz(Text(n, outcomes[n].size()));
                    const auto answer = session->Ask<Quiz>(to, quiz, limit);
                    outcomes[n] += !answer                     ? "?lgxf"[answer.status]
                                   : answer->text == quiz.text ? 'a'
                                                               : 'w';
                }
            });
        }
        return "";
    }

    // Until now: how many, and what has become of each, in a word for each thread.
    std::string Asked() {
        isAsking = false;
        threads.clear();
        const KLVMsgQuestionCounts all = session->Questions();
        std::string text = Text(all.asked, all.answered, all.tooLate, all.failed, all.dropped);
        for (const std::string& one : outcomes) {
            text += Text("=" + one);
        }
        return text;
    }

    // Tells the outcome, and by how much it came later than the limit.
    template <class Operation>
    std::string Time(long milliseconds, Operation operation) {
        const auto begin = Clock::now();
        const Milliseconds limit(milliseconds);
        const KLVMsgOutcome outcome = operation(limit);
        return Text(outcome.status, MillisecondsSince(begin + limit));
    }

    static KLVMsgSocketAddress Server() { return {word.c_str(), int(first)}; }

    std::string Obey() {
        int port = int(first);
        const auto serve = [&](const auto&... how) {
            return session->Serve(Server(), &port, how...);
        };
        const auto connect = [&](const auto&... how) {
            return session->Connect(Server(), label, 10s, how...);
        };
        const auto keep = [&](const auto&... how) {
            return session->Keep(Server(), label, Word(label), how...);
        };
        const auto again = [&](auto limit) {
            return InItsWay([&](const auto&... how) {
                return session->ConnectAgain(Server(), label, limit, how...);
            });
        };
        const auto send = [&](auto limit) { return session->Send(label, Word("late"), limit); };
        const auto receive = [&](auto limit) { return session->Receive<Unframed>(limit, label); };
        const auto drain = [&](auto limit) { return session->Drain(limit); };
        const auto end = [&](auto limit) { return session->End(limit); };
        const auto destroy = [&](auto) { return session.reset(), KLVMsgOutcome(); };
        return command == "serve"     ? (Check(InItsWay(serve)), Text(port))
               : command == "connect" ? (Check(InItsWay(connect)), "")
               : command == "keep"    ? (Check(InItsWay(keep)), "")
               : command == "load"    ? Load()
               : command == "quizzes" ? Quizzes()
               : command == "asked"   ? Asked()
               : command == "answer"  ? Answer()
               : command == "take"    ? Take()
               : command == "taken"   ? Text(taken, disordered)
               : command == "label"   ? Label()
               : command == "pour"    ? Pour()
               : command == "again"   ? Time(second, again)
               : command == "try"     ? Time(first, send)
               : command == "receive" ? Time(first, receive)
               : command == "drain"   ? Time(first, drain)
               : command == "end"     ? Time(first, end)
                                      : Time(5000, destroy);  // no one may be in an operation
    }

    std::atomic<unsigned long> taken{0}, disordered{0};
    std::atomic<bool> isAsking{true};
    long loaded = 0;
    std::vector<std::string> outcomes;  // of questions, by thread
    std::unique_ptr<KLVMsgSession> session;
    std::vector<std::future<void>> threads;  // wait for the end
};
template <std::size_t... N>
Session<N...> Of(std::index_sequence<N...>);  // as many types as that

struct Bare : Library {  // nobody asks for what is in its inbox
    Bare() : prototypes(types.begin(), types.end()) {
        for (Item& one : prototypes) {
            Communicator().RegisterMessagePrototype(one.type.c_str(), &one);
        }
    }
    ~Bare() {
        for (int number = 0; number < FD_SETSIZE; ++number) {
            Registry().ShutDownConnection(number);
        }
    }
    std::string Obey() {
        if (command == "echo") {
            return Echo();
        }
        const KLVMsgSocketAddress at(word.c_str(), int(first));
        const KLVMsgChannel opened =
            command == "serve" ? Serve(at, 16, "entrance") : Connect(at, label.c_str());
        return Text(opened.GetSocket()->address.port);
    }
    void Go(Item& item) {
        KLVBasVector<KLVMsgChannel> to;
        KLVMsgChannelQueryByLabel query(label.c_str());
        Communicator().RetrieveConnections(&query, to);
        const int number = to.Size() == 1 ? to[0].connection : throw std::runtime_error("no peer");
        // Paced, when the one before has left: another bare receiver needs each header in one
        // piece, which behind a part of a segment, or more than it has room for, it may not be.
        const int paced = command == "pace";
        Hurry(number, paced);
        for (int left = paced; left != 0; ioctl(number, SIOCOUTQ, &left)) {
        }
        unsigned int id = 0;
        Communicator().ISendSocketMessage(to[0], &item, id);
        Communicator().TransmitPendingMessage();
    }
    void Turn() { Communicator().WaitConnectionsAndMessages(nullptr, 20); }

    static void Hurry(int number, int on) {
        setsockopt(number, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }

    // Answers each text with the same text, at once, until one of nobody's comes, and tells how
    // many came from each client. A text is "NAME NUMBER letters."; those that are cut are -1's.
    // What has gone stays known until its number comes back: nothing is removed here.
    std::string Echo() {
        std::map<long, long> received;
        for (unsigned int id = 0; received.count(0) == 0;) {
            Turn();
            KLVMsgMessageQueryByType query(types[0].c_str());
            KLVBasVector<KLVMsgChannelMsgStruct> records;  // the newest first
            Communicator().IRetrieveMessagesWithChannel(&query, records);
            for (std::size_t i = records.Size(); i-- != 0;) {
                const std::string& text = dynamic_cast<Item&>(*records[i].message).body;
                ++received[text.empty() || text.back() != '.' ? -1 : std::atol(text.c_str())];
                Hurry(records[i].channel.connection, 1);
                Communicator().ISendSocketMessage(records[i].channel, records[i].message, id);
            }
            Communicator().TransmitPendingMessage();
            for (std::size_t i = 0; i < records.Size(); ++i) {
                delete records[i].message;
            }
        }
        std::string counts;
        for (const auto& [name, count] : received) {
            counts += Text(name, count);
        }
        return counts;
    }

    std::deque<Item> prototypes;
};

// The messages of a file are posted, sent one by one, or paced.
template <class Peer>
std::string SendFile(Peer& peer) {
    std::ifstream file(word, std::ios::binary);
    for (Item item; item.Next(file);) {
        peer.Go(item);
    }
    return "";
}

template <class Peer>
void Serve(Peer&& peer) {
    for (std::string line;;) {
        for (pollfd input = {0, POLLIN, 0}; out.is_open() && poll(&input, 1, 0) == 0; out.flush()) {
            peer.Turn();
        }
        if (!std::getline(std::cin, line)) {
            return;
        }
        first = second = third = 0;
        std::istringstream words(line);
        words >> command >> label >> word >> first >> second >> third;
        label = label == "-" ? "" : label;
        const bool isFile = command == "post" || command == "send" || command == "pace";
        std::cout << "done" << (isFile ? SendFile(peer) : peer.Obey()) << std::endl;
    }
}

}  // namespace

int main(int argc, char** argv) try {
    std::signal(SIGPIPE, SIG_IGN);
    types.assign(argv + 5, argv + argc);
    argv[2] != std::string("-") ? out.open(argv[2], std::ios::binary) : void();
    KLVMsgSessionOptions options;
    options.silence = Milliseconds(std::stol(argv[3]));
    options.inboxLimit = std::stoul(argv[4]) << 20;
    argv[1] == std::string("bare") ? Serve(Bare())
                                   : Serve(decltype(Of(std::make_index_sequence<40>()))(options));
    return 0;
} catch (const std::exception& error) {
    std::cout << "failed " << error.what() << std::endl;
    return 1;
}
