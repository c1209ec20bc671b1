// A hub and several clients, each a process of its own, exchange files as typed messages.
#include <getopt.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>

#include "Messages.h"
#include "Program.h"
#include "Roles.h"

namespace {

const char* const usage = R"(usage: exchange [--clients N] [--host H] [--port P] FILE...
       exchange hub [--host H] [--port P] [--clients N]
       exchange client [--host H] --port P [--name NAME] FILE...

Clients send files to a hub in typed messages. The hub counts what arrives and reports to each
client, which compares the report with what it has sent. The first form starts the hub and the
clients as processes of their own and prints a table of the results. Files are dealt out to the
clients; clients that would have none are dealt files again from the first one on. The other two
forms are for two terminals or two machines: the hub tells its port and ends when N clients have
been served, or by Ctrl-C. Both machines have the same byte order.

  --clients N   how many clients (2; for a hub 1)
  --host H      where the hub listens, and a client finds it: a name or an address (127.0.0.1);
                a hub on 0.0.0.0 or :: is reached from everywhere, and knows no password
  --port P      the port there (0: the system's choice)
  --name NAME   the client's name, which becomes its label at the hub (client)
  --chunk KIB   how much of a file goes into one message, 1 to 4000 (2048)
  --by WAY      how the library is used: by its own interface with the message task (task), or by
                a session (session); either way talks to either (task)
  --timeout S   give up when a message is under way, or one awaited from somebody who has more to
                say, for so many seconds (60; 0: never)
  --total B     how many bytes will come in all, for the share in the hub's progress (hub)
  --help, --version

Exits with 0 when all agree; with 1 when not, when a file cannot be read, a port cannot be used or
a process dies, which ends the run; with 2 after a wrong command line.
)";

[[noreturn]] void Refuse(const std::string& reason) {
    std::fprintf(stderr, "exchange: %s; see exchange --help\n", Printable(reason).c_str());
    std::exit(2);
}

long long NumberBetween(long long lowest, long long highest) {
    char* end = nullptr;
    errno = 0;
    const long long number = std::strtoll(optarg, &end, 10);
    if (end == optarg || *end != '\0' || errno != 0 || number < lowest || number > highest) {
        Refuse(std::string(optarg) + " is not a number from " + std::to_string(lowest) + " to " +
               std::to_string(highest));
    }
    return number;
}

By WayOf(const std::string& word) {
    if (word != "task" && word != "session") {
        Refuse(word + " is no way");
    }
    return word == "task" ? By::kTask : By::kSession;
}

const option known[] = {{"clients", required_argument, nullptr, 'c'},
                        {"host", required_argument, nullptr, 'o'},
                        {"port", required_argument, nullptr, 'p'},
                        {"name", required_argument, nullptr, 'n'},
                        {"chunk", required_argument, nullptr, 'k'},
                        {"timeout", required_argument, nullptr, 't'},
                        {"by", required_argument, nullptr, 'w'},
                        {"total", required_argument, nullptr, 'b'},
                        {"help", no_argument, nullptr, 'h'},
                        {"version", no_argument, nullptr, 'v'},
                        {nullptr, 0, nullptr, 0}};

// What the options of a role must have.
void Require(const Options& options, const std::string& role) {
    if (options.files.empty() != (role == "hub")) {
        Refuse(role == "hub" ? "a hub takes no files" : "no files are named");
    }
    if (options.name.empty() || options.name.size() > maximalNameBytes) {
        Refuse("a name has 1 to " + std::to_string(maximalNameBytes) + " bytes");
    }
    if (role == "client" && options.port == 0) {
        Refuse("a client needs --port");
    }
}

void Apply(int option, Options& options) {
    switch (option) {
        case 'c':
            options.clients = static_cast<int>(NumberBetween(1, 500));
            break;
        case 'o':
            options.host = optarg;
            break;
        case 'p':
            options.port = static_cast<int>(NumberBetween(0, 65535));
            break;
        case 'n':
            options.name = optarg;
            break;
        case 'k':
            options.chunkKiB = static_cast<int>(NumberBetween(1, 4000));
            break;
        case 't':
            TimeLimit::seconds = static_cast<int>(NumberBetween(0, 1000000));
            break;
        case 'w':
            options.by = WayOf(optarg);
            break;
        case 'b':
            options.totalBytes = static_cast<std::uint64_t>(NumberBetween(0, LLONG_MAX));
            break;
        case 'h':
            std::fputs(usage, stdout);
            std::exit(0);
        case 'v':
            PrintVersion("exchange");
            std::exit(0);
        default:
            std::exit(2);  // getopt_long has said why
    }
}

Options Parse(int argc, char** argv, const std::string& role) {
    Options options;
    options.clients = role == "hub" ? 1 : 2;
    for (int option; (option = getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
        Apply(option, options);
    }
    options.files.assign(argv + optind, argv + argc);
    Require(options, role);
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");  // for the names of files and clients
    TimeLimit::seconds = 60;
    std::string role = argc > 1 ? argv[1] : "";
    if (role == "hub" || role == "client") {
        *++argv = const_cast<char*>("exchange");
        --argc;
    } else {
        role = "exchange";
    }
    const Options options = Parse(argc, argv, role);
    const std::string name = role == "client" ? "exchange " + options.name : "exchange";
    return RunRole(name, [&] {
        return role == "hub"      ? RunHub(options)
               : role == "client" ? RunClient(options)
                                  : RunLauncher(options);
    });
}
