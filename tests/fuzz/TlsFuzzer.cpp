// What may come before a peer is trusted, for libFuzzer: into a protected connection. The first
// byte says to which side, the second how it is cut:
//
// 0, 1    the rest comes to a server, or to a client, as it is: it never lets that in
// others  two sides greet each other and talk, while somebody between them makes the changes that
//         the rest says, and ends it: what the one has taken is what the other one wrote, and
//         without a change all that the system was said to have taken has come
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Certificates.h"
#include "KLVMsgTlsTransport.h"

namespace {

void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

// How many bytes go at a time.
struct Pace {
    std::size_t Next(std::size_t most) {
        state = state * 1664525 + 1013904223;
        return state < (1U << 30) ? most : std::min<std::size_t>(most, state >> 20);
    }
    unsigned state;
};

// Four bytes: which direction and what is done, at which byte, and with what.
struct Change {
    bool toServer;
    int kind;
    std::size_t at;
    char value;
};

// One direction, and who changes it.
struct Pipe {
    void Put(const char* data, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i, ++passed) {
            std::string one(1, data[i]);
            for (const Change& change : changes) {
                if (change.at == passed) {
                    change.kind == 0   ? void(one[0] = static_cast<char>(one[0] ^ change.value))
                    : change.kind == 1 ? void(one.insert(0, 1, change.value))
                    : change.kind == 2 ? one.clear()
                                       : void(ended = true);
                }
            }
            bytes += ended ? "" : one;
        }
    }
    std::string bytes;
    std::vector<Change> changes;
    std::size_t passed = 0;
    bool ended = false;
    bool full = false;
};

class Way final : public KLVMsgTransport {
public:
    Way(Pipe& in, Pipe& out, Pace& pace)
        : KLVMsgTransport(true), m_in(in), m_out(out), m_pace(pace) {}

    Result Read(const iovec* spaces, int) override {
        Result result;
        result.count = m_pace.Next(std::min(spaces->iov_len, m_in.bytes.size()));
        m_in.bytes.copy(static_cast<char*>(spaces->iov_base), result.count);
        m_in.bytes.erase(0, result.count);
        result.ended = m_in.ended && m_in.bytes.empty() && result.count == 0;
        result.error = result.count == 0 && !result.ended ? EAGAIN : 0;
        return result;
    }
    Result Write(const iovec* pieces, int, bool) override {
        Result result;
        result.count = m_out.full ? 0 : m_pace.Next(pieces->iov_len);
        m_out.Put(static_cast<const char*>(pieces->iov_base), result.count);
        result.error = result.count == 0 ? EAGAIN : 0;
        return result;
    }
    void EndOutput() override { m_out.ended = true; }
    void Break() override {}
    std::size_t Segment() override { return 0; }
    Sample TakeSample() override { return {}; }
    int Descriptor() const override { return -1; }

private:
    Pipe& m_in;
    Pipe& m_out;
    Pace& m_pace;
};

struct Plant {
    Identity authority, server{&authority, "DNS:server"}, client{&authority, "DNS:client"};
    PemFolder folder;
    std::shared_ptr<KLVMsgTlsContext> ofServer =
        std::make_shared<KLVMsgTlsContext>(folder.Peer("server", {&server}, authority));
    std::shared_ptr<KLVMsgTlsContext> ofClient =
        std::make_shared<KLVMsgTlsContext>(folder.Peer("client", {&client}, authority));
};

// One side: what it wrote, was told of it, and has read.
struct Side {
    Side(Pipe& in, Pipe& out, Pace& pace, bool server) : isServer(server) {
        static const Plant plant;
        auto way = std::make_unique<Way>(in, out, pace);
        own = server ? std::make_unique<KLVMsgTlsTransport>(std::move(way), plant.ofServer, 3)
                     : std::make_unique<KLVMsgTlsTransport>(std::move(way), plant.ofClient, 3,
                                                            "server");
    }

    void Greet() {
        if (state == KLVMsgTransport::Greeting::kGoesOn) {
            state = own->Greet().state;
            if (IsIn() && isServer) {
                own->Admit();
            }
        }
    }
    bool IsIn() const { return state == KLVMsgTransport::Greeting::kDone; }

    void Talk(std::size_t size) {
        std::string more(size, static_cast<char>('a' + wrote.size() % 26));
        wrote += more;
        const std::size_t half = std::min((wrote.size() - told) / 2, std::size_t{30000});
        char* const begin = wrote.data() + told;
        const iovec pieces[] = {{begin, half}, {begin + half, wrote.size() - told - half}};
        told += own->Write(pieces, 2, true).count;
    }
    void Listen() {
        char first[100], second[5000];
        const iovec spaces[] = {{first, sizeof first}, {second, sizeof second}};
        const KLVMsgTransport::Result result =
            hasEnded ? KLVMsgTransport::Result() : own->Read(spaces, 2);
        const std::size_t count = result.count;
        hasEnded = count == 0 && result.error != EAGAIN;
        read.append(first, std::min(count, sizeof first));
        read.append(second, count - std::min(count, sizeof first));
    }

    const bool isServer;
    std::unique_ptr<KLVMsgTlsTransport> own;
    KLVMsgTransport::Greeting::State state = KLVMsgTransport::Greeting::kGoesOn;
    std::string wrote, read;
    std::size_t told = 0;
    bool hasEnded = false;  // what is read then is nobody's
};

void FeedRaw(bool toServer, Pace pace, std::string bytes) {
    Pipe in, out;
    in.bytes = std::move(bytes);
    in.ended = true;
    Side side(in, out, pace, toServer);
    for (int i = 0; i < 10000 && side.state == KLVMsgTransport::Greeting::kGoesOn; ++i) {
        side.Greet();
    }
    Require(side.state == KLVMsgTransport::Greeting::kFailed, "let in, or waits behind the end");
    side.Listen();
    side.own->EndOutput();
}

void FeedChanged(Pace pace, const std::vector<Change>& changes) {
    Pipe toServer, toClient;
    for (const Change& change : changes) {
        (change.toServer ? toServer : toClient).changes.push_back(change);
    }
    Side server(toServer, toClient, pace, true), client(toClient, toServer, pace, false);
    for (int i = 0; i < 400 && !(server.IsIn() && client.IsIn()); ++i) {
        client.Greet(), server.Greet();
        client.own->Flush(), server.own->Flush();
    }
    Require(!changes.empty() || (server.IsIn() && client.IsIn()), "not let in");
    for (unsigned i = 0; i < 12 && server.IsIn() && client.IsIn(); ++i) {
        client.Talk(i * 1500), server.Talk(i * 700);
        server.Listen(), client.Listen();
        toServer.full = i == 9;
    }
    client.told += client.own->TakeHeld();
    toServer.ended = true;
    for (int i = 0; i < 1000 && server.IsIn(); ++i) {
        server.Listen();
    }
    Require(client.wrote.compare(0, server.read.size(), server.read) == 0 &&
                server.wrote.compare(0, client.read.size(), client.read) == 0,
            "something else was read than was written");
    Require(!changes.empty() || server.read.size() == client.told, "told otherwise than it came");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const Pace pace{data[1] * 0x9e3779b9U};
    if (data[0] < 2) {
        FeedRaw(data[0] == 0, pace, std::string(data + 2, data + size));
        return 0;
    }
    std::vector<Change> changes;
    for (std::size_t i = 2; i + 4 <= size; i += 4) {
        changes.push_back({(data[i] & 1) != 0, data[i] >> 1 & 3, data[i + 1] * 256U + data[i + 2],
                           static_cast<char>(data[i + 3])});
    }
    FeedChanged(pace, changes);
    return 0;
}
