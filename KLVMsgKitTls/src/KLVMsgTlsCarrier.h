// For the library's own sources: what OpenSSL reads from and writes to.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "KLVMsgTransport.h"

// Carries records over a plain transport, and knows what OpenSSL makes of its answers: whether the
// system had nothing more to read, or the peer has ended, or what has failed.
//
// Writing never waits: what the system does not take is kept here, and goes before anything else.
// OpenSSL answers a peer's new keys while it reads, and that fails where a record of messages waits
// for the system; and were one not to read then, two peers that both have no room would wait for
// each other for ever. No record of messages is begun while something is kept, so that it is one of
// them at the most, and a few words of TLS.
class KLVMsgTlsCarrier {
public:
    explicit KLVMsgTlsCarrier(std::unique_ptr<KLVMsgTransport> way) : m_way(std::move(way)) {}
    KLVMsgTlsCarrier(const KLVMsgTlsCarrier&) = delete;
    KLVMsgTlsCarrier& operator=(const KLVMsgTlsCarrier&) = delete;

    KLVMsgTransport& Way() const { return *m_way; }

    // From now on the connection goes over it. False: there was no memory.
    bool Attach(SSL* connection);

    // Before each time that the loop has reading done: it may take so much.
    void BeginReading();

    // Writes what is kept.
    KLVMsgTransport::Result Flush();
    bool HoldsOutput() const { return !m_kept.empty(); }

    // Bytes so far that OpenSSL has written, and that the system has taken.
    std::uint64_t Written() const { return m_taken + m_kept.size(); }
    std::uint64_t Taken() const { return m_taken; }

    // The system has no more to read; the peer has ended its output; the errno of what has failed.
    bool IsDry() const { return m_isDry; }
    bool HasEnded() const { return m_hasEnded; }
    int Error() const { return m_error; }

private:
    static constexpr std::size_t kMostRead = std::size_t{128} << 10;
    static constexpr std::size_t kMostKept = std::size_t{64} << 10;

    static BIO_METHOD* Methods();
    static int OnRead(BIO* bio, char* data, int size);
    static int OnWrite(BIO* bio, const char* data, int size);
    static long OnControl(BIO* bio, int command, long number, void* pointer);

    int Read(char* data, std::size_t size);
    int Write(const char* data, std::size_t size);
    int Keep(const char* data, std::size_t size);

    const std::unique_ptr<KLVMsgTransport> m_way;
    bool m_isDry = false;
    bool m_hasEnded = false;
    int m_error = 0;
    std::size_t m_mayRead = 0;
    std::string m_kept;
    std::uint64_t m_taken = 0;
};
