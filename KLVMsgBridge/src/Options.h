// For the bridge's own sources: what the bridge is asked to do.
#pragma once

#include <KLVMsgSocketAddress.h>

#include <chrono>
#include <string>
#include <vector>

#include "BodyRules.h"
#include "Routes.h"

struct Options {
    // A connection to make and to keep, or a port to serve, with the label of those who are there.
    struct Place {
        std::string host;
        int port = 0;
        std::string label;
    };
    std::vector<Place> connects;
    std::vector<Place> serves;
    std::string nats = "nats://127.0.0.1:4222";  // with commas between several
    Routes routes;
    BodyRules rules;
    std::string site;             // what comes from there is not taken; the host's name
    std::string name = "bridge";  // among those of the site
    std::string group;            // those of a site that take turns have the same; empty: none
    std::string stream;           // empty: at most once
    int replicas = 1;             // of a stream that the bridge makes
    std::size_t window = 8192;    // messages that are not yet stored
    std::chrono::seconds answer{5};
    std::string certificate, key, authority;              // of the sessions' connections
    std::string natsCertificate, natsKey, natsAuthority;  // of those to NATS
    std::string natsCredentials;
    bool isJson = false;
    std::chrono::seconds counts{0};  // how often they are logged; 0: at the end
    bool isCheck = false;
};

// The options of a command line, and of the files that it names. Prints the help or the version and
// exits with 0 when that is asked for. Throws UsageError.
Options ParseOptions(int argc, char** argv);

// What would go where, a line for each.
std::string Describe(const Options& options);
