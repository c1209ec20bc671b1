// The inbox and the pending queue, from few records to very many.
#include "Sockets.h"

namespace bench {
namespace {

int noBody = 0;

// A message without a body, of one of two types.
class Note : public Message {
public:
    explicit Note(const char* name) : Message(nullptr, noBody), type(name) {}

    KLVString GetMessageType() const override { return type; }

    KLVString type;
};

// Retrieves half of `count` records by their type; the time for one record of the inbox.
std::vector<double> RetrieveHalf(int count) {
    static Note wanted("wanted");
    static Note other("other");
    for (int i = 0; i < count; ++i) {
        Communicator().AddMessage({KLVMsgChannel(), i % 2 == 0 ? &wanted : &other, 0});
    }
    KLVMsgMessageQueryByType half(wanted.type);
    KLVMsgMessageQueryByType rest(other.type);
    KLVBasVector<KLVMsgSocketMessage*> messages;
    const double start = Now();
    Communicator().IRetrieveMessages(&half, messages);
    const double spent = Now() - start;
    Require(messages.Size() == static_cast<std::size_t>(count) / 2, "half of the inbox");
    Communicator().IRetrieveMessages(&rest, messages);
    Require(messages.Size() == static_cast<std::size_t>(count), "the rest of the inbox");
    return {spent / count};
}

// Asks for `count` ids, the newest first, in a queue of as many; the time for one id.
std::vector<double> QueryAll(int count) {
    static Note note("note");
    KLVBasVector<unsigned int> queued;
    for (int i = 0; i < count; ++i) {
        unsigned int id = 0;
        Communicator().ISendSocketMessage(KLVMsgChannel(), &note, id);
        queued.PushBack(id);
    }
    KLVBasVector<unsigned int> asked;
    for (std::size_t i = queued.Size(); i-- > 0;) {
        asked.PushBack(queued[i]);
    }
    KLVBasVector<unsigned int> pending;
    const double start = Now();
    Communicator().QueryPendingStatus(asked, pending);
    const double spent = Now() - start;
    Require(pending.Size() == queued.Size() && pending[0] == queued[0], "pending ids");

    static KLVMsgBufferedOutputStream stream(1);
    Communicator().SetDefaultOutputStream(&stream);
    Communicator().TransmitPendingMessage();  // to no connection: empties the queue
    Require(!Communicator().QueryPendingStatus(queued[0]), "an empty queue");
    return {spent / count};
}

void Growth(benchmark::State& state, std::vector<double> (*turn)(int)) {
    Comparison comparison({"record"});
    for (const int count :
         {1000, 100, 10000, 100000}) {  // the first one is what growth is told from
        comparison.Add(std::to_string(count), [turn, count] {
            std::vector<double> times;
            for (int i = 0; i < Rounds(std::max(1, 20000 / count)); ++i) {
                times.push_back(turn(count)[0]);
            }
            return std::vector<double>{Median(times)};
        });
    }
    comparison.Run(state);
}

void RegisterAll() {
    Register("inbox/retrieve_half", 15,
             [](benchmark::State& state) { Growth(state, &RetrieveHalf); });
    Register("queue/query_all", 15, [](benchmark::State& state) { Growth(state, &QueryAll); });
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) { return bench::Main(argc, argv, &bench::RegisterAll); }
