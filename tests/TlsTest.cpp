#include <KLVMsgTls.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <random>

#include "Certificates.h"
#include "KLVMsgTlsTransport.h"
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

TEST(Tls, SaysWhichFileIsOfNoUse) {
    const World world;
    Session session;
    const auto why = [&](const KLVMsgTlsOptions& own) {
        const std::string text = session.Connect(At(1), "", KLVMsgTls(own)).text;
        return text == session.Serve(anyPort, KLVMsgTls(own)).text ? text : "";
    };
    KLVMsgTlsOptions own = world.Server();
    own.key = world.folder.Put("other.key", {}, &world.client);
    EXPECT_TRUE(Has(why(own), "key values mismatch")) << why(own);
    std::FILE* const file = std::fopen(own.key.c_str(), "w");
    PEM_write_PrivateKey(file, world.server.key.get(), EVP_aes_128_cbc(), nullptr, 0, nullptr,
                         const_cast<char*>("secret"));
    std::fclose(file);
    EXPECT_TRUE(Has(why(own), "it has a password")) << why(own);
    own = world.Server();
    own.authority = own.key;
    EXPECT_TRUE(Has(why(own), "the authority")) << why(own);
    own.certificate = "/no such file";
    EXPECT_TRUE(Has(why(own), "No such file or directory")) << why(own);
}

// A client that knows TLS and nothing else of ours.
class Bare {
public:
    Bare(int port, const World& world, bool shows = true, int newest = TLS1_3_VERSION)
        : m_context(SSL_CTX_new(TLS_client_method())), m_socket(socket(AF_INET, SOCK_STREAM, 0)) {
        std::signal(SIGPIPE, SIG_IGN);
        SSL_CTX_set_max_proto_version(m_context, newest);
        SSL_CTX_set_msg_callback(m_context, [](int write, int, int kind, const void* bytes,
                                               std::size_t, SSL*, void* self) {
            const int type = kind == SSL3_RT_HANDSHAKE ? *static_cast<const char*>(bytes) : -1;
            static_cast<Bare*>(self)->updates += write == 0 && type == SSL3_MT_KEY_UPDATE ? 1 : 0;
            static_cast<Bare*>(self)->tickets += type == SSL3_MT_NEWSESSION_TICKET ? 1 : 0;
        });
        SSL_CTX_set_msg_callback_arg(m_context, this);
        if (shows) {
            SSL_CTX_use_certificate(m_context, world.client.certificate.get());
            SSL_CTX_use_PrivateKey(m_context, world.client.key.get());
        }
        ssl = SSL_new(m_context);
        const timeval moment = {0, 20000};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &moment, sizeof moment);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<in_port_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address);
        SSL_set_fd(ssl, m_socket);
        while (SSL_connect(ssl) == -1 && SSL_get_error(ssl, -1) == SSL_ERROR_WANT_READ) {
        }
    }
    ~Bare() { SSL_free(ssl), SSL_CTX_free(m_context), close(m_socket); }
    void Send(const std::string& bytes) {
        SSL_write(ssl, bytes.data(), static_cast<int>(bytes.size()));
    }
    // What comes until that is enough, or the end has.
    std::string Receive(const std::function<bool(const std::string&)>& isEnough) {
        std::string all;
        for (char bytes[4096]; !isEnough(all);) {
            const int count = SSL_read(ssl, bytes, sizeof bytes);
            all.append(bytes, static_cast<std::size_t>(std::max(count, 0)));
            if (count <= 0 && SSL_get_error(ssl, count) != SSL_ERROR_WANT_READ) {
                break;
            }
        }
        return all;
    }
    std::string Receive(std::size_t size) {
        return Receive([&](const std::string& all) { return all.size() >= size; });
    }

    SSL* ssl;
    int updates = 0, tickets = 0;

private:
    SSL_CTX* m_context;
    int m_socket;
};

