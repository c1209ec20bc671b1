// A peer for the command line: sends messages whose bodies are files or lines, and prints what
// comes. One thread drives everything by hand. It takes messages apart itself (header, prototype,
// body), where a communicator's cycle would pass over a type that nobody has registered.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "BodyMessage.h"
#include "Library.h"
#include "Options.h"
#include "Program.h"

namespace {

void RestartTimeLimit() {
    TimeLimit::Restart("klvmsgcat: nothing has come or gone within the time limit\n", kTimeout);
}

// Opening -----------------------------------------------------------------------------------------

// The first peer that connects; the next ones are refused.
KLVMsgChannel AwaitPeer(const KLVMsgSocketAddress& address) {
    KLVMsgChannel entrance = Serve(address, 1, "entrance");
    std::fprintf(stderr, "klvmsgcat: listening on %s:%d\n", address.host.Text(),
                 entrance.GetSocket()->address.port);
    KLVMsgChannelWaitable waitable;
    waitable.channels.PushBack(entrance);
    while (waitable.newChannels.Size() == 0) {
        waitable.WaitForConnectionAndMessages(500);
    }
    entrance.Shutdown();
    return waitable.newChannels[0];
}

KLVMsgChannel Open(const Options& options) {
    const KLVMsgSocketAddress address(options.host.c_str(), options.port);
    try {
        return options.listen ? AwaitPeer(address) : Connect(address, "peer");
    } catch (const std::runtime_error& error) {
        throw Failure{kNoConnection, error.what()};
    }
}

// Bodies ------------------------------------------------------------------------------------------

std::string ReadFile(const std::string& name) {
    std::FILE* const file = name == "-" ? stdin : std::fopen(name.c_str(), "rb");
    std::string bytes;
    char piece[65536];
    std::size_t count = 0;
    while (file != nullptr && bytes.size() <= static_cast<std::size_t>(kLargestBody) &&
           (count = std::fread(piece, 1, sizeof piece, file)) > 0) {
        bytes.append(piece, count);
    }
    if (file == nullptr || std::ferror(file) != 0) {
        throw Failure{kFile, "cannot read " + name + ": " + std::strerror(errno)};
    }
    std::fclose(file);
    return bytes;
}

BodyMessage MakeMessage(const Options& options, const std::string& type, const std::string& body,
                        const std::string& origin) {
    const int size = options.FixedSize(type);
    const bool fits = size == kNotFixed ? body.size() <= static_cast<std::size_t>(kLargestBody)
                                        : body.size() == static_cast<std::size_t>(size);
    if (!fits) {
        const bool huge = body.size() > static_cast<std::size_t>(kLargestBody);
        throw Failure{kFile,
                      origin + " has " +
                          (huge ? "more than 1 GiB" : std::to_string(body.size()) + " bytes") +
                          ", which is no body of " + type};
    }
    return BodyMessage(type, size, body);
}

// Standard input line by line, without waiting for it.
class LineReader {
public:
    explicit LineReader(bool wanted) : m_ended(!wanted) {}

    // The next line if there is one by now.
    bool Next(std::string& line) {
        if (m_bytes.find('\n') == std::string::npos) {
            Fill();
        }
        const std::size_t end = m_bytes.find('\n');
        if (end == std::string::npos && (!m_ended || m_bytes.empty())) {
            return false;
        }
        line = m_bytes.substr(0, end);
        m_bytes.erase(0, end == std::string::npos ? end : end + 1);
        return true;
    }

    bool IsDone() const { return m_ended && m_bytes.empty(); }

private:
    void Fill() {
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        if (m_ended || poll(&input, 1, 0) <= 0) {
            return;
        }
        char piece[65536];
        const ssize_t count = read(STDIN_FILENO, piece, sizeof piece);
        m_ended = count <= 0;
        m_bytes.append(piece, count > 0 ? static_cast<std::size_t>(count) : 0);
    }

    bool m_ended;
    std::string m_bytes;
};

std::string Escaped(const std::string& bytes, bool hex) {
    std::string text;
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        if (!hex && byte >= ' ' && byte < 0x7f && character != '\\') {
            text += character;
        } else {
            AppendCode(hex ? "" : "\\x", byte, text);
        }
    }
    return text;
}

void Print(const std::string& type, const std::string& body, Options::Form form) {
    const std::string line = form == Options::Form::kRaw
                                 ? body
                                 : Escaped(type, false) + " " + std::to_string(body.size()) + " " +
                                       Escaped(body, form == Options::Form::kHex) + "\n";
    if (std::fwrite(line.data(), 1, line.size(), stdout) != line.size() ||
        std::fflush(stdout) != 0) {
        throw Failure{kFile, "cannot write standard output"};
    }
}

// The conversation --------------------------------------------------------------------------------

class Conversation {
public:
    Conversation(const KLVMsgChannel& peer, const Options& options,
                 std::vector<BodyMessage>& messages)
        : m_peer(peer), m_options(options), m_messages(messages), m_lines(options.linesType != "") {
        m_waitable.channels.PushBack(peer);
    }
    ~Conversation() { Registry().ShutDownConnection(m_peer.connection); }
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;

