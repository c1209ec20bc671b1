// What klvmsgcat is asked to do, and how it ends.
#pragma once

#include <map>
#include <string>
#include <vector>

// Exit codes; the manual page lists them.
enum ExitCode {
    kDone = 0,
    kNoConnection = 1,  // refused, unreachable, unknown host, port in use
    kUsage = 2,
    kFile = 3,      // a body cannot be read or does not fit; standard output cannot be written
    kPeerGone = 4,  // before everything was sent, or before the awaited messages had come
    kOutOfStep = 5,
    kTimeout = 6,
};

// Thrown where the program cannot go on; main prints the text and returns the code.
struct Failure {
    ExitCode code;
    std::string text;
};

// The largest body sent or received, in bytes.
constexpr int kLargestBody = 1 << 30;

// The size of the bodies of a type that has none of its own: a length stands before each.
constexpr int kNotFixed = -1;

struct Options {
    struct Sending {
        std::string type;
        std::string file;  // "-" is standard input
    };
    enum class Form { kText, kHex, kRaw };

    bool listen = false;
    std::string host;
    int port = 0;
    std::vector<Sending> sendings;       // in order
    std::string linesType;               // each line of standard input; empty: none
    std::vector<std::string> receiving;  // the types that may come
    std::map<std::string, int> fixedSizes;
    int count = -1;  // messages to receive; -1: as long as the peer is there
    int timeoutSeconds = 0;
    Form form = Form::kText;

    int FixedSize(const std::string& type) const {
        const auto found = fixedSizes.find(type);
        return found == fixedSizes.end() ? kNotFixed : found->second;
    }
};

// The options of a command line. Prints the help and exits with 0 when that is asked for; throws a
// Failure for one that makes no sense.
Options ParseOptions(int argc, char** argv);
