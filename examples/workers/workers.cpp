// A work queue whose workers come and go: whoever is free gets a job, and that of one who has gone
// is given to another one. Workers keep their connection, so that the queue may be started anew.
#include <algorithm>
#include <deque>

#include "Roles.h"
#include "Talk.h"

static const char usage[] = R"(usage: workers [--timeout SECONDS] [dispatch | work PORT JOBS]
Three workers square ten numbers, and one of them leaves in the middle of a job; or one does so many
JOBS ("all") at the port that a dispatcher tells, which begins with the third. Exits with 0 when all
are right; 1 when not, or when a peer is silent for SECONDS (20; 0: for ever); 2 if called wrongly.
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

static int Work(int port, const std::string& jobs) {
    Talk talk{Job()};
    Check(talk.Keep({"127.0.0.1", port}, "dispatcher", Result()));
    Check(talk.Start());
    for (int left = jobs == "all" ? -1 : std::atoi(jobs.c_str());; --left) {
        const auto job = talk.Receive<Job>(Limit());
        Check(job, "gave up: no job from the dispatcher");
        if (job->fields == 0 || left == 0) {
            return 0;
        }
        talk.Post("dispatcher", Result(job->fields));
    }
}

static int Dispatch(int portPipe) {
    Talk talk{Result()};
    std::deque<unsigned int> jobs = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    std::map<KLVMsgPeer, unsigned int> workers;  // and what each does, or 0
    std::size_t left = jobs.size(), wrong = 0, most = 0;
    talk.Handle<Result>([&](const KLVMsgReceived<Result>& result) {
        const auto [number, square] = result->fields;
        if (std::exchange(workers[result.peer], 0) == number && number != 0) {
            wrong += square == number * number ? 0 : 1, --left;
            std::printf("worker %llu: the square of %u is %u\n", result.peer.id, number, square);
        }
    });
    talk.HandleEvents([&](const KLVMsgEvent& event) {  // behind all that the worker has sent
        const auto worker = workers.find(event.peer);
        if (event.kind == KLVMsgEvent::kGone && worker != workers.end()) {
            std::printf("worker %llu has gone\n", event.peer.id);
            worker->second != 0 ? jobs.push_front(worker->second) : void();
            workers.erase(worker);
        }
    });
    talk.ServeAndTell("dispatching on", portPipe);
    while (left != 0) {
        Check(talk.Dispatch(Limit()),
              most < 3 ? "gave up: not all workers have come" : "gave up: no more results");
        std::fflush(stdout);
        most = std::max(most, workers.size());
        for (auto& [worker, job] : workers) {
            if (most >= 3 && job == 0 && !jobs.empty() && talk.Post(worker, Job(jobs.front()))) {
                job = jobs.front(), jobs.pop_front();
            }
        }
    }
    talk.Post(KLVMsgPeers::All(), Job());
    return talk.End(Limit()) && wrong == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    return RunRoles("workers", usage, argc, argv,
                    {"dispatch", Dispatch, "work", Work, {"1", "all", "all"}});
}
