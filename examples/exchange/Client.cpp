#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "Program.h"
#include "Roles.h"
#include "Session.h"

namespace {

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
        : m_name(options.name), m_chunkBytes(static_cast<std::size_t>(options.chunkKiB) << 10) {
        m_hub = Connect(KLVMsgSocketAddress(options.host.c_str(), options.port), "hub");
        m_session.Start();
        Hello hello;
        hello.name = options.name;
        hello.files = options.files.size();
        TimeLimit::Restart("exchange: gave up: no answer from the hub\n");
        Communicator().SendSocketMessage("hub", &hello);  // waits until it is written
    }

    // Sends one file and compares the report with what was sent. One chunk at a time is on its way:
    // the next is read and counted while it travels, and every header finds an empty connection, so
    // that it arrives in one piece.
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
            m_session.Post("hub", std::move(chunk));
        }
        const bool agreed = Await<Report>()->found == own;
        std::printf(
            "%-10s %11llu %10llu %10llu %08llx  %-9s  %s\n", Printable(m_name).c_str(),
            static_cast<unsigned long long>(own.bytes), static_cast<unsigned long long>(own.lines),
            static_cast<unsigned long long>(own.words), static_cast<unsigned long long>(own.crc),
            agreed ? "agreed" : "DIFFERENT", Printable(path).c_str());
        return agreed;
    }

    // Leaving resets the connection; the farewell says that there is nothing left on it.
    void Leave() {
        TimeLimit::End();  // the others may take their time
        Await<Farewell>();
    }

private:
    // The communicator's own blocking retrieve has no time limit, and the hub may be gone.
    template <class Message>
    std::unique_ptr<Message> Await() {
        for (;; KLVBasUtlsleep(20)) {
            const bool connected = m_hub.IsActiveInCurrentThreads();  // before the last look
            m_session.DropWritten();
            auto received = m_session.Take<Message>();
            if (!received.empty() && received[0].second->complete) {
                TimeLimit::Restart("exchange: gave up: no answer from the hub\n");
                return std::move(received[0].second);
            }
            const auto farewells = m_session.Take<Farewell>();
            if (!farewells.empty()) {
                throw std::runtime_error("sent away: " + farewells[0].second->reason);
            }
            int error = 0;
            KLVString text("the connection was closed");
            Communicator().GetErrorsOnChannel(m_hub, error, text);
            if (!connected || error != 0) {
                throw std::runtime_error(std::string("lost the hub: ") + text.Text());
            }
        }
    }

    Session m_session;
    KLVMsgChannel m_hub;
    const std::string m_name;
    const std::size_t m_chunkBytes;
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
    TimeLimit::Restart("exchange: gave up: the hub does not accept\n");
    Client client(options);
    bool agreed = true;
    for (const std::string& path : options.files) {
        agreed = client.Send(path) && agreed;
    }
    client.Leave();
    return agreed ? 0 : 1;
}
