#include "KLVMsgTlsTransport.h"

#include <arpa/inet.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

#include "KLVMsgTlsWords.h"

namespace {

constexpr std::size_t kRecord = std::size_t{16} << 10;  // bytes of a full one
constexpr std::size_t kGreetingRecord = 1024;           // half-open ones are to cost little memory
constexpr char kAdmitted = 1;

// The bytes from a position on, in one piece: copied only where they are not.
const char* InOnePiece(const iovec* pieces, std::size_t from, std::size_t size, char* buffer) {
    for (; from >= pieces->iov_len; ++pieces) {
        from -= pieces->iov_len;
    }
    if (pieces->iov_len - from >= size) {
        return static_cast<const char*>(pieces->iov_base) + from;
    }
    for (std::size_t done = 0; done < size; ++pieces, from = 0) {
        const std::size_t part = std::min(size - done, pieces->iov_len - from);
        std::memcpy(buffer + done, static_cast<const char*>(pieces->iov_base) + from, part);
        done += part;
    }
    return buffer;
}

}  // namespace

KLVMsgTlsTransport::KLVMsgTlsTransport(std::unique_ptr<KLVMsgTransport> way,
                                       std::shared_ptr<KLVMsgTlsContext> context,
                                       std::uint64_t recordsPerKey, std::string host)
    : KLVMsgTransport(false),
      m_carrier(std::move(way)),
      m_context(std::move(context)),
      m_recordsPerKey(std::max<std::uint64_t>(recordsPerKey, 1)),
      m_host(std::move(host)),
      m_holdsInput(!IsServer()) {}

// Greeting ---------------------------------------------------------------------------------------

KLVMsgTransport::Greeting KLVMsgTlsTransport::Greet() {
    Greeting greeting;
    try {
        std::string warning;
        if (m_connection == nullptr && !Begin(greeting)) {
            m_hasFailed = true;
            return greeting;
        }
        warning = std::move(greeting.warning);
        m_carrier.BeginReading();
        KLVMsgTlsWords::Forget();
        const int result = m_isShaken ? 1 : SSL_do_handshake(m_connection.get());
        if (result == 1 && !m_isShaken) {
            m_isShaken = true;
            m_holdsInput = true;  // more may have come with its end
            SSL_set_max_send_fragment(m_connection.get(), kRecord);
            SSL_set_split_send_fragment(m_connection.get(), kRecord);  // the other one lowers it
            m_names = KLVMsgTlsWords::Names(m_connection.get());
        }
        greeting = !m_isShaken ? Answer(result) : IsServer() ? Greeting() : AwaitAdmission();
        const int error = Flush().error;
        greeting.waitsForRoom = error == EAGAIN;
        if (m_outputFailed && greeting.state != Greeting::kFailed) {
            m_error = error;
            greeting = Failure(std::generic_category().message(error));
        }
        greeting.warning = std::move(warning);
    } catch (const std::bad_alloc&) {
        m_hasFailed = true;
        greeting = {Greeting::kFailed, false, ENOMEM, "", ""};
    }
    return greeting;
}

// Makes the connection of what the files are now.
bool KLVMsgTlsTransport::Begin(Greeting& greeting) {
    m_connection = m_context->Make(greeting.warning);
    if (m_connection == nullptr) {
        greeting = {Greeting::kFailed, false, EINVAL, greeting.warning, ""};
        return false;
    }
    if (!m_carrier.Attach(m_connection.get()) || (!IsServer() && !ExpectHost())) {
        throw std::bad_alloc();
    }
    SSL_set_max_send_fragment(m_connection.get(), kGreetingRecord);
    IsServer() ? SSL_set_accept_state(m_connection.get())
               : SSL_set_connect_state(m_connection.get());
    return true;
}

