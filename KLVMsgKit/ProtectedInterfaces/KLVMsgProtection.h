// For applications: how connections are protected on their way.
#pragma once

#include <memory>
#include <utility>

class KLVMsgSession;
class KLVMsgTransportFactory;

// What Serve and Connect of a session are given so that nobody reads or changes what is said.
// A library that protects has a class of its own that is made of what it needs: KLVMsgTls of
// libKLVMsgKitTls, of certificates. A plain value: copies stand for the same, and whoever serves or
// connects keeps one.
class KLVMsgProtection {
public:
    // Only copied: what was moved away would protect nothing.
    KLVMsgProtection(const KLVMsgProtection&) = default;
    KLVMsgProtection& operator=(const KLVMsgProtection&) = default;

protected:
    // Of what makes the connections; for the classes that protect.
    explicit KLVMsgProtection(std::shared_ptr<KLVMsgTransportFactory> transports)
        : m_transports(std::move(transports)) {}
    ~KLVMsgProtection() = default;

private:
    friend class KLVMsgSession;

    std::shared_ptr<KLVMsgTransportFactory> m_transports;
};
