// The processes that hostile.py starts. `hostile good PORT` asks and waits for the answer, for as
// many seconds as each line of its input says, and prints its waits. `hostile session MIB` is what
// is measured: a session that serves, with that limit of its inbox. A line of its input is a
// command, a label and up to three numbers, and is answered with one line.
#include <algorithm>
#include <future>
#include <iostream>
#include <map>
#include <sstream>
#include <thread>

#include "Sessions.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

double MillisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

void BeGood(int port) {
    PlainPeer peer(port);
    const std::string word = WordBytes("ping");
    std::cout << "ready" << std::endl;
    for (double seconds = 0; std::cin >> seconds;) {
        std::vector<double> waits;
        for (const auto begin = Clock::now(); MillisecondsSince(begin) < 1000 * seconds;) {
            const auto asked = Clock::now();
            peer.Send(word);
            if (peer.Receive(word.size()) != word) {
                return;
            }
            waits.push_back(MillisecondsSince(asked));
            std::this_thread::sleep_for(200us);  // without it this would be much of the load
        }
        std::sort(waits.begin(), waits.end());
        std::cout << waits.size() << " " << waits[waits.size() / 2] << " "
                  << waits[waits.size() - 1 - waits.size() / 1000] << " " << waits.back()
                  << std::endl;
    }
}

// Reads its body itself, so the loop does.
struct Bare : Word {
    int ReadMessage(KLVMsgInputStream* stream) override { return Word::ReadMessage(stream); }
    KLVMsgSocketMessage* NewInstance() override { return new Bare; }
    KLVString GetMessageType() const override { return "Bare"; }
};

struct Subject {
    explicit Subject(const KLVMsgSessionOptions& options)
        : session(std::make_unique<KLVMsgSession>(options)) {
        session->Register(Word()), session->Register(Other()), session->Register(Bare());
        session->Serve(anyPort, &port);
        session->Start();
    }

    // Answers words from now on: whoever has asked, or all of a label.
    void Answer(const std::string& to) {
        while (const auto word = session->Receive<Word>(ever)) {
            session->Post(to == "-" ? KLVMsgPeers(word.peer) : to, *word);
        }
    }

    // Asks for the others, from so many milliseconds on.
    void Take(long pause) {
        std::this_thread::sleep_for(Milliseconds(pause));
        std::map<KLVMsgPeer, unsigned long> next;
        while (const auto all = session->ReceiveAll<Other>(ever)) {
            for (const auto& one : all.messages) {
                disordered += std::strtoul(one->text.c_str(), nullptr, 10) != next[one.peer]++;
                ++taken;
            }
        }
    }

    // Sends `first` others of `second` bytes, numbered. Tells how many went; when the queue is
    // full, each has `third` milliseconds.
    void Pour() {
        long count = 0;
        for (bool goes = true; goes && count < first; count += goes) {
            Other other(std::to_string(count) + " ");
            other.text.resize(static_cast<std::size_t>(second), 'x');
            goes = session->Post(label, other) || session->Send(label, other, Milliseconds(third));
        }
        answer << count;
    }

    // Connects from eight threads to port `first`, for `second` seconds, and sends at once. Tells
    // how many connections there were, could not be made, did not take the message, and did not
    // bring the answer.
    void Hasten() {
        std::atomic<unsigned long> made{0}, failed{0}, gone{0}, lost{0};
        const auto begin = Clock::now();
        const auto work = [&] {
            while (MillisecondsSince(begin) < 1000 * double(second)) {
                const unsigned long number = ++made;
                const Word word(std::to_string(number));
                failed += !session->Connect(At(int(first)), word.text, ever);
                gone += !(number % 2 ? session->Post(word.text, word)
                                     : session->Send(word.text, word, ever));
                lost += !session->Receive<Word>(1min, word.text);
                session->Disconnect(word.text);
            }
        };
        std::vector<std::future<void>> workers(8);
        std::generate(workers.begin(), workers.end(), [&] { return std::async(ahead, work); });
        workers.clear();
        answer << made << " " << failed << " " << gone << " " << lost;
    }

    // Tells the outcome, and by how much it came later than the limit.
    template <class Operation>
    void Time(long limit, Operation operation) {
        const auto begin = Clock::now();
        const KLVMsgOutcome outcome = operation(Milliseconds(limit));
        answer << outcome.status << " " << MillisecondsSince(begin + Milliseconds(limit));
    }

    void Obey(const std::string& command) {
        if (command == "answer") {
            threads.push_back(std::async(ahead, [this, to = label] { Answer(to); }));
        } else if (command == "take") {
            threads.push_back(std::async(ahead, [this, pause = first] { Take(pause); }));
        } else if (command == "taken") {
            answer << taken << " " << disordered;
        } else if (command == "label") {  // all who are there, and tells how many
            const auto peers = session->Peers(KLVMsgPeers::All());
            for (const KLVMsgPeer peer : peers) {
                session->SetLabel(peer, label);
            }
            answer << peers.size();
        } else if (command == "pour") {
            Pour();
        } else if (command == "hasten") {
            Hasten();
        } else if (command == "connect") {
            answer << session->Connect(At(int(first)), label).text;
        } else if (command == "again") {
            Time(second,
                 [&](auto limit) { return session->ConnectAgain(At(int(first)), label, limit); });
        } else if (command == "send") {
            Time(first, [&](auto limit) { return session->Send(label, Word("late"), limit); });
        } else if (command == "receive") {
            Time(first, [&](auto limit) { return session->Receive<Bare>(limit, label); });
        } else if (command == "end") {
            Time(first, [&](auto limit) { return session->End(limit); });
        } else if (command == "destroy") {  // no one may be in an operation
            Time(5000, [&](auto) { return session.reset(), KLVMsgOutcome(); });
        }
    }

    static constexpr auto ahead = std::launch::async;
    int port = 0;
    std::string label;
    long first = 0, second = 0, third = 0;
    std::ostringstream answer;
    std::atomic<unsigned long> taken{0}, disordered{0};
    std::unique_ptr<KLVMsgSession> session;
    std::vector<std::future<void>> threads;  // wait for the end
};

}  // namespace

int main(int, char** argv) {
    const int number = std::atoi(argv[2]);
    if (*argv[1] == 'g') {
        return BeGood(number), 0;
    }
    KLVMsgSessionOptions options;
    options.inboxLimit = std::size_t(number) << 20;
    Subject subject(options);
    std::cout << subject.port << std::endl;
    for (std::string command; std::cin >> command;) {
        std::string numbers;
        std::getline(std::cin >> subject.label, numbers);
        subject.first = 0;
        std::istringstream(numbers) >> subject.first >> subject.second >> subject.third;
        subject.Obey(command);
        std::cout << subject.answer.str() << std::endl;
        subject.answer.str("");
    }
}
