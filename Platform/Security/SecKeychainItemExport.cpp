#include "Security/SecKeychainItemExport.h"

#include "Security/Keychain/PKCS12.h"
#include "Security/Keychain/SecretText.h"
#include "Security/Keychain/Store.h"
#include "Security/ScopedOpenSSL.h"

#include <algorithm>

using namespace kf;
using namespace kf::keychain;

namespace {

constexpr int iterations = 600'000;

/// What goes into one bundle.
struct Contents {
    SecIdentityRef identity;
    std::vector<SecCertificateRef> chain;
};

Result<Contents> contentsOf(const Ref<NSObject>& identityOrArray)
{
    Contents contents;
    if ((contents.identity = refCast<SecIdentity>(identityOrArray)))
        return contents;
    const auto array = refCast<NSArray>(identityOrArray);
    if (!array || array->count() == 0)
        return Failure{errSecParam};
    contents.identity = array->objectAs<SecIdentity>(0);
    for (NSUInteger index = 1; index < array->count(); ++index)
        contents.chain.push_back(array->objectAs<SecCertificate>(index));
    const bool areWhole = contents.identity
        && std::ranges::all_of(contents.chain, [](const auto& one) { return static_cast<bool>(one); });
    return areWhole ? Result(contents) : Failure{errSecParam};
}

ScopedX509 parse(const Bytes& der)
{
    const unsigned char* position = der.data();
    return ScopedX509(d2i_X509(nullptr, &position, static_cast<long>(der.size())));
}

Result<ScopedEVP_PKEY> readKey(const SecKey& key)
{
    Result<SecretBytes> info = Failure{errSecInvalidItemRef};
    const auto read = withDatabase(key.keychain()->path(), true, [&](Database& database) -> Status {
        info = database.privateKeyInfo(key.identifier());
        return {};
    });
    if (!read)
        return read.failure();
    if (!info)
        return info.failure();
    const unsigned char* position = info->data();
    const ScopedPKCS8_PRIV_KEY_INFO parsed(
        d2i_PKCS8_PRIV_KEY_INFO(nullptr, &position, static_cast<long>(info->size())));
    ScopedEVP_PKEY result(parsed ? EVP_PKCS82PKEY(parsed.get()) : nullptr);
    return result ? Result(std::move(result)) : Failure{errSecUnsupportedKeyFormat};
}

Result<Bytes> encode(const Contents& contents, EVP_PKEY* key, const SecretBytes& passphrase)
{
    const Bytes& der = contents.identity->certificate()->parsed().der;
    const ScopedX509 leaf = parse(der);
    const ScopedX509Stack chain(sk_X509_new_null());
    if (!leaf || !chain)
        return Failure{errSecUnknownFormat};
    for (const auto& certificate : contents.chain) {
        ScopedX509 parsed = parse(certificate->parsed().der);
        if (!parsed || sk_X509_push(chain.get(), parsed.get()) <= 0)
            return Failure{errSecUnknownFormat};
        static_cast<void>(parsed.release());
    }
    SecretBytes terminated = passphrase;
    terminated.push_back(0);
    const auto& fields = contents.identity->certificate()->parsed().fields;
    const ScopedPKCS12 bundle(
        PKCS12_create(reinterpret_cast<const char*>(terminated.data()), fields ? fields->label.c_str() : nullptr, key,
            leaf.get(), chain.get(), NID_aes_256_cbc, NID_aes_256_cbc, iterations, iterations, 0));
    unsigned char* bytes = nullptr;
    const int length = bundle ? i2d_PKCS12(bundle.get(), &bytes) : -1;
    const ScopedOpenSSLBytes owner(bytes);
    return length > 0 ? Result(Bytes(bytes, bytes + length)) : Failure{errSecInternalComponent};
}

/// Whether the import's own reader finds in it what went into it.
bool isWhole(const Bytes& bytes, const SecretBytes& passphrase, const Contents& contents)
{
    const auto bundle = readBundle(bytes, passphrase);
    return bundle && bundle->key.id == contents.identity->privateKey()->identifier()
        && bundle->leaf.der == contents.identity->certificate()->parsed().der
        && std::ranges::all_of(contents.chain, [&](const SecCertificateRef& certificate) {
               return std::ranges::find(bundle->chain, certificate->parsed().der, &BundleCertificate::der)
                   != bundle->chain.end();
           });
}

} // namespace

OSStatus SecKeychainItemExport(const Ref<NSObject>& identityOrArray, SecExternalFormat outputFormat,
    SecItemImportExportFlags, const SecKeyImportExportParameters* keyParameters, Ref<NSData>* exportedData)
{
    if (!exportedData)
        return errSecParam;
    exportedData->reset();
    if (!keyParameters || keyParameters->version != SEC_KEY_IMPORT_EXPORT_PARAMS_VERSION)
        return errSecParam;
    if (outputFormat != kSecFormatPKCS12)
        return errSecUnknownFormat;
    const auto contents = contentsOf(identityOrArray);
    if (!contents)
        return contents.status();
    if (!keyParameters->passphrase || keyParameters->passphrase->length() == 0)
        return errSecPassphraseRequired;
    const auto passphrase = secretUTF8(*keyParameters->passphrase);
    if (!passphrase || std::ranges::find(*passphrase, 0) != passphrase->end())
        return errSecParam;
    const OpenSSLErrorMark mark;
    const auto key = readKey(*contents->identity->privateKey());
    if (!key)
        return key.status();
    auto bytes = encode(*contents, key->get(), *passphrase);
    if (!bytes)
        return bytes.status();
    if (!isWhole(*bytes, *passphrase, *contents))
        return errSecInternalComponent;
    *exportedData = NSData::dataWithVector(std::move(*bytes));
    return errSecSuccess;
}
