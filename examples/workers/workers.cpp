// Request and reply with a pool of worker processes: a dispatcher hands a job to each worker that
// is free, and takes its result as the sign that it is free again.
#include "Library.h"
#include "Program.h"

static const char usage[] = R"(usage: workers [--timeout SECONDS]
       workers [--timeout SECONDS] dispatch
       workers [--timeout SECONDS] work PORT

The first form runs a dispatcher and three workers as processes of their own. The other two are for
two terminals: the dispatcher tells its port on 127.0.0.1 and hands ten jobs, numbers to be squared,
to the workers that come.

  --timeout SECONDS   give up when a peer has been silent for so long (20; 0: never)
  --help, --version

Exits with 0 when every job has come back with the right result and all workers have ended in order;
with 1 when not, or when something fails; with 2 after a wrong command line.
)";

static const int workerCount = 3;
static const unsigned int jobCount = 10;

// A job or a result: two numbers, as they lie in memory.
class Numbers : public KLVMsgSocketMessage {
public:
    explicit Numbers(const char* type, unsigned int number = 0, unsigned int square = 0)
        : fields{number, square}, m_type(type) {}

    int WriteMessage(KLVMsgOutputStream* stream) override {
        int count = 0;
        stream->write(fields, bodySize, count);
        whole = count == bodySize;
        return whole;
    }

    int ReadMessage(KLVMsgInputStream* stream) override {
        int done = 0;
        for (int count = 1; done < bodySize && count > 0; done += count) {
            count = 0;
            stream->read(reinterpret_cast<char*>(fields) + done, bodySize - done, count);
        }
        whole = done == bodySize;
        return whole;
    }

    KLVMsgSocketMessage* NewInstance() override { return new Numbers(m_type); }
    KLVString GetMessageType() const override { return m_type; }

    // A number and its square; both 0 in the first result of a worker, which says that it is there.
    unsigned int fields[2];
    bool whole = false;  // a message whose body did not come to its end is received all the same

private:
    static const int bodySize = sizeof fields;
    const char* m_type;
};

// Works until the dispatcher closes the connection.
static int Work(int port) {
    Numbers job("Job");
    Library library;
    library.Register(job);
    TimeLimit::Restart("workers: gave up: the dispatcher does not accept\n");
    KLVMsgChannel dispatcher = Connect(KLVMsgSocketAddress("127.0.0.1", port), "dispatcher");
    library.Start();
    Numbers result("Result");
    TimeLimit::Restart("workers: gave up: no job from the dispatcher\n");
    Communicator().SendSocketMessage(dispatcher, &result);
    for (bool connected = true; connected;) {
        KLVBasUtlsleep(20);
        connected = dispatcher.IsActiveInCurrentThreads();  // before the last look
        for (const auto& [channel, received] : Take<Numbers>("Job")) {
            if (!received->whole) {
                throw std::runtime_error("lost the dispatcher in the middle of a message");
            }
            const unsigned int number = received->fields[0];
            result = Numbers("Result", number, number * number);
            Communicator().SendSocketMessage(channel, &result);
            TimeLimit::Restart("workers: gave up: no more jobs from the dispatcher\n");
        }
    }
    return 0;
}

// Hands out the jobs until all have come back; returns how many are wrong.
static int HandOut() {
    std::vector<KLVMsgChannel> workers;
    unsigned int next = 1;
    unsigned int done = 0;
    int wrong = 0;
    TimeLimit::Restart("workers: gave up: no workers have come\n");
    while (done < jobCount) {
        KLVBasUtlsleep(20);
        bool lost = false;  // asked before the last look
        for (KLVMsgChannel& worker : workers) {
            lost = lost || !worker.IsActiveInCurrentThreads();
        }
        for (const auto& [channel, result] : Take<Numbers>("Result")) {
            if (!result->whole) {
                continue;  // its connection has ended
            }
            TimeLimit::Restart("workers: gave up: no more results from the workers\n");
            const auto [number, square] = result->fields;
            if (number == 0) {
                workers.push_back(channel);
            } else {
                ++done;
                wrong += square == number * number ? 0 : 1;
                std::printf("connection %d: the square of %u is %u\n", channel.connection, number,
                            square);
            }
            if (next <= jobCount) {
                Numbers job("Job", next++);
                Communicator().SendSocketMessage(channel, &job);
            }
        }
        if (lost && done < jobCount) {
            throw std::runtime_error("lost a worker");
        }
    }
    return wrong;
}

// Tells its port to the reader of the pipe, if there is one.
static int Dispatch(int portPipe) {
    Numbers result("Result");
    Library library;
    library.Register(result);
    const KLVMsgChannel entrance = Serve(KLVMsgSocketAddress("127.0.0.1", 0), 16, "entrance");
    const int port = entrance.GetSocket()->address.port;
    library.Start();
    std::printf("dispatching on 127.0.0.1, port %d\n", port);
    std::fflush(stdout);
    if (portPipe != -1 && write(portPipe, &port, sizeof port) != sizeof port) {
        throw std::runtime_error("nobody asks for the port");
    }
    const int wrong = HandOut();
    std::printf("%u jobs, %d wrong\n", jobCount, wrong);
    return wrong == 0 ? 0 : 1;
}

// The processes part before the library is used: its threads and sockets are not inherited.
static int RunAll() {
    Children children;
    const int port = children.StartServer("workers dispatcher", Dispatch);
    for (int number = 1; port != 0 && number <= workerCount; ++number) {
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
