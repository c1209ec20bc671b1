// For the library's own sources: what OpenSSL reads from and writes to.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <utility>

#include "KLVMsgTransport.h"

// Carries records over a plain transport, and knows what OpenSSL makes of its answers: whether the
// system had nothing more to read, or the peer has ended, or what has failed.
//
// What TLS has to say for itself (an answer to new keys, an alert, the farewell) is written while
// something else is done, often reading. Were it to wait for the system there, two peers that both
// have no room would wait for each other for ever: each must read before the other one can write.
// So such an operation never waits: what the system does not take is kept here, and goes before
// anything else. It is bounded, since nothing is begun while some is left.
class KLVMsgTlsCarrier {
public:
    explicit KLVMsgTlsCarrier(std::unique_ptr<KLVMsgTransport> way) : m_way(std::move(way)) {}
    KLVMsgTlsCarrier(const KLVMsgTlsCarrier&) = delete;
    KLVMsgTlsCarrier& operator=(const KLVMsgTlsCarrier&) = delete;

    KLVMsgTransport& Way() const { return *m_way; }

    // From now on the connection goes over it. False: there was no memory.
    bool Attach(SSL* connection);

    // Before each operation of OpenSSL: whether what it writes may be kept.
    void Begin(bool keeps);

    // Before each time that the loop has reading done: it may take so much.
    void BeginReading();

    // Writes what is kept.
    KLVMsgTransport::Result Flush();
    bool HoldsOutput() const { return m_kept != 0; }

    // The system has no more to read; the peer has ended its output; the errno of what has failed.
    bool IsDry() const { return m_isDry; }
    bool HasEnded() const { return m_hasEnded; }
    int Error() const { return m_error; }

private:
    static constexpr std::size_t kMostRead = std::size_t{128} << 10;
    static constexpr std::size_t kMostKept = 256;

    static BIO_METHOD* Methods();
    static int OnRead(BIO* bio, char* data, int size);
    static int OnWrite(BIO* bio, const char* data, int size);
    static long OnControl(BIO* bio, int command, long number, void* pointer);

    int Read(char* data, std::size_t size);
    int Write(const char* data, std::size_t size);
    bool Keep(const char* data, std::size_t size);

    const std::unique_ptr<KLVMsgTransport> m_way;
    bool m_keeps = false;
    bool m_isDry = false;
    bool m_hasEnded = false;
    int m_error = 0;
    std::size_t m_mayRead = 0;
    std::size_t m_kept = 0;
    char m_bytes[kMostKept] = {};
};
