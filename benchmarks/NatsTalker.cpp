// A client of NATS alone, beside which the bridge is measured: natsTalker URL SUBJECT COUNT SIZE
// [WINDOW]. Publishes with the headers that the bridge gives its messages; with a window to a
// stream, with so many open at a time. Prints how many a second NATS has taken.
#include <nats/nats.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

namespace {

void Check(natsStatus status, const char* what) {
    if (status != NATS_OK) {
        std::fprintf(stderr, "natsTalker: %s: %s\n", what, natsStatus_GetText(status));
        std::exit(1);
    }
}

std::atomic<long> answered{0};

// Answers come to an inbox, which is returned.
std::string CountAnswers(natsConnection* connection, natsSubscription*& answers) {
    natsInbox* inbox = nullptr;
    Check(natsInbox_Create(&inbox), "an inbox");
    std::string reply = inbox;
    natsInbox_Destroy(inbox);
    const auto count = [](natsConnection*, natsSubscription*, natsMsg* message, void*) {
        const std::string_view answer(natsMsg_GetData(message),
                                      static_cast<std::size_t>(natsMsg_GetDataLength(message)));
        Check(answer.find("\"seq\"") == answer.npos ? NATS_ERR : NATS_OK, "a message is refused");
        natsMsg_Destroy(message);
        ++answered;
    };
    Check(natsConnection_Subscribe(&answers, connection, reply.c_str(), count, nullptr), "answers");
    natsSubscription_SetPendingLimits(answers, -1, -1);
    return reply;
}

// With a reply subject it has an id as well; without, that is null.
void Publish(natsConnection* connection, const char* subject, const char* reply,
             const std::string& body, long number) {
    natsMsg* message = nullptr;
    Check(natsMsg_Create(&message, subject, reply, body.data(), static_cast<int>(body.size())),
          "a message");
    natsMsgHeader_Set(message, "KLVMsg-Type", "Tick");
    natsMsgHeader_Set(message, "KLVMsg-Site", "berlin");
    natsMsgHeader_Set(message, "KLVMsg-Bridge", "berlin/bridge");
    if (reply != nullptr) {
        natsMsgHeader_Set(message, "Nats-Msg-Id", ("talker:" + std::to_string(number)).c_str());
    }
    Check(natsConnection_PublishMsg(connection, message), "publish");
    natsMsg_Destroy(message);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: natsTalker URL SUBJECT COUNT SIZE [WINDOW]\n");
        return 2;
    }
    const long count = std::atol(argv[3]), window = argc > 5 ? std::atol(argv[5]) : 0;
    const std::string body(static_cast<std::size_t>(std::atol(argv[4])), 'x');
    natsConnection* connection = nullptr;
    natsSubscription* answers = nullptr;
    Check(natsConnection_ConnectTo(&connection, argv[1]), argv[1]);
    const std::string reply = CountAnswers(connection, answers);
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < count; ++i) {
        while (window != 0 && i - answered >= window) {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        Publish(connection, argv[2], window == 0 ? nullptr : reply.c_str(), body, i);
    }
    Check(natsConnection_FlushTimeout(connection, 60000), "flush");
    while (window != 0 && answered < count) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    std::printf("%.0f\n", static_cast<double>(count) / time.count());
    natsSubscription_Destroy(answers);
    natsConnection_Destroy(connection);
}
