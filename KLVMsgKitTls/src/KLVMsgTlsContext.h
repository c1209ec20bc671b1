// For the library's own sources: what new connections are made of.
#pragma once

#include <openssl/ssl.h>
#include <sys/stat.h>

#include <array>
#include <memory>
#include <mutex>
#include <string>

#include "KLVMsgOutcome.h"
#include "KLVMsgTlsOptions.h"

// The certificate, key and authorities as the files had them when one of them last changed. For
// several threads at a time.
class KLVMsgTlsContext {
public:
    struct FreeConnection {
        void operator()(SSL* connection) const { SSL_free(connection); }
    };
    using Connection = std::unique_ptr<SSL, FreeConnection>;

    explicit KLVMsgTlsContext(const KLVMsgTlsOptions& options);

    // Whether there is anything that connections can be made of.
    KLVMsgOutcome Check();

    // A connection that has not begun, of what the files are now. Null when there are none, and why
    // is the warning then; otherwise that says of changed files, once, why they are of no use.
    Connection Make(std::string& warning);

private:
    // By which a file is told from one of the same name that takes its place, or was written anew.
    struct Stamp {
        bool operator==(const Stamp& other) const;

        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        timespec modified{};
        timespec changed{};
    };
    using Stamps = std::array<Stamp, 3>;
    struct FreeContext {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };
    using Context = std::unique_ptr<SSL_CTX, FreeContext>;

    void Refresh(std::string& warning);
    Stamps Look() const;
    static bool IsFresh(const Stamps& stamps);
    Context Load(std::string& why) const;

    const KLVMsgTlsOptions m_options;
    std::mutex m_mutex;
    Context m_context;
    Stamps m_stamps;
    bool m_isFresh = true;  // a change that follows too closely would not be seen
    std::string m_why;      // the last files were of no use
};
