// A hub and several clients, each a process of its own, exchange files as typed messages.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "Roles.h"

namespace {

const char* const usage = R"(usage: exchange [--clients N] [--port P] FILE...
       exchange hub [--port P] [--clients N]
       exchange client --port P [--name NAME] FILE...

Clients send files to a hub in typed messages. The hub counts what arrives and reports to each
client, which compares the report with what it has sent. The first form starts the hub and the
clients as processes of their own and prints a table of the results. Files are dealt out to the
clients; clients that would have none are dealt files again from the first one on. The other two
forms are for two terminals: the hub tells its port and ends when N clients have been served, or
by Ctrl-C.

  --clients N   how many clients (2; for a hub 1)
  --port P      the port on 127.0.0.1 (0: the system's choice)
  --name NAME   the client's name, which becomes its label at the hub (client)
  --chunk KIB   how much of a file goes into one message, 1 to 65536 (4096)

Exits with 0 when all agree; with 1 when not, when a file cannot be read, a port cannot be used or
a process dies, which ends the run; with 2 after a wrong command line.
)";

[[noreturn]] void Refuse(const char* message) {
    std::fprintf(stderr, "exchange: %s; see exchange --help\n", message);
    std::exit(2);
}

int NumberBetween(int lowest, int highest) {
    char* end = nullptr;
    const long number = std::strtol(optarg, &end, 10);
    if (end == optarg || *end != '\0' || number < lowest || number > highest) {
        Refuse((std::string(optarg) + " is not a number from " + std::to_string(lowest) + " to " +
                std::to_string(highest))
                   .c_str());
    }
    return static_cast<int>(number);
}

Options Parse(int argc, char** argv, const std::string& role) {
    static const option known[] = {
        {"clients", required_argument, nullptr, 'c'}, {"port", required_argument, nullptr, 'p'},
        {"name", required_argument, nullptr, 'n'},    {"chunk", required_argument, nullptr, 'k'},
        {"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0}};
    Options options;
    options.clients = role == "hub" ? 1 : 2;
    for (int option; (option = getopt_long(argc, argv, "h", known, nullptr)) != -1;) {
        if (option == 'c') {
            options.clients = NumberBetween(1, 500);
        } else if (option == 'p') {
            options.port = NumberBetween(0, 65535);
        } else if (option == 'n') {
            options.name = optarg;
        } else if (option == 'k') {
            options.chunkKiB = NumberBetween(1, 65536);
        } else if (option == 'h') {
            std::fputs(usage, stdout);
            std::exit(0);
        } else {
            std::exit(2);  // getopt_long has said why
        }
    }
    options.files.assign(argv + optind, argv + argc);
    if (options.files.empty() != (role == "hub")) {
        Refuse(role == "hub" ? "a hub takes no files" : "no files are named");
    }
    if (role == "client" && options.port == 0) {
        Refuse("a client needs --port");
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    std::string role = argc > 1 ? argv[1] : "";
    if (role == "hub" || role == "client") {
        *++argv = const_cast<char*>("exchange");
        --argc;
    } else {
        role = "exchange";
    }
    const Options options = Parse(argc, argv, role);
    try {
        return role == "hub"      ? RunHub(options)
               : role == "client" ? RunClient(options)
                                  : RunLauncher(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "exchange%s: %s\n",
                     role == "client" ? (" " + options.name).c_str() : "", error.what());
        return 1;
    }
}
