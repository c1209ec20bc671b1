#include "KLVMsgTlsCarrier.h"

#include <algorithm>
#include <cerrno>
#include <new>

namespace {

constexpr int kLater = -1;  // as OpenSSL has it, together with the flag
constexpr int kFailed = -2;

}  // namespace

BIO_METHOD* KLVMsgTlsCarrier::Methods() {
    static BIO_METHOD* const methods = [] {
        BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "klvmsg");
        if (made != nullptr) {
            BIO_meth_set_read(made, OnRead);
            BIO_meth_set_write(made, OnWrite);
            BIO_meth_set_ctrl(made, OnControl);
        }
        return made;
    }();
    return methods;
}

bool KLVMsgTlsCarrier::Attach(SSL* connection) {
    BIO* const bio = Methods() == nullptr ? nullptr : BIO_new(Methods());
    if (bio == nullptr) {
        return false;
    }
    BIO_set_data(bio, this);
    BIO_set_init(bio, 1);
    SSL_set_bio(connection, bio, bio);
    return true;
}

void KLVMsgTlsCarrier::BeginReading() {
    m_isDry = false;
    m_mayRead = kMostRead;
}

KLVMsgTransport::Result KLVMsgTlsCarrier::Flush() {
    KLVMsgTransport::Result result;
    if (!m_kept.empty()) {
        const iovec piece = {m_kept.data(), m_kept.size()};
        result = m_way->Write(&piece, 1, false);
        m_kept.erase(0, result.count);
        m_taken += result.count;
        if (!m_kept.empty()) {
            result.error = result.error == 0 ? EAGAIN : result.error;
        } else {
            m_kept = std::string();  // no memory for what is rarely kept
        }
    }
    return result;
}

int KLVMsgTlsCarrier::OnRead(BIO* bio, char* data, int size) {
    BIO_clear_retry_flags(bio);
    const int count = static_cast<KLVMsgTlsCarrier*>(BIO_get_data(bio))
                          ->Read(data, static_cast<std::size_t>(std::max(size, 0)));
    if (count == kLater) {
        BIO_set_retry_read(bio);
    }
    return std::max(count, -1);
}

int KLVMsgTlsCarrier::OnWrite(BIO* bio, const char* data, int size) {
    BIO_clear_retry_flags(bio);
    const int count = static_cast<KLVMsgTlsCarrier*>(BIO_get_data(bio))
                          ->Write(data, static_cast<std::size_t>(std::max(size, 0)));
    return std::max(count, -1);
}

long KLVMsgTlsCarrier::OnControl(BIO*, int command, long, void*) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

// A read that was not filled has left nothing in the system: it is not asked for more.
int KLVMsgTlsCarrier::Read(char* data, std::size_t size) {
    if (m_isDry || m_mayRead == 0) {
        return kLater;
    }
    const iovec space = {data, size};
    const KLVMsgTransport::Result result = m_way->Read(&space, 1);
    m_isDry = result.count < size;
    m_mayRead -= std::min(result.count, m_mayRead);
    if (result.ended) {
        m_hasEnded = true;
        return 0;
    }
    if (result.error != 0) {
        m_error = result.error == EAGAIN ? m_error : result.error;
        return result.error == EAGAIN ? kLater : kFailed;
    }
    return static_cast<int>(result.count);
}

int KLVMsgTlsCarrier::Write(const char* data, std::size_t size) {
    KLVMsgTransport::Result result = Flush();
    if (result.error == 0) {
        const iovec piece = {const_cast<char*>(data), size};  // nobody writes there
        result = m_way->Write(&piece, 1, false);
        m_taken += result.count;
    } else {
        result.count = 0;
    }
    if (result.error == 0 || result.error == EAGAIN) {
        result.error = Keep(data + result.count, size - result.count);
    }
    if (result.error != 0) {
        m_error = result.error;
        return kFailed;
    }
    return static_cast<int>(size);
}

// The errno of why not: of a peer that asks for new keys without end, and reads none, too much
// would gather.
int KLVMsgTlsCarrier::Keep(const char* data, std::size_t size) {
    if (size > kMostKept - m_kept.size()) {
        return ENOBUFS;
    }
    try {
        m_kept.append(data, size);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    return 0;
}
