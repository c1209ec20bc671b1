// What the examples with a loop of their own do: they count up, and tell whoever asks how far they
// have come.
#pragma once

#include "Roles.h"
#include "Talk.h"

// Asks with an empty text, and is answered with the count.
struct Count : CallText {
    explicit Count(const std::string& count = "") : CallText(count) {}
    KLVMsgSocketMessage* NewInstance() override { return new Count; }
    KLVString GetMessageType() const override { return "Count"; }
};

// What the loop drives. It never waits for the session: it is woken by a timer, and by the
// session's descriptor.
class Counter {
public:
    explicit Counter(int portPipe) {
        m_talk.Handle<Count>([this](const KLVMsgReceived<Count>& asked) {
            m_talk.Answer(asked, Count(std::to_string(m_count)));
        });
        m_talk.ServeAndTell("counting on", portPipe);
    }

    int Descriptor() { return m_talk.Descriptor(); }
    void Tick() { ++m_count; }

    // Takes what is there. The descriptor stays readable as long as anything is left. False when
    // two who asked have gone.
    bool Talked() {
        m_talk.Dispatch(std::chrono::seconds(0));
        while (const KLVMsgEvent event = m_talk.NextEvent(std::chrono::seconds(0))) {
            std::printf("%s\n", Printable(event.what).c_str());
            m_gone += event.kind == KLVMsgEvent::kGone ? 1 : 0;
        }
        return m_gone < 2;
    }

private:
    Talk m_talk{Count()};
    long long m_count = 0;
    int m_gone = 0;
};

// Asks three times.
inline int AskForCount(int port, const std::string& name) {
    Talk talk{Count()};
    talk.ConnectAndStart(port, "counter");
    long long last = -1;
    for (int question = 0; question < 3; ++question) {
        const auto answer = talk.Ask<Count>("counter", Count(), Limit());
        Check(answer, "gave up: no answer from the counter", "lost the counter");
        const long long count = std::strtoll(answer->text.c_str(), nullptr, 10);
        std::printf("%s: it has come to %lld\n", Printable(name).c_str(), count);
        if (count <= last) {
            throw std::runtime_error("it does not count up");
        }
        last = count;
        usleep(50000);
    }
    return 0;
}

// What main returns, with a loop that drives a Counter until two who asked have gone.
inline int RunCounting(const std::string& name, int argc, char** argv, int (*count)(int portPipe)) {
    static const char what[] = R"( [--timeout SECONDS] [count | ask PORT NAME]
A counter and two who ask it; or one of them. The counter counts up every 10 ms, tells its port on
127.0.0.1, answers whoever asks how far it has come, and ends when two who asked have left again;
who asks does so three times. Exits with 0 when every answer was larger than the one before it; 1
when not, or when nobody comes and goes for SECONDS (20; 0: for ever); 2 after a wrong command.
)";
    return RunRoles(name.c_str(), ("usage: " + name + what).c_str(), argc, argv,
                    {"count", count, "ask", AskForCount, {"one", "two"}});
}
