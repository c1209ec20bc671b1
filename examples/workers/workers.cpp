// Request and reply with a pool of worker processes: a dispatcher hands a job to each worker that
// is free, and takes its result as the sign that it is free again. Exits with 0 when every job has
// come back with the right result and all workers have ended in order.
#include <KLVMsgCommModules.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

static const int workerCount = 3;
static const int jobCount = 10;  // a job is a number to be squared

using Registry = KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>;
using Communicator = KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>;

// A job or a result: two numbers, as they lie in memory.
class Numbers : public KLVMsgSocketMessage {
public:
    explicit Numbers(const char* type, int number = 0, int square = 0)
        : fields{number, square}, m_type(type) {}

    int WriteMessage(KLVMsgOutputStream* stream) override {
        int count = 0;
        stream->write(fields, sizeof fields, count);
        return count;
    }

    int ReadMessage(KLVMsgInputStream* stream) override {
        for (int done = 0, count = 1; done < int{sizeof fields} && count > 0; done += count) {
            count = 0;
            stream->read(reinterpret_cast<char*>(fields) + done, int{sizeof fields} - done, count);
        }
        return 1;
    }

    KLVMsgSocketMessage* NewInstance() override { return new Numbers(m_type); }
    KLVString GetMessageType() const override { return m_type; }

    // A number and its square; both 0 in the first result of a worker, which says that it is there.
    int fields[2];

private:
    const char* m_type;
};

// Runs a role with the library started up, and shuts it down.
static int WithLibrary(int (*role)(int), int portPipe) {
    alarm(60);  // ends a process whose peer never answers
    int modules = 0;
    KLVMsgCommModules_initialize(modules);
    Registry::Instance();
    KLVMsgSimpleInputStream input;
    KLVMsgBufferedOutputStream output(65536);
    Communicator::Instance()->SetDefaultInputStream(&input);
    Communicator::Instance()->SetDefaultOutputStream(&output);
    Numbers job("Job"), result("Result");
    Communicator::Instance()->RegisterMessagePrototype("Job", &job);
    Communicator::Instance()->RegisterMessagePrototype("Result", &result);
    Communicator::Instance()->PrepareStartupMessageTask();
    KLVMsgMessageTask task;
    KLVBasAtiThread thread(task);
    const int code = role(portPipe);
    Communicator::Instance()->ShutdownMessageTask();
    thread.Join();
    Communicator::Finalize();
    Registry::Finalize();
    KLVMsgCommModules_finalize(modules);
    return code;
}

// Works until the dispatcher closes the connection.
static int Work(int portPipe) {
    int port = 0;
    if (read(portPipe, &port, sizeof port) != sizeof port) {
        return 1;
    }
    auto* const socket =
        Registry::Instance()->ConnectToServer({}, KLVMsgSocketAddress("127.0.0.1", port));
    KLVMsgChannel dispatcher(socket, "dispatcher");
    Communicator::Instance()->AddConnection(dispatcher, true);
    Numbers result("Result");
    Communicator::Instance()->SendSocketMessage(dispatcher, &result);
    KLVMsgMessageQueryByType query("Job");
    while (dispatcher.IsActiveInCurrentThreads()) {
        KLVBasVector<KLVMsgSocketMessage*> received;
        Communicator::Instance()->IRetrieveMessages(&query, received);
        for (std::size_t i = 0; i < received.Size(); ++i) {
            const int number = static_cast<Numbers*>(received[i])->fields[0];
            result = Numbers("Result", number, number * number);
            Communicator::Instance()->SendSocketMessage(dispatcher, &result);
            delete received[i];
        }
        KLVBasUtlsleep(20);
    }
    return 0;
}

static int Dispatch(int portPipe) {
    KLVMsgServerSocket* const server = Registry::Instance()->StartServer({"127.0.0.1", 0}, 16);
    Communicator::Instance()->AddConnection(KLVMsgChannel(server, "entrance"), true);
    const std::vector<int> ports(workerCount, server->address.port);  // one for each to read
    if (write(portPipe, ports.data(), ports.size() * sizeof(int)) == -1) {
        return 1;
    }
    KLVMsgMessageQueryByType query("Result");
    int next = 1;
    int done = 0, wrong = 0;
    while (done < jobCount) {
        KLVBasUtlsleep(20);
        KLVBasVector<KLVMsgChannelMsgStruct> results;
        Communicator::Instance()->IRetrieveMessagesWithChannel(&query, results);
        for (std::size_t i = 0; i < results.Size(); ++i) {
            const auto [number, square] = static_cast<Numbers*>(results[i].message)->fields;
            if (number > 0) {
                ++done;
                wrong += square != number * number;
                std::printf("connection %d: the square of %d is %d\n",
                            results[i].channel.connection, number, square);
            }
            if (next <= jobCount) {
                Numbers job("Job", next++);
                Communicator::Instance()->SendSocketMessage(results[i].channel, &job);
            }
            delete results[i].message;
        }
    }
    std::printf("%d jobs, %d wrong\n", done, wrong);
    return wrong;
}

int main() {
    int portPipe[2];
    if (pipe(portPipe) == -1) {
        return 1;
    }
    // The processes part before the library is used: its threads and sockets are not inherited.
    for (int i = 0; i < workerCount; ++i) {
        if (fork() == 0) {
            return WithLibrary(Work, portPipe[0]);
        }
    }
    int failures = WithLibrary(Dispatch, portPipe[1]);
    for (int status = 0; wait(&status) > 0;) {
        failures += status != 0;
    }
    return failures;
}
