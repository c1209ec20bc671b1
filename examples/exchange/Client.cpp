#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "Messages.h"
#include "Outcome.h"
#include "Roles.h"

namespace {

const char* const noAnswer = "no answer from the hub";

// Reads up to `size` bytes, fewer at the end of the file.
std::string Read(std::ifstream& file, std::size_t size, const std::string& path) {
    std::string data(size, '\0');
    if (file.is_open()) {
        file.read(data.data(), static_cast<std::streamsize>(size));
    }
    if (!file.is_open() || file.bad()) {
        throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    }
    data.resize(static_cast<std::size_t>(file.gcount()));
    return data;
}

class Client {
public:
    explicit Client(const Options& options)
        : m_link(NewLink(options.by, "exchange " + options.name, noAnswer)),
          m_name(options.name),
          m_chunkBytes(static_cast<std::size_t>(options.chunkKiB) << 10) {
        m_link->Connect({options.host.c_str(), options.port}, "hub");
        m_link->Start();
        auto hello = std::make_unique<Hello>();
        hello->name = options.name;
        hello->files = options.files.size();
        RequireHub(m_link->Send("hub", std::move(hello)));
    }

    // Sends one file and compares the report with what was sent. One chunk at a time is on its way,
    // and the next is read and counted meanwhile.
    bool Send(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        TextStatistics own;
        for (bool last = false; !last;) {
            auto chunk = std::make_unique<Chunk>();
            chunk->data = Read(file, m_chunkBytes, path);
            last = chunk->data.size() < m_chunkBytes;
            chunk->last = last ? 1 : 0;
            if (own.bytes != 0 && Await<Receipt>()->bytes != own.bytes) {
                throw std::runtime_error("the hub has not counted what was sent");
            }
            own.Add(chunk->data);
            m_link->Post("hub", std::move(chunk));  // the next wait finds out when it has gone
        }
        const bool agreed = Await<Report>()->found == own;
        std::printf(
            "%-10s %11llu %10llu %10llu %08llx  %-9s  %s\n", Printable(m_name).c_str(),
            static_cast<unsigned long long>(own.bytes), static_cast<unsigned long long>(own.lines),
            static_cast<unsigned long long>(own.words), static_cast<unsigned long long>(own.crc),
            agreed ? "agreed" : "DIFFERENT", Printable(path).c_str());
        return agreed;
    }

    // The others may take their time.
    void Leave() {
        if (!m_farewell) {
            RequireHub(m_link->Receive<Farewell>(std::chrono::hours::max()));
        }
    }

private:
    // A farewell comes in place of any other answer, or behind the last one, which is there then.
    template <class Message>
    KLVMsgReceived<Message> Await() {
        const auto deadline = Limit().Deadline();
        for (;;) {
            auto received =
                m_link->Receive<Message>(std::chrono::milliseconds(m_farewell ? 0 : 100));
            if (received && received->complete) {
                return received;
            }
            if (m_farewell) {
                throw std::runtime_error("sent away: " + m_farewell->reason);
            }
            m_farewell = m_link->Receive<Farewell>(std::chrono::seconds(0)).message;
            if (!m_farewell && (received.status == KLVMsgOutcome::kPeerGone ||
                                KLVMsgTimeLimit::Clock::now() >= deadline)) {
                RequireHub(received);
            }
        }
    }

    void RequireHub(const KLVMsgOutcome& outcome) {
        Check(outcome, std::string("gave up: ") + noAnswer,
              "lost the hub" + m_link->CauseOf("hub"));
    }

    const std::unique_ptr<Link> m_link;
    const std::string m_name;
    const std::size_t m_chunkBytes;
    std::unique_ptr<Farewell> m_farewell;  // once it has come
};

}  // namespace

void RequireReadable(const std::vector<std::string>& files) {
    for (const std::string& path : files) {
        std::ifstream file(path, std::ios::binary);
        Read(file, 1, path);  // opening a directory succeeds, reading it does not
    }
}

int RunClient(const Options& options) {
    RequireReadable(options.files);
    // Clients that share a file mix whole lines only.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    Client client(options);
    bool agreed = true;
    for (const std::string& path : options.files) {
        agreed = client.Send(path) && agreed;
    }
    client.Leave();
    return agreed ? 0 : 1;
}
