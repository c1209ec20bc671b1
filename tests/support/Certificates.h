// Certificates for tests, made where they are used.
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string>

#include <KLVMsgTls.h>

// A key, and a certificate that an authority, or it itself, has signed. With names
// ("DNS:localhost,IP:127.0.0.1") it is a peer's, without an authority's.
struct Identity {
    explicit Identity(const Identity* issuer = nullptr, const char* names = nullptr,
                      long from = -3600, long until = 3600)
        : key(EVP_EC_gen("P-256"), EVP_PKEY_free), certificate(X509_new(), X509_free) {
        static long serial = 0;
        X509* const x = certificate.get();
        const X509* const by = issuer == nullptr ? x : issuer->certificate.get();
        X509_set_version(x, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(x), ++serial);
        const std::string name = "number " + std::to_string(serial);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
        X509_set_issuer_name(x, X509_get_subject_name(by));
        X509_gmtime_adj(X509_getm_notBefore(x), from);
        X509_gmtime_adj(X509_getm_notAfter(x), until);
        X509_set_pubkey(x, key.get());
        const auto add = [&](int kind, const char* value) {
            const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
                X509V3_EXT_conf_nid(nullptr, nullptr, kind, value), X509_EXTENSION_free);
            X509_add_ext(x, extension.get(), -1);
        };
        names == nullptr ? add(NID_basic_constraints, "critical,CA:TRUE")
                         : add(NID_subject_alt_name, names);
        X509_sign(x, (issuer == nullptr ? key : issuer->key).get(), EVP_sha256());
    }

    std::shared_ptr<EVP_PKEY> key;
    std::shared_ptr<X509> certificate;
};

// A folder of PEM files that is gone at its end.
class PemFolder {
public:
    ~PemFolder() { std::filesystem::remove_all(m_path); }

    // The files of a peer, under a name of its own.
    KLVMsgTlsOptions Peer(const std::string& name, std::initializer_list<const Identity*> shown,
                          const Identity& authority) const {
        const std::string path = m_path + "/" + name;
        const auto put = [&](const char* end, std::initializer_list<const Identity*> certificates,
                             const Identity* key) {
            std::FILE* const file = std::fopen((path + end).c_str(), "w");
            for (const Identity* const one : certificates) {
                PEM_write_X509(file, one->certificate.get());
            }
            if (key != nullptr) {
                PEM_write_PrivateKey(file, key->key.get(), nullptr, nullptr, 0, nullptr, nullptr);
            }
            std::fclose(file);
            return path + end;
        };
        KLVMsgTlsOptions options;
        options.certificate = put(".pem", shown, nullptr);
        options.key = put(".key", {}, *shown.begin());
        options.authority = put(".authority", {&authority}, nullptr);
        return options;
    }

private:
    static std::string Made() {
        std::string path = std::filesystem::temp_directory_path() / "klvmsg-tls.XXXXXX";
        return mkdtemp(path.data());
    }
    const std::string m_path = Made();
};
