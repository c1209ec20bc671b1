#include "KLVMsgPlainTransport.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

#ifdef TCP_RTO_MAX_MS
constexpr int kLongestPause = TCP_RTO_MAX_MS;
#else
constexpr int kLongestPause = 44;  // of kernels from 6.15 on; others refuse it
#endif

// Where an option is refused the connection works all the same.
void Set(int descriptor, int level, int option, int value) {
    setsockopt(descriptor, level, option, &value, sizeof value);
}

KLVMsgTransport::Result Outcome(ssize_t count) {
    KLVMsgTransport::Result result;
    if (count >= 0) {
        result.count = static_cast<std::size_t>(count);
    } else {
        result.error = errno == EWOULDBLOCK || errno == EINTR ? EAGAIN : errno;
    }
    return result;
}

}  // namespace

KLVMsgPlainTransport::KLVMsgPlainTransport(int descriptor, std::chrono::milliseconds silence)
    : KLVMsgTransport(true), m_descriptor(descriptor) {
    const auto seconds = static_cast<int>(
        std::clamp<std::chrono::milliseconds::rep>(silence.count(), 5000, 3600000) / 1000);
    Set(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    Set(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
    // Idle for two fifths of the time, then three probes within the rest.
    Set(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, std::max(1, seconds * 2 / 5));
    Set(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, std::max(1, seconds / 5));
    Set(descriptor, IPPROTO_TCP, TCP_KEEPCNT, 3);
    // A peer that dies behind a closed window is probed often enough to be noticed. Were the pauses
    // always short, the system would give up long before a long silence is over.
    Set(descriptor, IPPROTO_TCP, kLongestPause, std::clamp(seconds * 1000 / 5, 1000, 120000));
}

KLVMsgPlainTransport::~KLVMsgPlainTransport() { close(m_descriptor); }

KLVMsgTransport::Result KLVMsgPlainTransport::Read(const iovec* spaces, int count) {
    Result result = Outcome(readv(m_descriptor, spaces, count));
    result.ended = result.count == 0 && result.error == 0;
    return result;
}

KLVMsgTransport::Result KLVMsgPlainTransport::Write(const iovec* pieces, int count, bool ends) {
    msghdr message = {};
    message.msg_iov = const_cast<iovec*>(pieces);  // sendmsg does not write there
    message.msg_iovlen = static_cast<std::size_t>(count);
    return Outcome(
        sendmsg(m_descriptor, &message, MSG_NOSIGNAL | MSG_DONTWAIT | (ends ? MSG_EOR : 0)));
}

void KLVMsgPlainTransport::EndOutput() { shutdown(m_descriptor, SHUT_WR); }

void KLVMsgPlainTransport::Break() { shutdown(m_descriptor, SHUT_RDWR); }

std::size_t KLVMsgPlainTransport::Segment() {
    int size = 0;
    socklen_t length = sizeof size;
    getsockopt(m_descriptor, IPPROTO_TCP, TCP_MAXSEG, &size, &length);
    return static_cast<std::size_t>(std::max(size, 0));
}

KLVMsgTransport::Sample KLVMsgPlainTransport::TakeSample() {
    tcp_info info = {};
    socklen_t length = sizeof info;
    if (getsockopt(m_descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) == -1) {
        return {};
    }
    return {info.tcpi_unacked, info.tcpi_probes,
            std::chrono::milliseconds(info.tcpi_last_ack_recv)};
}
