#include "KLVMsgTls.h"

#include <utility>

#include "KLVMsgTlsContext.h"
#include "KLVMsgTlsTransport.h"

namespace {

class Factory final : public KLVMsgTransportFactory {
public:
    explicit Factory(const KLVMsgTlsOptions& options)
        : m_options(options), m_context(std::make_shared<KLVMsgTlsContext>(options)) {}

    KLVMsgOutcome Check() override { return m_context->Check(); }
    std::unique_ptr<KLVMsgTransport> ToClient(std::unique_ptr<KLVMsgTransport> way) override {
        return std::make_unique<KLVMsgTlsTransport>(std::move(way), m_context,
                                                    m_options.recordsPerKey);
    }
    std::unique_ptr<KLVMsgTransport> ToServer(std::unique_ptr<KLVMsgTransport> way,
                                              const std::string& host) override {
        return std::make_unique<KLVMsgTlsTransport>(std::move(way), m_context,
                                                    m_options.recordsPerKey, host);
    }
    std::chrono::milliseconds GreetingLimit() const override {
        return m_options.greeting.Duration();
    }
    std::size_t MostGreetings() const override {
        return m_options.greetingsAtOnce == 0 ? 1 : m_options.greetingsAtOnce;
    }

private:
    const KLVMsgTlsOptions m_options;
    const std::shared_ptr<KLVMsgTlsContext> m_context;
};

}  // namespace

KLVMsgTls::KLVMsgTls(const KLVMsgTlsOptions& options)
    : KLVMsgProtection(std::make_shared<Factory>(options)) {}
