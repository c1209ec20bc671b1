// Request and reply with a pool of worker processes: a dispatcher hands a job to each worker that
// is free, and takes its result as the sign that it is free again.
#include <cstring>

#include "Talk.h"

static const char usage[] = R"(usage: workers [--timeout SECONDS]
       workers [--timeout SECONDS] dispatch
       workers [--timeout SECONDS] work PORT

The first form runs a dispatcher and three workers as processes of their own. The other two are for
two terminals: the dispatcher tells its port on 127.0.0.1, waits for three workers and hands them
ten jobs, numbers to be squared.

  --timeout SECONDS   give up when a peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when every job has come back with the right result and all workers have ended in order;
with 1 when not, or when something fails; with 2 after a wrong command line.
)";

static const std::size_t workerCount = 3;
static const unsigned int jobCount = 10;

// A job or a result: numbers, as they lie in memory.
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

// The number to be squared; 0 when there are no more.
struct Job : Numbers<unsigned int> {
    explicit Job(unsigned int number = 0) { fields = number; }
    KLVMsgSocketMessage* NewInstance() override { return new Job; }
    KLVString GetMessageType() const override { return "Job"; }
};

// A number and its square; both 0 in the first result of a worker, which says that it is there.
struct Squared {
    unsigned int number;
    unsigned int square;
};
struct Result : Numbers<Squared> {
    explicit Result(unsigned int number = 0) { fields = {number, number * number}; }
    KLVMsgSocketMessage* NewInstance() override { return new Result; }
    KLVString GetMessageType() const override { return "Result"; }
};

// Works until there are no more jobs.
static int Work(int port) {
    Talk talk{Job()};
    talk.ConnectAndStart(port, "dispatcher");
    for (Result result;;) {
        talk.Post("dispatcher", result);
        const auto job = talk.Receive<Job>(Limit());
        Check(job, "gave up: no job from the dispatcher", "lost the dispatcher");
        if (job->fields == 0) {
            return 0;
        }
        result = Result(job->fields);
    }
}

// The next result. A worker that is lost ends the wait, though others may still come.
static KLVMsgReceived<Result> NextResult(Talk& talk, std::size_t workers, const char* missing) {
    const auto deadline = Limit().Deadline();
    for (;;) {
        auto result = talk.Receive<Result>(std::chrono::milliseconds(100));
        if (result || KLVMsgTimeLimit::Clock::now() >= deadline) {
            Check(result, std::string("gave up: ") + missing);
            return result;
        }
        if (talk.Peers("worker").size() < workers) {
            throw std::runtime_error("lost a worker");
        }
    }
}

// Hands out the jobs, when all workers have come, until all have come back; returns how many are
// wrong.
static int HandOut(Talk& talk) {
    for (std::size_t workers = 0; workers < workerCount; ++workers) {
        talk.SetLabel(NextResult(talk, workers, "not all workers have come").peer, "worker");
    }
    unsigned int next = 1;
    for (const KLVMsgPeer worker : talk.Peers("worker")) {
        talk.Post(worker, Job(next++));
    }
    int wrong = 0;
    for (unsigned int done = 0; done < jobCount; ++done) {
        const auto result = NextResult(talk, workerCount, "no more results");
        const auto [number, square] = result->fields;
        wrong += square == number * number ? 0 : 1;
        std::printf("worker %llu: the square of %u is %u\n", result.peer.id, number, square);
        if (next <= jobCount) {
            talk.Post(result.peer, Job(next++));
        }
    }
    return wrong;
}

// Tells its port to the reader of the pipe, if there is one.
static int Dispatch(int portPipe) {
    Talk talk{Result()};
    talk.ServeAndTell("dispatching on", portPipe);
    const int wrong = HandOut(talk);
    talk.Post(KLVMsgPeers::All(), Job());
    Check(talk.End(Limit()), "gave up: a worker does not leave");
    std::printf("%u jobs, %d wrong\n", jobCount, wrong);
    return wrong == 0 ? 0 : 1;
}

// The processes part before there is a session: its thread and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port = children.StartServer("workers dispatcher", Dispatch);
    for (std::size_t number = 1; port != 0 && number <= workerCount; ++number) {
        children.Start("worker " + std::to_string(number), [port] { return Work(port); });
    }
    return children.Await() ? 0 : 1;
}

int main(int argc, char** argv) {
    const CommandLine line("workers", usage, argc, argv);
    return RunRole("workers", [&line] {
        if (line.Calls("", 0)) {
            return RunAll();
        }
        if (line.Calls("dispatch", 0)) {
            return Dispatch(-1);
        }
        if (line.Calls("work", 1)) {
            return Work(line.Number(line.Word(1), 1, 65535));
        }
        line.Refuse("no such role");
    });
}
