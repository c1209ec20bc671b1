// For the session's own sources: a TCP connection as it is.
#pragma once

#include <chrono>

#include "KLVMsgTransport.h"

class KLVMsgPlainTransport final : public KLVMsgTransport {
public:
    // Owns the descriptor from now on, also when it throws. `silence` is how long a peer's system
    // may leave an idle connection unanswered (SO_KEEPALIVE).
    KLVMsgPlainTransport(int descriptor, std::chrono::milliseconds silence);
    ~KLVMsgPlainTransport() override;
    KLVMsgPlainTransport(const KLVMsgPlainTransport&) = delete;
    KLVMsgPlainTransport& operator=(const KLVMsgPlainTransport&) = delete;

    Result Read(const iovec* spaces, int count) override;              // readv
    Result Write(const iovec* pieces, int count, bool ends) override;  // sendmsg, MSG_EOR
    void EndOutput() override;                                         // shutdown, SHUT_WR
    void Break() override;                                             // shutdown, SHUT_RDWR
    std::size_t Segment() override;                                    // TCP_MAXSEG
    Sample TakeSample() override;                                      // TCP_INFO
    int Descriptor() const override { return m_descriptor; }

private:
    const int m_descriptor;
};
