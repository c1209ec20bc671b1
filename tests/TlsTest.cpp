#include <KLVMsgTls.h>
#include <gtest/gtest.h>

#include "Certificates.h"
#include "Sessions.h"

namespace {

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Who trusts whom.
struct World {
    Identity authority, stranger{}, middle{&authority};
    Identity server{&authority, "DNS:localhost,IP:127.0.0.1"};
    Identity client{&authority, "DNS:client.example"};
    PemFolder folder;

    KLVMsgTlsOptions Server() const { return folder.Peer("server", {&server}, server, authority); }
    KLVMsgTlsOptions Client() const { return folder.Peer("client", {&client}, client, authority); }
};

// A session that serves in both ways.
struct Secure : Session {
    explicit Secure(const KLVMsgTlsOptions& own, const KLVMsgSessionOptions& options = {})
        : Session(options) {
        const KLVMsgOutcome outcome = Serve(anyPort, &securePort, KLVMsgTls(own));
        EXPECT_TRUE(outcome) << outcome.text;
    }
    int securePort = 0;
};

TEST(Tls, AdmitsThoseWhomBothSidesTrustAndTellsTheOthersWhy) {
    const World world;
    const Identity old(&world.authority, "IP:127.0.0.1", -3600, -60);
    const Identity early(&world.authority, "IP:127.0.0.1", 60);
    const Identity foreign(&world.stranger, "IP:127.0.0.1");
    const Identity other(&world.authority, "DNS:127.0.0.1,DNS:another,IP:127.0.0.2");
    const Identity below(&world.middle, "IP:127.0.0.1");
    const auto peer = [&](std::initializer_list<const Identity*> shown, const Identity& trusted) {
        static int number = 0;
        return world.folder.Peer(std::to_string(++number), shown, **shown.begin(), trusted);
    };
    const struct {
        const char* what;
        KLVMsgTlsOptions server, client;
        const char* host;
        std::string atClient, atServer;
    } cases[] = {
        {"an address", world.Server(), world.Client(), "127.0.0.1", "", "client.example"},
        {"a name", world.Server(), world.Client(), "localhost", "", "client.example"},
        {"a chain", peer({&below, &world.middle}, world.authority),
         peer({&below, &world.middle}, world.authority), "127.0.0.1", "", "127.0.0.1"},
        {"half a chain", peer({&below}, world.authority), world.Client(), "127.0.0.1",
         "unable to get local issuer", "unknown ca"},
        {"another authority's server", peer({&foreign}, world.authority), world.Client(),
         "127.0.0.1", "unable to get local issuer", "unknown ca"},
        {"another authority's client", world.Server(), peer({&foreign}, world.authority),
         "127.0.0.1", "unknown ca", "unable to get local issuer"},
        {"an old server", peer({&old}, world.authority), world.Client(), "127.0.0.1", "expired",
         "certificate expired"},
        {"an old client", world.Server(), peer({&old}, world.authority), "127.0.0.1",
         "refused us: certificate expired", "has expired"},
        {"an early client", world.Server(), peer({&early}, world.authority), "127.0.0.1",
         "bad certificate", "not yet valid"},
        {"another address", peer({&other}, world.authority), world.Client(), "127.0.0.1",
         "IP address mismatch", "bad certificate"},
        {"another name", peer({&other}, world.authority), world.Client(), "localhost",
         "ostname mismatch", "bad certificate"},
    };
    for (const auto& one : cases) {
        Secure server(one.server);
        Session client;
        const KLVMsgOutcome outcome =
            client.Connect({one.host, server.securePort}, "server", ever, KLVMsgTls(one.client));
        const bool isGood = one.atClient.empty();
        EXPECT_EQ(isGood, static_cast<bool>(outcome)) << one.what << ": " << outcome.text;
        EXPECT_TRUE(Has(outcome.text, one.atClient)) << one.what << ": " << outcome.text;
        const KLVMsgEvent event = server.NextEvent(ever);
        EXPECT_EQ(isGood ? KLVMsgEvent::kCame : KLVMsgEvent::kRefused, event.kind) << one.what;
        EXPECT_TRUE(Has(event.what, one.atServer)) << one.what << ": " << event.what;
        EXPECT_EQ(isGood ? 1U : 0U, server.Peers(KLVMsgPeers::All()).size()) << one.what;
        if (isGood) {
            EXPECT_TRUE(client.Send("server", Word("there"), ever)) << one.what;
            EXPECT_EQ("there", server.Next()) << one.what;
            EXPECT_TRUE(server.Send(event.peer, flood, ever));
            EXPECT_EQ(flood.text, client.Next()) << one.what;
            client.Disconnect("server");
            EXPECT_EQ(KLVMsgEvent::kClosed, server.Await(KLVMsgEvent::kGone).cause) << one.what;
            server.Disconnect(KLVMsgPeers::All());
        }
    }
}

}  // namespace
