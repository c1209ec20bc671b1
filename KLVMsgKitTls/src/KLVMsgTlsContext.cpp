#include "KLVMsgTlsContext.h"

#include <openssl/crypto.h>

#include <cerrno>
#include <ctime>
#include <new>

#include "KLVMsgTlsWords.h"

#ifdef __aarch64__
#include <sys/auxv.h>
#endif

namespace {

// What a peer shows of itself until it is trusted takes no more memory than that.
constexpr long kLongestChain = 12L << 10;

// How long a change is not told from one that follows: a tick of the clock that stamps files.
constexpr long kTick = 100000000;  // nanoseconds

bool HasAesInHardware() {
#if defined(__x86_64__)
    return __builtin_cpu_supports("aes") != 0;
#elif defined(__aarch64__)
    return (getauxval(AT_HWCAP) & (1UL << 3)) != 0;  // HWCAP_AES
#else
    return false;
#endif
}

// A key with a password is of no use: nobody is there to be asked for it, least of all by way of
// the terminal, as happens without this.
int NoPassword(char*, int, int, void* isAsked) {
    *static_cast<bool*>(isAsked) = true;
    return -1;
}

bool SetUp(SSL_CTX* context) {
    // The memory of records is given back as soon as they are done; what cannot be sent at once is
    // offered again from wherever it is then; more than one record is read at a time.
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                  SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_read_ahead(context, 1);
    // A ticket that a client has not read when it closes would make a reset of its end.
    SSL_CTX_set_num_tickets(context, 0);
    SSL_CTX_set_options(
        context, SSL_OP_NO_TICKET | SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_PRIORITIZE_CHACHA);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_max_early_data(context, 0);
    SSL_CTX_set_max_cert_list(context, kLongestChain);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    SSL_CTX_set_security_level(context, 2);
    const char* const ciphers =
        HasAesInHardware()
            ? "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256"
            : "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384";
    return SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) == 1 &&
           SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION) == 1 &&
           SSL_CTX_set_ciphersuites(context, ciphers) == 1;
}

bool IsSame(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

KLVMsgTlsContext::KLVMsgTlsContext(const KLVMsgTlsOptions& options) : m_options(options) {
    // Sessions of static duration may outlive the library's own clean-up at the process's end.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

bool KLVMsgTlsContext::Stamp::operator==(const Stamp& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           IsSame(modified, other.modified) && IsSame(changed, other.changed);
}

KLVMsgOutcome KLVMsgTlsContext::Check() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_context == nullptr) {
        std::string warning;
        Refresh(warning);
    }
    return m_context != nullptr ? KLVMsgOutcome()
                                : KLVMsgOutcome{KLVMsgOutcome::kFailed, EINVAL, m_why};
}

KLVMsgTlsContext::Connection KLVMsgTlsContext::Make(std::string& warning) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Refresh(warning);
    if (m_context == nullptr) {
        warning = m_why;
        return nullptr;
    }
    Connection connection(SSL_new(m_context.get()));
    if (connection == nullptr) {
        throw std::bad_alloc();
    }
    return connection;
}

void KLVMsgTlsContext::Refresh(std::string& warning) {
    const Stamps stamps = Look();
    if (stamps == m_stamps && !m_isFresh) {
        return;
    }
    const bool isFresh = IsFresh(stamps);
    std::string why;
    Context made = Load(why);
    if (made != nullptr) {
        m_context = std::move(made);
    } else if (why != m_why && m_context != nullptr) {
        warning = why + "; what was there before is still used";
    }
    m_why = why;
    m_stamps = stamps;
    m_isFresh = isFresh;
}

KLVMsgTlsContext::Stamps KLVMsgTlsContext::Look() const {
    Stamps stamps;
    std::size_t i = 0;
    for (const std::string* file : {&m_options.certificate, &m_options.key, &m_options.authority}) {
        struct stat found = {};
        if (stat(file->c_str(), &found) == 0) {
            stamps[i] = {found.st_dev, found.st_ino, found.st_size, found.st_mtim, found.st_ctim};
        }
        ++i;
    }
    return stamps;
}

bool KLVMsgTlsContext::IsFresh(const Stamps& stamps) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    for (const Stamp& stamp : stamps) {
        const auto seconds = now.tv_sec - stamp.changed.tv_sec;
        if (seconds < 2 && seconds * 1000000000 + now.tv_nsec - stamp.changed.tv_nsec < kTick) {
            return true;
        }
    }
    return false;
}

KLVMsgTlsContext::Context KLVMsgTlsContext::Load(std::string& why) const {
    KLVMsgTlsWords::Forget();
    Context context(SSL_CTX_new(TLS_method()));
    if (context == nullptr || !SetUp(context.get())) {
        why = "cannot set up TLS: " + KLVMsgTlsWords::Last();
        return nullptr;
    }
    bool isPasswordAsked = false;
    SSL_CTX_set_default_passwd_cb(context.get(), NoPassword);
    SSL_CTX_set_default_passwd_cb_userdata(context.get(), &isPasswordAsked);
    const char* const certificate = m_options.certificate.c_str();
    const char* const key = m_options.key.c_str();
    const char* const authority = m_options.authority.c_str();
    if (SSL_CTX_use_certificate_chain_file(context.get(), certificate) != 1) {
        why = "the certificate " + m_options.certificate;
    } else if (SSL_CTX_use_PrivateKey_file(context.get(), key, SSL_FILETYPE_PEM) != 1 ||
               SSL_CTX_check_private_key(context.get()) != 1) {
        why = "the key " + m_options.key;
    } else if (SSL_CTX_load_verify_file(context.get(), authority) != 1) {
        why = "the authority " + m_options.authority;
    }
    SSL_CTX_set_default_passwd_cb_userdata(context.get(), nullptr);
    SSL_CTX_set_default_passwd_cb(context.get(), nullptr);
    if (!why.empty()) {
        why += " cannot be used: ";
        why += isPasswordAsked ? "it has a password" : KLVMsgTlsWords::Last();
        return nullptr;
    }
    return context;
}
