#include "KLVMsgTlsWords.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <memory>
#include <system_error>

namespace {

constexpr int kMostNames = 100;
constexpr std::size_t kLongestName = 256;

struct FreeCertificate {
    void operator()(X509* one) const { X509_free(one); }
};
struct FreeNames {
    void operator()(GENERAL_NAMES* all) const { GENERAL_NAMES_free(all); }
};

std::string Words(unsigned long error) {
    if (ERR_SYSTEM_ERROR(error)) {
        return std::generic_category().message(ERR_GET_REASON(error));
    }
    const char* const reason = ERR_reason_error_string(error);
    return reason == nullptr ? "an unknown error" : reason;
}

// They come from the peer, and go into logs.
std::string Printable(const ASN1_STRING* text) {
    const auto* const bytes = reinterpret_cast<const char*>(ASN1_STRING_get0_data(text));
    const auto length = static_cast<std::size_t>(std::max(ASN1_STRING_length(text), 0));
    std::string printable(bytes, std::min(length, kLongestName));
    std::replace_if(
        printable.begin(), printable.end(), [](char c) { return c <= ' ' || c > '~'; }, '?');
    return printable;
}

std::string Address(const ASN1_STRING* bytes) {
    char text[INET6_ADDRSTRLEN] = {};
    const int length = ASN1_STRING_length(bytes);
    if (length == 4 || length == 16) {
        inet_ntop(length == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(bytes), text,
                  sizeof text);
    }
    return text;
}

}  // namespace

void KLVMsgTlsWords::Forget() { ERR_clear_error(); }

std::string KLVMsgTlsWords::Last() { return Words(ERR_peek_error()); }

std::string KLVMsgTlsWords::Failure(const SSL* connection) {
    const long verdict = SSL_get_verify_result(connection);
    if (verdict != X509_V_OK) {
        return std::string("its certificate is not accepted: ") +
               X509_verify_cert_error_string(verdict);
    }
    const unsigned long error = ERR_peek_error();
    std::string words = Words(error);
    if (ERR_GET_LIB(error) != ERR_LIB_SSL) {
        return words;
    }
    switch (ERR_GET_REASON(error)) {
        case SSL_R_WRONG_VERSION_NUMBER:
        case SSL_R_HTTP_REQUEST:
        case SSL_R_HTTPS_PROXY_REQUEST:
            return "it does not speak TLS";
        case SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE:
            return "it has no certificate";
        default:
            break;
    }
    // "tlsv1 alert unknown ca"
    const std::size_t alert = words.find("alert ");
    return alert == std::string::npos ? words : "it has refused us: " + words.substr(alert + 6);
}

std::vector<std::string> KLVMsgTlsWords::Names(const SSL* connection) {
    const std::unique_ptr<X509, FreeCertificate> peer(SSL_get1_peer_certificate(connection));
    std::vector<std::string> found;
    if (peer == nullptr) {
        return found;
    }
    const std::unique_ptr<GENERAL_NAMES, FreeNames> names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(peer.get(), NID_subject_alt_name, nullptr, nullptr)));
    const int count = names == nullptr ? 0 : std::min(sk_GENERAL_NAME_num(names.get()), kMostNames);
    for (int i = 0; i < count; ++i) {
        int kind = 0;
        const void* const value =
            GENERAL_NAME_get0_value(sk_GENERAL_NAME_value(names.get(), i), &kind);
        const auto* const text = static_cast<const ASN1_STRING*>(value);
        if (kind == GEN_DNS || kind == GEN_URI) {
            found.push_back(Printable(text));
        } else if (kind == GEN_IPADD) {
            found.push_back(Address(text));
        }
    }
    return found;
}
