// The three roles of the program. Each returns its exit code, or throws std::runtime_error with a
// message for the user.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Link.h"

struct Options {
    int clients = 2;
    std::string host = "127.0.0.1";
    int port = 0;
    int chunkKiB = 2048;
    By by = By::kTask;
    std::string name = "client";
    std::uint64_t totalBytes = 0;  // of what will come to the hub; 0: not known
    std::vector<std::string> files;
};

// Receives the files of a number of clients and reports on them.
int RunHub(const Options& options);

// Sends files to a hub, compares its reports and prints a row for each file.
int RunClient(const Options& options);

// Starts a hub and clients as processes of their own, waits for all and prints all rows.
int RunLauncher(const Options& options);

// Throws unless every file can be read.
void RequireReadable(const std::vector<std::string>& files);
