#include "Security/Identity/PreferenceFile.h"
#include "Security/Keychain/Store.h"
#include "Security/Keychain/Targets.h"
#include "Security/SecIdentity.h"

using namespace kf;
using namespace kf::keychain;

namespace {

bool isAnyUse(CSSM_KEYUSE keyUsage) { return keyUsage == 0 || keyUsage == CSSM_KEYUSE_ANY; }

/// The name's bytes; nothing where it is none that anything can be recorded for.
std::optional<std::string> bytesOf(const Ref<NSString>& name)
{
    auto bytes = name ? name->UTF8String() : std::nullopt;
    return bytes && !bytes->empty() ? bytes : std::nullopt;
}

/// The identity in the search list whose certificate has this digest. A keychain that cannot be read is left out; where
/// nothing is found, its error tells why.
Result<SecIdentityRef> findIdentity(const Digest& digest)
{
    const auto keychains = targetKeychains(nullptr);
    if (!keychains)
        return keychains.failure();
    Failure reason{errSecItemNotFound};
    for (const auto& keychain : *keychains) {
        const auto certificates = certificateIndex(keychain->path());
        OSStatus status = certificates.status();
        if (const auto* entry = certificates ? (*certificates)->find(digest) : nullptr) {
            SecIdentityRef identity;
            const auto certificate = makeRef<SecCertificate>(entry->certificate, keychain);
            status = SecIdentityCreateWithCertificate(nullptr, certificate, &identity);
            if (status == errSecSuccess)
                return identity;
        }
        if (status != errSecSuccess && reason.status == errSecItemNotFound)
            reason.status = status;
    }
    return reason;
}

} // namespace

OSStatus SecIdentityCopyPreference(
    const Ref<NSString>& name, CSSM_KEYUSE keyUsage, const Ref<NSArray>& validIssuers, SecIdentityRef* identity)
{
    if (identity)
        identity->reset();
    const auto bytes = bytesOf(name);
    if (!identity || !bytes || !isAnyUse(keyUsage) || validIssuers)
        return errSecParam;
    const auto digest = readIdentityPreference(*bytes);
    if (!digest)
        return digest.status();
    auto found = findIdentity(*digest);
    if (!found)
        return found.status();
    *identity = std::move(*found);
    return errSecSuccess;
}

OSStatus SecIdentitySetPreference(const SecIdentityRef& identity, const Ref<NSString>& name, CSSM_KEYUSE keyUsage)
{
    const auto bytes = bytesOf(name);
    if (!identity || !bytes || !isAnyUse(keyUsage))
        return errSecParam;
    const Digest& digest = identity->certificate()->digest();
    // What could not be found again is not recorded.
    if (const auto found = findIdentity(digest); !found)
        return found.status();
    return writeIdentityPreference(*bytes, digest).status();
}
