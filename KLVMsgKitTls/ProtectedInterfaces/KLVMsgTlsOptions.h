// For applications: what a side of a TLS connection shows of itself, and whom it trusts.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "KLVMsgTimeLimit.h"

// The first three are files in PEM form. Each new connection looks whether they have changed, and
// is made of what they are then. Of files that have become useless an event tells, and connections
// are made of the ones before.
struct KLVMsgTlsOptions {
    std::string certificate;  // our own, followed by those between it and the peers' authority
    std::string key;          // of our certificate, without a password
    std::string authority;    // one or several, to one of which every peer's certificate must lead

    // How long a peer may take from its connection to its admission, and how many a session admits
    // at a time: one more puts an end to the one that has taken longest.
    KLVMsgTimeLimit greeting = std::chrono::seconds(10);
    std::size_t greetingsAtOnce = 100;

    // How many records go under one key, in each direction, before a new one is asked for.
    std::uint64_t recordsPerKey = std::uint64_t{1} << 24;
};
