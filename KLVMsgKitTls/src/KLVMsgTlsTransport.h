// For the library's own sources: a TCP connection under TLS.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "KLVMsgTlsCarrier.h"
#include "KLVMsgTlsContext.h"
#include "KLVMsgTransport.h"

// Its greeting is the handshake, and a record of one byte by which the server admits the client:
// the handshake alone ends at the client before the server has looked at its certificate.
//
// What is encrypted has to go. So until the system has taken all of a record its bytes are held, as
// KLVMsgTransport calls it: a message of which one is among them cannot be taken back.
class KLVMsgTlsTransport final : public KLVMsgTransport {
public:
    // To a client.
    KLVMsgTlsTransport(std::unique_ptr<KLVMsgTransport> way,
                       std::shared_ptr<KLVMsgTlsContext> context, std::uint64_t recordsPerKey)
        : KLVMsgTlsTransport(std::move(way), std::move(context), recordsPerKey, "") {}

    // To the server at that host.
    KLVMsgTlsTransport(std::unique_ptr<KLVMsgTransport> way,
                       std::shared_ptr<KLVMsgTlsContext> context, std::uint64_t recordsPerKey,
                       std::string host);

    Result Read(const iovec* spaces, int count) override;
    Result Write(const iovec* pieces, int count, bool ends) override;
    void EndOutput() override;  // the farewell (close_notify), then that of the plain one
    void Break() override { m_carrier.Way().Break(); }
    std::size_t Segment() override { return 0; }
    Sample TakeSample() override { return m_carrier.Way().TakeSample(); }
    int Descriptor() const override { return m_carrier.Way().Descriptor(); }

    Greeting Greet() override;
    int Admit() override;
    std::vector<std::string> Names() const override { return m_names; }
    bool HoldsInput() const override { return m_holdsInput; }
    bool HoldsOutput() const override {
        return (m_carrier.HoldsOutput() && !m_outputFailed) || (m_ends && !m_hasEnded);
    }
    Result Flush() override;
    std::size_t TakeHeld() override;
    std::string_view Why() const override { return m_why; }

private:
    bool IsServer() const { return m_host.empty(); }
    bool Begin(Greeting& greeting);
    bool ExpectHost();
    Greeting AwaitAdmission();
    Greeting Answer(int result);
    Greeting Failure(std::string text);

    bool ReadInto(const iovec& space, Result& result);
    void EndReading(Result& result);
    bool WriteRecord(const char* data, std::size_t size);
    void RenewKeys();
    void Fail(int reason);

    KLVMsgTlsCarrier m_carrier;
    const std::shared_ptr<KLVMsgTlsContext> m_context;
    const std::uint64_t m_recordsPerKey;
    const std::string m_host;                   // empty: the peer is the client
    KLVMsgTlsContext::Connection m_connection;  // null before the greeting
    bool m_isShaken = false;                    // the handshake is done
    bool m_hasFailed = false;
    bool m_outputFailed = false;  // what has come can still be read
    bool m_wasCut = false;
    int m_error = 0;
    std::string m_why;
    std::vector<std::string> m_names;  // do not change once it has greeted: others may ask

    bool m_holdsInput;  // who has not greeted yet: it is its turn
    bool m_inputEnded = false;
    std::uint64_t m_recordsRead = 0;  // under the present key
    std::uint64_t m_recordsWritten = 0;
    std::size_t m_pending = 0;         // messages' bytes in the record that goes
    std::uint64_t m_pendingUntil = 0;  // the carrier's position behind it
    bool m_ends = false;               // the output is to end
    bool m_hasEnded = false;           // and has
};