    void Run() {
        while (!IsOver()) {
            const bool sent = SendNext();
            Receive(sent ? 0 : 20);
        }
        if (!AllSent() || m_received < m_options.count) {
            throw Failure{kPeerGone, AllSent() ? "the peer has gone before all messages had come"
                                               : "the peer has gone before everything was sent"};
        }
        if (m_peerIsThere && m_sent > 0) {
            AwaitEnd();
        }
    }

private:
    bool AllSent() const { return m_next == m_messages.size() && m_lines.IsDone(); }

    bool IsOver() const {
        const bool allReceived =
            m_options.count >= 0 ? m_received >= m_options.count : m_options.receiving.empty();
        return !m_peerIsThere || (AllSent() && allReceived);
    }

    bool SendNext() {
        std::string line;
        if (m_next < m_messages.size()) {
            Send(m_messages[m_next++]);
        } else if (m_lines.Next(line)) {
            BodyMessage message = MakeMessage(m_options, m_options.linesType, line, "a line");
            Send(message);
        } else {
            return false;
        }
        return true;
    }

    void Send(BodyMessage& message) {
        unsigned int id = 0;
        Communicator().ISendSocketMessage(m_peer, &message, id);
        Communicator().TransmitPendingMessage();
        if (!message.whole) {
            throw Failure{kPeerGone, "the peer has gone before everything was sent"};
        }
        ++m_sent;
        RestartTimeLimit();
    }

    void Receive(int milliseconds) {
        m_waitable.readyChannels.Clear();
        m_waitable.WaitForConnectionAndMessages(milliseconds);
        if (m_waitable.readyChannels.Size() != 0) {
            ReceiveMessage();
            RestartTimeLimit();
        }
    }

    void ReceiveMessage() {
        KLVString type;
        if (Registry().RetrieveMessageTypeFromSocket(m_peer.connection, type) == 0) {
            m_peerIsThere = Registry().IsConnectionOpen(m_peer.connection);
            if (m_peerIsThere) {
                throw Failure{kOutOfStep, "what has come is not a message header"};
            }
            return;
        }
        const std::string name(type.Text());
        const std::unique_ptr<BodyMessage> message(
            static_cast<BodyMessage*>(Registry().GetMsgInstance(type)));
        if (message == nullptr) {
            throw Failure{kOutOfStep,
                          "a message of type '" + name + "' has come, which no --receive names"};
        }
        m_input.m_connectionNumber = m_peer.connection;
        message->ReadMessage(&m_input);
        if (!message->possible) {
            throw Failure{kOutOfStep, "a body of " + name + " has a length that cannot be one"};
        }
        if (!message->whole) {
            throw Failure{kPeerGone, "the peer has gone in the middle of a body of " + name};
        }
        ++m_received;
        Print(name, message->body, m_options.form);
    }

    // Closing at once would throw away what the peer has not read yet: it is told that nothing
    // follows, and goes first.
    void AwaitEnd() {
        auto* const socket = static_cast<KLVMsgCommSocket*>(m_peer.GetSocket());
        socket->ShutDownOutput();
        char rest[4096];
        int count = 0;
        while ((count = socket->read(rest, sizeof rest)) > 0) {
        }
        if (count < 0) {
            throw Failure{kPeerGone, "the connection was reset: not everything may have been read"};
        }
    }

    KLVMsgChannel m_peer;
    const Options& m_options;
    std::vector<BodyMessage>& m_messages;
    LineReader m_lines;
    KLVMsgChannelWaitable m_waitable;
    KLVMsgSimpleInputStream m_input;
    std::size_t m_next = 0;  // the first of m_messages that has not been sent
    int m_sent = 0;
    int m_received = 0;
    bool m_peerIsThere = true;
};

void Run(const Options& options) {
    std::vector<BodyMessage> messages;
    for (const Options::Sending& sending : options.sendings) {
        messages.push_back(
            MakeMessage(options, sending.type, ReadFile(sending.file), sending.file));
    }
    std::vector<std::unique_ptr<BodyMessage>> prototypes;  // outlive the library's use of them
    const Library library;
    for (const std::string& type : options.receiving) {
        prototypes.push_back(std::make_unique<BodyMessage>(type, options.FixedSize(type)));
        Communicator().RegisterMessagePrototype(type.c_str(), prototypes.back().get());
    }
    std::signal(SIGPIPE, SIG_IGN);  // a send to a peer that has gone fails instead
    TimeLimit::seconds = options.timeoutSeconds;
    RestartTimeLimit();
    const KLVMsgChannel peer = Open(options);
    RestartTimeLimit();
    Conversation(peer, options, messages).Run();
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");
    try {
        Run(ParseOptions(argc, argv));
        return kDone;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "klvmsgcat: %s\n", Printable(failure.text).c_str());
        return failure.code;
    } catch (const std::bad_alloc&) {
        std::fputs("klvmsgcat: there is not enough memory for a body\n", stderr);
        return kFile;
    }
}
