#include "Security/Certificate/LibraryContext.h"

namespace kf {

namespace {

class Context {
public:
    static Context& instance()
    {
        // Digests are made until the very end.
        static auto* const context = new Context;
        return *context;
    }

    OSSL_LIB_CTX* get() const noexcept { return context_.get(); }
    OSSL_PROVIDER* load(const char* provider) const noexcept { return OSSL_PROVIDER_load(get(), provider); }

private:
    Context() : context_(OSSL_LIB_CTX_new()), current_(load("default")) { }

    ScopedOSSL_LIB_CTX context_;
    ScopedOSSL_PROVIDER current_;
};

} // namespace

OSSL_LIB_CTX* libraryContext() { return Context::instance().get(); }

void addOldAlgorithms()
{
    static OSSL_PROVIDER* const provider = Context::instance().load("legacy");
    static_cast<void>(provider);
}

ScopedX509 decodeCertificate(std::span<const std::uint8_t> der)
{
    X509* decoded = X509_new_ex(libraryContext(), nullptr);
    const unsigned char* place = der.data();
    // Where it fails, it frees what it was given, and leaves null.
    if (decoded)
        d2i_X509(&decoded, &place, static_cast<long>(der.size()));
    return ScopedX509(decoded);
}

} // namespace kf
