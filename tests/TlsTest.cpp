#include <KLVMsgTls.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <optional>

#include "Certificates.h"
#include "Faults.h"
#include "Lives.h"
#include "Sessions.h"

namespace {

// Who trusts whom.
struct World {
    Identity authority, stranger{}, middle{&authority};
    Identity server{&authority, "DNS:localhost,IP:127.0.0.1"};
    Identity client{&authority, "DNS:client.example"};
    PemFolder folder;

    KLVMsgTlsOptions Server() const { return folder.Peer("server", {&server}, authority); }
    KLVMsgTlsOptions Client() const { return folder.Peer("client", {&client}, authority); }
};

// A session that serves in both ways.
struct Secure : Session {
    explicit Secure(const KLVMsgTlsOptions& own, const KLVMsgSessionOptions& options = {})
        : Session(options) {
        EXPECT_TRUE(Serve(anyPort, &securePort, KLVMsgTls(own)));
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
    const auto peer = [&](std::initializer_list<const Identity*> shown) {
        static int number = 0;
        return world.folder.Peer(std::to_string(++number), shown, world.authority);
    };
    const KLVMsgTlsOptions server = world.Server(), client = world.Client();
    const std::string stranger = "unable to get local issuer";
    const struct {
        const char* what;
        KLVMsgTlsOptions server, client;
        std::string host, atClient, atServer;
    } cases[] = {
        {"an address", server, client, "127.0.0.1", "", "client.example"},
        {"a name", server, client, "localhost", "", "client.example"},
        {"chains", peer({&below, &world.middle}), peer({&below, &world.middle}), "127.0.0.1", "",
         "127.0.0.1"},
        {"half a chain", peer({&below}), client, "127.0.0.1", stranger, "unknown ca"},
        {"a foreign server", peer({&foreign}), client, "127.0.0.1", stranger, "unknown ca"},
        {"a foreign client", server, peer({&foreign}), "127.0.0.1", "unknown ca", stranger},
        {"an old server", peer({&old}), client, "127.0.0.1", "expired", "certificate expired"},
        {"an old client", server, peer({&old}), "127.0.0.1", "refused us: cert", "has expired"},
        {"an early client", server, peer({&early}), "127.0.0.1", "bad cert", "not yet valid"},
        {"another address", peer({&other}), client, "127.0.0.1", "address mismatch", "bad cert"},
        {"another name", peer({&other}), client, "localhost", "ostname mismatch", "bad cert"},
    };
    for (const auto& one : cases) {
        Secure there(one.server);
        Session here;
        const KLVMsgSocketAddress address(one.host.c_str(), there.securePort);
        const KLVMsgOutcome outcome = here.Connect(address, "there", ever, KLVMsgTls(one.client));
        const bool isGood = one.atClient.empty();
        EXPECT_EQ(isGood, static_cast<bool>(outcome)) << one.what << ": " << outcome.text;
        EXPECT_TRUE(Has(outcome.text, one.atClient)) << one.what << ": " << outcome.text;
        const KLVMsgEvent event = there.NextEvent(ever);
        EXPECT_EQ(isGood ? KLVMsgEvent::kCame : KLVMsgEvent::kRefused, event.kind) << one.what;
        EXPECT_TRUE(Has(event.what, one.atServer)) << one.what << ": " << event.what;
        EXPECT_EQ(isGood ? 1U : 0U, there.Peers(KLVMsgPeers::All()).size()) << one.what;
        if (isGood) {
            EXPECT_TRUE(here.Send("there", Word("there"), ever)) << one.what;
            EXPECT_EQ("there", there.Next()) << one.what;
            EXPECT_TRUE(there.Send(event.peer, flood, ever));
            EXPECT_EQ(flood.text, here.Next()) << one.what;
            here.Disconnect("there");
            EXPECT_EQ(KLVMsgEvent::kClosed, there.Await(KLVMsgEvent::kGone).cause) << one.what;
            there.Disconnect(KLVMsgPeers::All());
        }
    }
}

// A client that knows TLS and nothing else of ours, and counts the new keys that it is told of.
struct Bare {
    Bare(int port, const World& world) {
        SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);  // a read ends after each record
        SSL_CTX_set_msg_callback(context, [](int write, int, int kind, const void* bytes,
                                             std::size_t, SSL*, void* self) {
            const int type = kind == SSL3_RT_HANDSHAKE ? *static_cast<const char*>(bytes) : -1;
            static_cast<Bare*>(self)->updates += write == 0 && type == SSL3_MT_KEY_UPDATE ? 1 : 0;
        });
        SSL_CTX_set_msg_callback_arg(context, this);
        SSL_CTX_use_certificate(context, world.client.certificate.get());
        SSL_CTX_use_PrivateKey(context, world.client.key.get());
        ssl = SSL_new(context);
        BIO* const bio = BIO_new_connect(("127.0.0.1:" + std::to_string(port)).c_str());
        SSL_set_bio(ssl, bio, bio);
        EXPECT_EQ(1, SSL_connect(ssl));
    }
    ~Bare() { SSL_free(ssl), SSL_CTX_free(context); }
    void Send(const std::string& bytes) const {
        SSL_write(ssl, bytes.data(), static_cast<int>(bytes.size()));
    }
    int Sees(int n) {
        for (char bytes[4096]; updates < n && SSL_read(ssl, bytes, sizeof bytes) != 0;) {
        }
        return updates;
    }

    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    SSL* ssl;
    int updates = 0;
};

TEST(Tls, LetsInWhoseNamesAreWanted) {
    const World world;
    Secure server(world.Server());
    Session client;
    for (const std::string wanted : {"client.example", "another"}) {
        int port = 0;
        const auto admit = [=](const KLVMsgPeerInfo& info) { return info.Names().at(0) == wanted; };
        EXPECT_TRUE(server.Serve(anyPort, admit, &port, KLVMsgTls(world.Server())));
        const auto outcome = client.Connect(At(port), "", ever, KLVMsgTls(world.Client()));
        const bool isIn = wanted == "client.example";
        EXPECT_EQ(isIn, static_cast<bool>(outcome));
        EXPECT_TRUE(Has(outcome.text, isIn ? "" : "turned us away")) << outcome.text;
        EXPECT_TRUE(Has(server.NextEvent(ever).what, isIn ? wanted : "not admitted"));
    }
}

TEST(Tls, HalfOpenOnesHarmNobody) {
    const World world;
    KLVMsgTlsOptions own = world.Server();
    own.greetingsAtOnce = 2;
    own.greeting = 300ms;
    Secure server(own);
    Session client;
    const auto refused = [&] { return server.Await(KLVMsgEvent::kRefused).what; };
    const PlainPeer first(server.securePort), second(server.securePort), third(server.securePort);
    EXPECT_TRUE(Has(refused(), "others came"));
    EXPECT_TRUE(client.Connect(At(server.securePort), "", ever, KLVMsgTls(world.Client())));
    EXPECT_TRUE(Has(refused(), "others came"));
    EXPECT_TRUE(Has(refused(), "too long"));
}

TEST(Tls, RenewsItsKeysAndAnswersThoseWhoRenewTheirs) {
    const World world;
    KLVMsgTlsOptions own = world.Server();
    own.recordsPerKey = 3;
    Secure server(own);
    Bare peer(server.securePort, world);
    for (int i = 0; i < 5; ++i) {
        SSL_key_update(peer.ssl, SSL_KEY_UPDATE_REQUESTED);
        peer.Send(WordBytes("one record"));
        EXPECT_EQ(i + 1, peer.Sees(i + 1)) << "it never writes";
    }
    for (int i = 0; i < 3; ++i) {
        peer.Send(WordBytes("one record"));
    }
    EXPECT_EQ(6, peer.Sees(6)) << "of so many records that came under one key";
    EXPECT_TRUE(server.Holds(8));
    server.Post(KLVMsgPeers::All(), Word(std::string(std::size_t{1} << 20, 'x')));
    EXPECT_LE(20, peer.Sees(20)) << "64 full records";
}

TEST(Tls, ReadsWhatTheSystemKnowsNothingOf) {
    const World world;
    KLVMsgSessionOptions options;
    options.inboxLimit = 1000;
    Secure server(world.Server(), options);
    Session client;
    ASSERT_TRUE(client.Connect(At(server.securePort), "", ever, KLVMsgTls(world.Client())));
    const Word word(std::string(1000, 'x'));
    EXPECT_TRUE(client.Send("", word, ever) && server.Holds(1)) << "nothing more is read";
    for (int i = 0; i < 70; ++i) {  // a little more than is read at a time, and full records
        client.Post("", word);
    }
    EXPECT_TRUE(client.Send("", word, ever));
    for (int i = 0; i < 72; ++i) {
        ASSERT_EQ(word.text, server.Next());
    }
    client.Disconnect(""), server.Disconnect("");
}

// The system takes nothing for a while.
TEST(Tls, WhatTheSystemHasNotTakenIsNotSent) {
    const World world;
    Secure server(world.Server());
    Session client;
    ASSERT_TRUE(client.Connect(At(server.securePort), "", ever, KLVMsgTls(world.Client())));
    server.Came();
    {
        const FailingCall full("sendmsg", EAGAIN);
        EXPECT_EQ(KLVMsgOutcome::kTooLate, client.Send("", Word("1"), 20ms).status);
        EXPECT_EQ(1U, client.Counts().messagesQueued) << "it is encrypted, so that it has to go";
        EXPECT_TRUE(client.Post("", Word("2")));
    }
    EXPECT_TRUE(client.Send("", Word("3"), ever));
    for (const char* const text : {"1", "2", "3"}) {
        EXPECT_EQ(text, server.Next());
    }
    client.Disconnect(""), server.Disconnect("");
}

TEST(Tls, KeepComesBackAndTellsWhatKeepsItAway) {
    const World world;
    const Identity foreign(&world.stranger, "IP:127.0.0.1");
    const KLVMsgTlsOptions wrong = world.folder.Peer("wrong", {&foreign}, world.authority);
    const int port = Listener().address.port;
    std::optional<Session> server;
    const auto serve = [&](const KLVMsgTlsOptions& options) {
        server.reset();
        EXPECT_TRUE(server.emplace().Serve(At(port), KLVMsgTls(options)));
    };
    Session client;
    const auto isAway = [&] { return client.Await(KLVMsgEvent::kAway).what; };
    EXPECT_FALSE(client.Keep(At(port), "kept", KLVMsgTls(KLVMsgTlsOptions())));
    const KLVMsgTls own(world.Client());
    EXPECT_TRUE(client.Keep(At(port), "kept", Word("hello"), own));
    EXPECT_TRUE(Has(isAway(), "refused"));
    EXPECT_TRUE(client.Post("kept", Word("1")));
    serve(wrong);
    EXPECT_TRUE(Has(isAway(), "its certificate is not accepted"));
    serve(world.Server());
    const auto expect = [&](const char* text) {
        EXPECT_EQ("hello", server->Next());
        EXPECT_EQ(text, server->Next());
    };
    expect("1");
    EXPECT_TRUE(Has(client.Await(KLVMsgEvent::kCame).what, "connection of localhost, 127.0.0.1"));
    serve(world.Server());
    EXPECT_TRUE(client.Await(KLVMsgEvent::kGone) && client.Send("kept", Word("2"), ever));
    expect("2");
    EXPECT_TRUE(server->Post(KLVMsgPeers::All(), Word("answer")));
    EXPECT_EQ("answer", client.Next("kept"));
    EXPECT_TRUE(client.Disconnect("kept"));
    server->Disconnect(KLVMsgPeers::All());
    const Listener mute(anyPort);
    EXPECT_TRUE(client.Keep(mute.address, "mute", own));
    PlainPeer(mute).Receive(1);  // it greets, and ends in the middle of that
    PlainPeer again(mute);
    again.Receive(1);
    EXPECT_TRUE(client.Disconnect("mute"));
    again.Receive(100000);
}

TEST(Tls, GoesOnBothWaysWithNewKeysAllTheTimeAndInboxesThatStop) {
    const World world;
    KLVMsgTlsOptions own = world.Server(), others = world.Client();
    own.recordsPerKey = others.recordsPerKey = 2;
    KLVMsgSessionOptions options;
    options.inboxLimit = 100000;
    Secure server(own, options);
    Session client(options);
    ASSERT_TRUE(client.Connect(At(server.securePort), "peer", ever, KLVMsgTls(others)));
    server.Came("peer");
    const std::string text(30000, 'x');
    for (int i = 0; i < 400; ++i) {
        EXPECT_TRUE(client.Post("peer", Word(text + std::to_string(i))));
        EXPECT_TRUE(server.Post("peer", Word(text + std::to_string(i))));
    }
    EXPECT_TRUE(Eventually([&] { return server.Counts().messagesInInbox > 2; }));
    for (int i = 0; i < 400; ++i) {
        ASSERT_EQ(text + std::to_string(i), server.Next("peer"));
        ASSERT_EQ(text + std::to_string(i), client.Next("peer"));
    }
    client.Disconnect("peer"), server.Disconnect("peer");
}

// Each allocation of the server's loop fails in turn, while some are turned away, late or let in.
TEST(Tls, ShortMemoryOfTheLoopIsSurvived) {
    const World world;
    KLVMsgTlsOptions own = world.Server();
    own.greetingsAtOnce = 1;
    KLVMsgTlsOptions quick = own;
    quick.greeting = 1ms;
    const Identity foreign(&world.stranger);
    const KLVMsgTls stranger(world.folder.Peer("stranger", {&foreign}, world.authority));
    const KLVMsgTls friendly(world.Client());
    bool reached = true;
    for (int n = 1; reached; ++n) {
        const FailingOnLoop onLoop(1, n);
        Secure server(own);
        Life::SeesLoops(1);
        Session client;
        const PlainPeer other(server.securePort);
        EXPECT_FALSE(client.Connect(At(server.securePort), "", ever, stranger));
        EXPECT_TRUE(client.ConnectAgain(At(server.securePort), "", ever, friendly));
        int port = 0;
        EXPECT_TRUE(server.Serve(anyPort, &port, KLVMsgTls(quick)));
        PlainPeer late(port);
        EXPECT_EQ("", late.Receive(1));
        client.Disconnect("");
        reached = onLoop.Count() >= n;
    }
}

}  // namespace
