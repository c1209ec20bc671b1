// For the library's own sources: what the peer is called, and what has gone wrong, in words. They
// have no more of a certificate than its names.
#pragma once

#include <openssl/ssl.h>

#include <string>
#include <vector>

struct KLVMsgTlsWords {
    // Forgets the errors of this thread, so that what is asked for next is about what comes now.
    static void Forget();

    // The first error of this thread.
    static std::string Last();

    // Why an operation of the connection has failed.
    static std::string Failure(const SSL* connection);

    // The names and addresses of the peer's certificate.
    static std::vector<std::string> Names(const SSL* connection);
};