TEST(Tls, TurnsAwayWhoShowsNoCertificateOrSpeaksSomethingElse) {
    const World world;
    Secure server(world.Server());
    Session client;
    const auto refused = [&] { return server.Await(KLVMsgEvent::kRefused).what; };
    { const Bare nobody(server.securePort, world, false); }
    EXPECT_TRUE(Has(refused(), "it has no certificate"));
    { const Bare old(server.securePort, world, true, TLS1_2_VERSION); }
    EXPECT_TRUE(Has(refused(), "unsupported protocol"));
    EXPECT_TRUE(client.Connect(At(server.securePort), "server", ever));
    EXPECT_TRUE(client.Post("server", Word("in the clear")));
    EXPECT_TRUE(Has(refused(), "it does not speak TLS"));
    client.Await(KLVMsgEvent::kGone);
    const KLVMsgOutcome outcome =
        client.Connect(At(server.port), "server", ever, KLVMsgTls(world.Client()));
    EXPECT_TRUE(Has(outcome.text, "closed") || Has(outcome.text, "reset")) << outcome.text;
    EXPECT_EQ(0U, server.Counts().messagesReceived);
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

TEST(Tls, TellsAnEndFromACutAndStillAnswers) {
    const World world;
    Secure server(world.Server());
    std::string answer = WordBytes("answer");
    {
        Bare peer(server.securePort, world);
        EXPECT_EQ(std::string(1, 1), peer.Receive(1)) << "the admission";
        peer.Send(WordBytes("question"));
        SSL_shutdown(peer.ssl);
        EXPECT_EQ("question", server.Next());
        const KLVMsgEvent gone = server.Await(KLVMsgEvent::kGone);
        EXPECT_EQ(KLVMsgEvent::kClosed, gone.cause);
        EXPECT_TRUE(server.Send(gone.peer, Word("answer"), ever));
        EXPECT_EQ(KLVMsgOutcome::kTooLate, server.Receive<Word>(0ms).status);  // no more answers
        EXPECT_EQ(answer, peer.Receive(answer.size() + 1));
        EXPECT_NE(0, SSL_get_shutdown(peer.ssl) & SSL_RECEIVED_SHUTDOWN) << "the farewell";
        EXPECT_EQ(0, peer.tickets);
    }
    {
        Bare peer(server.securePort, world);
        peer.Send(WordBytes("the last one"));
    }
    EXPECT_EQ("the last one", server.Next());
    EXPECT_EQ(KLVMsgEvent::kCut, server.Await(KLVMsgEvent::kGone).cause);
}

TEST(Tls, TakesNewFilesAndKeepsTheOldOnesWhereTheyAreOfNoUse) {
    const World world;
    const Identity renewed(&world.authority, "DNS:renewed,IP:127.0.0.1");
    Secure server(world.Server());
    Session client;
    const KLVMsgTls tls(world.Client());
    const auto shown = [&] {
        EXPECT_TRUE(client.Connect(At(server.securePort), "", ever, tls));
        return client.Await(KLVMsgEvent::kCame).what;
    };
    EXPECT_TRUE(Has(shown(), "localhost"));
    world.folder.Put("server.pem", {&renewed});
    EXPECT_TRUE(Has(shown(), "localhost")) << "its key is not there yet";
    EXPECT_TRUE(Has(server.Await(KLVMsgEvent::kNotRenewed).what, "mismatch"));
    EXPECT_TRUE(Has(shown(), "localhost"));
    world.folder.Put("server.key", {}, &renewed);
    EXPECT_TRUE(Has(shown(), "renewed"));
    while (server.Counts().connections != 4) {
    }
    for (KLVMsgEvent event; (event = server.NextEvent(0ms));) {
        EXPECT_EQ(KLVMsgEvent::kCame, event.kind) << "told once: " << event.what;
    }
}

TEST(Tls, RenewsItsKeysAndAnswersThoseWhoRenewTheirs) {
    const World world;
    KLVMsgTlsOptions own = world.Server();
    own.recordsPerKey = 3;
    Secure server(own);
    Bare peer(server.securePort, world);
    const auto sees = [&](int n) {
        peer.Receive([&](const std::string&) { return peer.updates >= n; });
        return peer.updates;
    };
    EXPECT_EQ(std::string(1, 1), peer.Receive(1));
    for (int i = 0; i < 5; ++i) {
        SSL_key_update(peer.ssl, SSL_KEY_UPDATE_REQUESTED);
        peer.Send(WordBytes("one record"));
        EXPECT_EQ(i + 1, sees(i + 1)) << "it never writes";
    }
    for (int i = 0; i < 3; ++i) {
        peer.Send(WordBytes("one record"));
    }
    EXPECT_EQ(6, sees(6)) << "of so many records that came under one key";
    EXPECT_TRUE(server.Holds(8));
    EXPECT_TRUE(
        server.Send(KLVMsgPeers::All(), Word(std::string(std::size_t{1} << 20, 'x')), ever));
    EXPECT_LE(20, sees(20)) << "64 full records";
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

}  // namespace
