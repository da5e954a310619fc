#include "Security/SecIdentity.h"

#include "Security/Keychain/KeychainWalk.h"
#include "Security/Keychain/Store.h"
#include "Security/Keychain/Targets.h"

using namespace kf;
using namespace kf::keychain;

class SecIdentitySearch::State : public KeychainWalk<SecIdentity> {
    using KeychainWalk::KeychainWalk;
};

SecKey::SecKey(std::vector<std::uint8_t> identifier, SecKeychainRef keychain)
    : SecKeychainItem(kSecPrivateKeyItemClass, sha256(identifier), std::move(keychain)),
      identifier_(std::move(identifier))
{
}
SecKey::~SecKey() = default;

SecIdentity::SecIdentity(SecCertificateRef certificate, SecKeyRef privateKey) noexcept
    : certificate_(std::move(certificate)), privateKey_(std::move(privateKey))
{
}
SecIdentity::~SecIdentity() = default;

bool SecIdentity::isEqual(const NSObject* other) const noexcept
{
    const auto* identity = dynamic_cast<const SecIdentity*>(other);
    return identity && CFEqual(certificate_, identity->certificate_) && CFEqual(privateKey_, identity->privateKey_);
}

CFHashCode SecIdentity::hash() const noexcept { return CFHash(certificate_); }

SecIdentitySearch::SecIdentitySearch(std::unique_ptr<State> state) noexcept : state_(std::move(state)) { }
SecIdentitySearch::~SecIdentitySearch() = default;

namespace {

Result<std::vector<SecIdentityRef>> findIdentities(const SecKeychainRef& keychain)
{
    const auto certificates = certificateIndex(keychain->path());
    if (!certificates)
        return certificates.failure();
    std::vector<SecIdentityRef> identities;
    if ((*certificates)->entries().empty())
        return identities;
    const auto keys = keyIndex(keychain->path());
    if (!keys)
        return keys.failure();
    for (const auto& entry : (*certificates)->entries()) {
        if (!entry.certificate->fields)
            continue;
        if (const auto* key = (*keys)->find(entry.certificate->fields->keyId))
            identities.push_back(makeRef<SecIdentity>(
                makeRef<SecCertificate>(entry.certificate, keychain), makeRef<SecKey>(key->id, keychain)));
    }
    return identities;
}

} // namespace

OSStatus SecIdentitySearchCreate(
    const Ref<NSObject>& keychainOrArray, CSSM_KEYUSE keyUsage, SecIdentitySearchRef* search)
{
    if (!search)
        return errSecParam;
    search->reset();
    if (keyUsage != 0 && keyUsage != CSSM_KEYUSE_ANY)
        return errSecParam;
    auto keychains = targetKeychains(keychainOrArray);
    if (!keychains)
        return keychains.status();
    *search =
        makeRef<SecIdentitySearch>(std::make_unique<SecIdentitySearch::State>(std::move(*keychains), findIdentities));
    return errSecSuccess;
}

OSStatus SecIdentitySearchCopyNext(const SecIdentitySearchRef& search, SecIdentityRef* identity)
{
    if (identity)
        identity->reset();
    if (!search)
        return errSecInvalidSearchRef;
    if (!identity)
        return errSecParam;
    auto next = search->state().next();
    if (!next)
        return next.status();
    *identity = std::move(*next);
    return errSecSuccess;
}

OSStatus SecIdentityCopyCertificate(const SecIdentityRef& identity, SecCertificateRef* certificate)
{
    if (certificate)
        certificate->reset();
    if (!identity || !certificate)
        return errSecParam;
    *certificate = identity->certificate();
    return errSecSuccess;
}

OSStatus SecIdentityCopyPrivateKey(const SecIdentityRef& identity, SecKeyRef* key)
{
    if (key)
        key->reset();
    if (!identity || !key)
        return errSecParam;
    *key = identity->privateKey();
    return errSecSuccess;
}

OSStatus SecIdentityCreateWithCertificate(
    const Ref<NSObject>& keychainOrArray, const SecCertificateRef& certificate, SecIdentityRef* identity)
{
    if (identity)
        identity->reset();
    if (!identity || !certificate)
        return errSecParam;
    if (!certificate->parsed().fields)
        return errSecUnknownFormat;
    const auto keychains = targetKeychains(keychainOrArray);
    if (!keychains)
        return keychains.status();
    OSStatus unread = errSecItemNotFound;
    for (const auto& keychain : *keychains) {
        const auto keys = keyIndex(keychain->path());
        if (!keys) {
            unread = unread == errSecItemNotFound ? keys.status() : unread;
            continue;
        }
        if (const auto* key = (*keys)->find(certificate->parsed().fields->keyId)) {
            *identity = makeRef<SecIdentity>(certificate, makeRef<SecKey>(key->id, keychain));
            return errSecSuccess;
        }
    }
    return unread;
}
