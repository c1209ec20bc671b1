// For applications: connections that others can neither read, change nor join.
#pragma once

#include "KLVMsgProtection.h"
#include "KLVMsgTlsOptions.h"

// Symbols are hidden by default (-fvisibility=hidden); this makes one visible.
#define KLVMSGKITTLS_EXPORT __attribute__((visibility("default")))

// TLS 1.3. Both sides show a certificate and verify the other one's, always. A client looks for the
// very name or address that it connects to among those of the server's certificate (its subject
// alternative names); a server lets everybody in whom an authority of its own vouches for.
//
//     const KLVMsgTls tls({"own.pem", "own.key", "authority.pem"});
//     if (const KLVMsgOutcome done = session.Connect({"10.0.0.7", 4711}, "press", tls); !done) ...
class KLVMSGKITTLS_EXPORT KLVMsgTls : public KLVMsgProtection {
public:
    // Whether the files can be used is the outcome of Serve and Connect. Throws std::bad_alloc.
    explicit KLVMsgTls(const KLVMsgTlsOptions& options);
};
