// A work queue whose workers come and go: whoever is free gets a job, and that of one who has gone
// is given to another one. Workers keep their connection, so that the queue may be started anew.
#include <poll.h>

#include <deque>

#include "Talk.h"

using namespace std::chrono_literals;

static const char usage[] = R"(usage: workers [--timeout SECONDS] [dispatch | work PORT]
Ten numbers are squared by three workers, one of whom leaves in the middle of a job; or by those who
work at the port that a dispatcher tells: it begins when there are three. Exits with 0 when all are
right, 1 when not or when a peer is silent for SECONDS (20; 0: for ever), 2 after a wrong command.
)";

struct Job : Numbers<unsigned int> {  // the number to be squared; 0: there are no more
    explicit Job(unsigned int number = 0) { fields = number; }
    KLVMsgSocketMessage* NewInstance() override { return new Job; }
    KLVString GetMessageType() const override { return "Job"; }
};

struct Result : Numbers<unsigned int[2]> {  // a number and its square; 0: a worker is there
    explicit Result(unsigned int number = 0) { fields[0] = number, fields[1] = number * number; }
    KLVMsgSocketMessage* NewInstance() override { return new Result; }
    KLVString GetMessageType() const override { return "Result"; }
};

static int Work(int port, int most) {
    Talk talk{Job()};
    Check(talk.Keep({"127.0.0.1", port}, "dispatcher", Result()));
    Check(talk.Start());
    for (;; --most) {
        const auto job = talk.Receive<Job>(Limit());
        Check(job, "gave up: no job from the dispatcher");
        if (job->fields == 0 || most == 0) {
            return 0;
        }
        talk.Post("dispatcher", Result(job->fields));
    }
}

static int Dispatch(int portPipe) {
    Talk talk{Result()};
    talk.ServeAndTell("dispatching on", portPipe);
    std::deque<unsigned int> jobs = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    std::map<KLVMsgPeer, unsigned int> workers;  // and what each does, or 0
    std::size_t left = jobs.size(), wrong = 0, most = 0;
    for (pollfd any = {talk.Descriptor(), POLLIN, 0}; left != 0;) {
        if (poll(&any, 1, TimeLimit::seconds == 0 ? -1 : 1000 * TimeLimit::seconds) == 0) {
            Check(KLVMsgOutcome{KLVMsgOutcome::kTooLate, 0, ""},
                  most < 3 ? "gave up: not all workers have come" : "gave up: no more results");
        }
        while (const auto result = talk.Receive<Result>(0s)) {
            const auto [number, square] = result->fields;
            if (std::exchange(workers[result.peer], 0) == number && number != 0) {
                wrong += square == number * number ? 0 : 1, --left;
                std::printf("worker %llu: the square of %u is %u\n", result.peer.id, number,
                            square);
            }
        }
        for (KLVMsgEvent event; (event = talk.NextEvent(0s));) {
            if (event.kind == KLVMsgEvent::kGone && workers.count(event.peer) != 0) {
                std::printf("worker %llu has gone\n", event.peer.id);
                workers[event.peer] != 0 ? jobs.push_front(workers[event.peer]) : void();
                workers.erase(event.peer);
            }
        }
        std::fflush(stdout);
        most = std::max(most, workers.size());
        for (auto& [worker, job] : workers) {
            if (most >= 3 && job == 0 && !jobs.empty() && talk.Post(worker, Job(jobs.front()))) {
                job = jobs.front(), jobs.pop_front();
            }
        }
    }
    talk.Post(KLVMsgPeers::All(), Job());
    Check(talk.End(Limit()), "gave up: a worker does not leave");
    return wrong == 0 ? 0 : 1;
}

// The processes part before there is a session: its thread and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port = children.StartServer("workers dispatcher", Dispatch);
    for (const int most : {1, -1, -1}) {
        port == 0 ? void() : children.Start("a worker", [=] { return Work(port, most); });
    }
    return children.Await() ? 0 : 1;
}

int main(int argc, char** argv) {
    const CommandLine line("workers", usage, argc, argv);
    return RunRole("workers", [&line] {
        return line.Calls("", 0)           ? RunAll()
               : line.Calls("dispatch", 0) ? Dispatch(-1)
               : line.Calls("work", 1)     ? Work(line.Number(line.Word(1), 1, 65535), -1)
                                           : (line.Refuse("no such role"), 2);
    });
}
