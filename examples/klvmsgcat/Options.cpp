#include "Options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "Program.h"

static const char help[] =
    R"(usage: klvmsgcat (--connect HOST:PORT | --listen [HOST:]PORT) [OPTION]...

Sends typed messages to a program and prints those that it sends.

  -c, --connect HOST:PORT    connect to a program that listens
  -l, --listen [HOST:]PORT   wait for one that connects, on 127.0.0.1 unless told otherwise;
                             port 0 lets the system choose, and the port is printed
  -s, --send TYPE=FILE       send FILE as the body of one message; "-" is standard input.
                             Repeated, in order
      --lines TYPE           then send each line of standard input as a message
  -r, --receive TYPE         a type that may come; repeated
  -f, --fixed TYPE=SIZE      bodies of TYPE have SIZE bytes. All others begin with their length,
                             4 bytes in the byte order of this machine
  -n, --count N              end when N messages have come
  -x, --hex                  print bodies in hexadecimal
      --raw                  print bodies as they are, and nothing else
  -t, --timeout SECONDS      give up when nothing has come or gone for so long
  -h, --help                 print this
      --version              print the version

exit codes: 0 done, 1 no connection, 2 usage, 3 a file or body, 4 the peer has gone too early,
            5 out of step, 6 timeout
)";

static int ParseNumber(const std::string& text, int largest, const std::string& what) {
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || number < 0 || number > largest) {
        throw Failure{kUsage, what + " is not a number from 0 to " + std::to_string(largest) +
                                  ": '" + text + "'"};
    }
    return static_cast<int>(number);
}

static std::string ParseType(const std::string& text) {
    if (text.empty()) {
        throw Failure{kUsage, "a type name is empty"};
    }
    return text;
}

// The parts of TYPE=VALUE.
static std::pair<std::string, std::string> ParseAssignment(const std::string& text) {
    const std::size_t sign = text.find('=');
    if (sign == std::string::npos) {
        throw Failure{kUsage, "not of the form TYPE=VALUE: '" + text + "'"};
    }
    return {ParseType(text.substr(0, sign)), text.substr(sign + 1)};
}

// HOST:PORT, [IPv6]:PORT, or PORT alone where that is allowed.
static void ParseAddress(const std::string& text, bool listen, Options& options) {
    if (options.port != 0 || options.listen) {
        throw Failure{kUsage, "more than one --connect or --listen"};
    }
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos && !listen) {
        throw Failure{kUsage, "not of the form HOST:PORT: '" + text + "'"};
    }
    options.listen = listen;
    options.host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    if (options.host.size() > 2 && options.host.front() == '[' && options.host.back() == ']') {
        options.host = options.host.substr(1, options.host.size() - 2);
    }
    options.port =
        ParseNumber(colon == std::string::npos ? text : text.substr(colon + 1), 65535, "the port");
    if (options.port == 0 && !listen) {
        throw Failure{kUsage, "cannot connect to port 0"};
    }
}

static void ParseOption(int option, const std::string& value, Options& options) {
    switch (option) {
        case 'c':
        case 'l':
            return ParseAddress(value, option == 'l', options);
        case 's': {
            const auto [type, file] = ParseAssignment(value);
            return options.sendings.push_back({type, file});
        }
        case 'L':
            options.linesType = ParseType(value);
            return;
        case 'r':
            return options.receiving.push_back(ParseType(value));
        case 'f': {
            const auto [type, size] = ParseAssignment(value);
            options.fixedSizes[type] = ParseNumber(size, kLargestBody, "the size");
            return;
        }
        case 'n':
            options.count = ParseNumber(value, 1 << 30, "the count");
            return;
        case 't':
            options.timeoutSeconds = ParseNumber(value, 1 << 30, "the timeout");
            return;
        case 'x':
            options.form = Options::Form::kHex;
            return;
        case 'R':
            options.form = Options::Form::kRaw;
            return;
        default:
            throw Failure{kUsage, "see klvmsgcat --help"};
    }
}

Options ParseOptions(int argc, char** argv) {
    static const option known[] = {{"connect", required_argument, nullptr, 'c'},
                                   {"listen", required_argument, nullptr, 'l'},
                                   {"send", required_argument, nullptr, 's'},
                                   {"lines", required_argument, nullptr, 'L'},
                                   {"receive", required_argument, nullptr, 'r'},
                                   {"fixed", required_argument, nullptr, 'f'},
                                   {"count", required_argument, nullptr, 'n'},
                                   {"hex", no_argument, nullptr, 'x'},
                                   {"raw", no_argument, nullptr, 'R'},
                                   {"timeout", required_argument, nullptr, 't'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'v'},
                                   {nullptr, 0, nullptr, 0}};
    Options options;
    for (int found; (found = getopt_long(argc, argv, "c:l:s:r:f:n:xt:h", known, nullptr)) != -1;) {
        if (found == 'h') {
            std::fputs(help, stdout);
            std::exit(kDone);
        }
        if (found == 'v') {
            PrintVersion("klvmsgcat");
            std::exit(kDone);
        }
        ParseOption(found, optarg == nullptr ? "" : optarg, options);
    }
    if (optind != argc) {
        throw Failure{kUsage, std::string("what is '") + argv[optind] + "'? See klvmsgcat --help"};
    }
    if (options.port == 0 && !options.listen) {
        throw Failure{kUsage, "neither --connect nor --listen; see klvmsgcat --help"};
    }
    if (options.sendings.empty() && options.linesType.empty() && options.receiving.empty()) {
        throw Failure{kUsage, "nothing to do: give --send, --lines or --receive"};
    }
    if (options.count >= 0 && options.receiving.empty()) {
        throw Failure{kUsage, "--count without a type to --receive"};
    }
    return options;
}