// The certificate must be of that host. Its subject's common name is no name of a host: it is not
// looked at.
bool KLVMsgTlsTransport::ExpectHost() {
    X509_VERIFY_PARAM* const verdict = SSL_get0_param(m_connection.get());
    X509_VERIFY_PARAM_set_hostflags(
        verdict, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT | X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const std::string address = m_host.substr(0, m_host.find('%'));  // fe80::1%eth0
    in6_addr ignored{};
    if (inet_pton(AF_INET, address.c_str(), &ignored) == 1 ||
        inet_pton(AF_INET6, address.c_str(), &ignored) == 1) {
        return X509_VERIFY_PARAM_set1_ip_asc(verdict, address.c_str()) == 1;
    }
    // A dot at the end belongs to the resolver.
    const std::string name = m_host.substr(0, m_host.size() - (m_host.back() == '.' ? 1 : 0));
    return !name.empty() && SSL_set_tlsext_host_name(m_connection.get(), name.c_str()) == 1 &&
           X509_VERIFY_PARAM_set1_host(verdict, name.c_str(), name.size()) == 1;
}

KLVMsgTransport::Greeting KLVMsgTlsTransport::AwaitAdmission() {
    char word = 0;
    std::size_t count = 0;
    const int result = SSL_read_ex(m_connection.get(), &word, 1, &count);
    if (result != 1) {
        return Answer(result);
    }
    return word == kAdmitted ? Greeting() : Failure("it says something else than that we may come");
}

// What an operation that is not done waits for, or why it has failed.
KLVMsgTransport::Greeting KLVMsgTlsTransport::Answer(int result) {
    Greeting greeting;
    switch (SSL_get_error(m_connection.get(), result)) {
        case SSL_ERROR_WANT_READ:
            greeting.state = Greeting::kGoesOn;
            return greeting;
        case SSL_ERROR_ZERO_RETURN:
            return Failure("it has turned us away");
        default:
            break;
    }
    if (m_carrier.HasEnded()) {
        return Failure("it has closed before the greeting was done");
    }
    if (m_carrier.Error() != 0) {
        m_error = m_carrier.Error();
        return Failure(std::generic_category().message(m_error));
    }
    return Failure(KLVMsgTlsWords::Failure(m_connection.get()));
}

KLVMsgTransport::Greeting KLVMsgTlsTransport::Failure(std::string text) {
    m_hasFailed = true;
    const char* const who = IsServer() ? "the client: " : "the server: ";
    return {Greeting::kFailed, false, m_error == 0 ? EPROTO : m_error, who + text, ""};
}

int KLVMsgTlsTransport::Admit() {
    const bool done = !IsServer() || WriteRecord(&kAdmitted, 1);
    m_pending = 0;  // it is none of the messages' bytes
    return done ? 0 : m_error;
}

// Reading ----------------------------------------------------------------------------------------

KLVMsgTransport::Result KLVMsgTlsTransport::Read(const iovec* spaces, int count) {
    if (!m_isShaken || (m_hasFailed && !m_holdsInput)) {
        return m_carrier.Way().Read(spaces, count);  // what still comes is nobody's
    }
    Result result;
    if (!m_hasFailed && !m_inputEnded) {
        m_carrier.BeginReading();
        for (int i = 0; i < count && ReadInto(spaces[i], result); ++i) {
        }
        RenewKeys();
    }
    if (result.count == 0) {
        EndReading(result);
    }
    return result;
}

// False when there is no more for now, or for ever: that is told by itself, after what has come.
bool KLVMsgTlsTransport::ReadInto(const iovec& space, Result& result) {
    for (std::size_t filled = 0; filled < space.iov_len;) {
        std::size_t got = 0;
        KLVMsgTlsWords::Forget();
        const int done =
            SSL_read_ex(m_connection.get(), static_cast<char*>(space.iov_base) + filled,
                        space.iov_len - filled, &got);
        if (done == 1) {
            filled += got;
            result.count += got;
            m_recordsRead += SSL_pending(m_connection.get()) == 0 ? 1 : 0;
            continue;
        }
        const int reason = SSL_get_error(m_connection.get(), done);
        if (reason == SSL_ERROR_WANT_READ) {
            // Otherwise it has only read as much as it may at a time.
            m_holdsInput = !m_carrier.IsDry();
        } else {
            m_holdsInput = true;
            m_inputEnded = reason == SSL_ERROR_ZERO_RETURN;
            if (!m_inputEnded) {
                Fail(reason);
            }
        }
        return false;
    }
    m_holdsInput = true;
    return true;
}

void KLVMsgTlsTransport::EndReading(Result& result) {
    if (m_hasFailed) {
        result.cut = m_wasCut;
        result.error = m_wasCut ? 0 : m_error;
        m_holdsInput = false;
    } else if (m_inputEnded) {
        result.ended = true;
        m_holdsInput = false;
    } else {
        result.error = EAGAIN;
    }
}

// Writing ----------------------------------------------------------------------------------------

KLVMsgTransport::Result KLVMsgTlsTransport::Write(const iovec* pieces, int count, bool) {
    Result result;
    if (!m_isShaken || m_hasFailed || m_outputFailed || m_ends) {
        result.error = EPIPE;
        return result;
    }
    std::size_t all = 0;
    for (int i = 0; i < count; ++i) {
        all += pieces[i].iov_len;
    }
    char buffer[kRecord];
    for (;;) {
        result.error = Flush().error;
        result.count += TakeHeld();
        if (result.error != 0 || result.count == all) {
            result.held = m_pending;
            break;
        }
        const std::size_t size = std::min(kRecord, all - result.count);
        if (!WriteRecord(InOnePiece(pieces, result.count, size, buffer), size)) {
            result.error = m_error;
            break;
        }
    }
    return result;
}

// It is pending until the system has taken all of it.
bool KLVMsgTlsTransport::WriteRecord(const char* data, std::size_t size) {
    std::size_t written = 0;
    KLVMsgTlsWords::Forget();
    const int done = SSL_write_ex(m_connection.get(), data, size, &written);
    if (done == 1) {
        m_pending = written;
        m_pendingUntil = m_carrier.Written();
        ++m_recordsWritten;
        return true;
    }
    if (m_carrier.Error() != 0) {
        m_outputFailed = true;
        m_error = m_carrier.Error();
    } else {
        Fail(SSL_get_error(m_connection.get(), done));
    }
    return false;
}

std::size_t KLVMsgTlsTransport::TakeHeld() {
    return m_carrier.Taken() >= m_pendingUntil ? std::exchange(m_pending, 0) : 0;
}

// OpenSSL answers a peer with new keys in the next record that it writes: for one who only reads it
// never comes. And we ask for new ones. While something waits for room both are left for later.
void KLVMsgTlsTransport::RenewKeys() {
    if (m_carrier.HoldsOutput() || m_ends || m_hasFailed || m_outputFailed) {
        return;
    }
    const bool isAnswer = SSL_get_key_update_type(m_connection.get()) != SSL_KEY_UPDATE_NONE;
    const bool asks = m_recordsWritten >= m_recordsPerKey || m_recordsRead >= m_recordsPerKey;
    if (!isAnswer && !asks) {
        return;
    }
    m_recordsWritten = m_recordsRead = 0;
    KLVMsgTlsWords::Forget();
    int done = SSL_key_update(m_connection.get(),
                              asks ? SSL_KEY_UPDATE_REQUESTED : SSL_KEY_UPDATE_NOT_REQUESTED);
    if (done == 1) {
        done = SSL_do_handshake(m_connection.get());
    }
    if (done != 1) {
        Fail(SSL_get_error(m_connection.get(), done));
    }
}

// Ending -----------------------------------------------------------------------------------------

void KLVMsgTlsTransport::EndOutput() {
    if (!std::exchange(m_ends, true) && m_isShaken && !m_hasFailed && !m_outputFailed) {
        KLVMsgTlsWords::Forget();
        SSL_shutdown(m_connection.get());
    }
    Flush();
}

KLVMsgTransport::Result KLVMsgTlsTransport::Flush() {
    Result result;
    if (!m_outputFailed) {
        result = m_carrier.Flush();
        m_outputFailed = result.error != 0 && result.error != EAGAIN;
        if (result.error == 0 && m_isShaken) {
            RenewKeys();
        }
    }
    if (m_ends && !m_hasEnded && result.error != EAGAIN) {
        m_carrier.Way().EndOutput();
        m_hasEnded = true;
    }
    return result;
}

void KLVMsgTlsTransport::Fail(int reason) {
    m_hasFailed = true;
    m_wasCut = m_carrier.HasEnded();
    m_error = m_carrier.Error() != 0 ? m_carrier.Error() : EPROTO;
    if (m_carrier.Error() == 0 && !m_wasCut) {
        try {
            m_why = reason == SSL_ERROR_SSL ? KLVMsgTlsWords::Failure(m_connection.get())
                                            : "TLS waits for what does not come";
        } catch (const std::bad_alloc&) {
            m_why.clear();
        }
    }
}
