#include "Security/Keychain/KeychainAccess.h"
#include "security/Commands.h"
#include "security/TrustStore.h"
#include "security/TrustedCertificate.h"

namespace kf::security {

namespace {

/// Takes the certificate, and its trust with it, out of the System keychain.
bool removeFromSystemKeychain(const TrustedCertificate& read)
{
    const auto fields = readCertificateFields(read.der);
    const auto found = keychain::certificatesWithSubject(keychain::systemKeychain(), fields->subject);
    if (!found)
        return report(systemKeychainName, false, statusText(found.status()));
    for (const SecCertificateRef& certificate : *found) {
        if (certificate->digest() != read.certificate->digest())
            continue;
        const OSStatus status = SecKeychainItemDelete(certificate);
        return report(
            systemKeychainName, status == errSecSuccess, status == errSecSuccess ? "removed" : statusText(status));
    }
    return report(systemKeychainName, true, "was not there");
}

bool removeFromTrustStore(const TrustedCertificate& read)
{
    const auto store = distributionTrustStore();
    if (!store)
        return report(
            "distribution's trust store", true, "this distribution's is not known, so it holds nothing of us");
    const Outcome outcome = store->remove(read.der);
    return report(store->name(), outcome.succeeded, outcome.text);
}

bool removeUserSetting(const TrustedCertificate& read)
{
    const OSStatus status = SecTrustSettingsRemoveTrustSettings(read.certificate, kSecTrustSettingsDomainUser);
    if (status == errSecItemNotFound)
        return report(defaultKeychainName, true, "was not trusted");
    return report(defaultKeychainName, status == errSecSuccess,
        status == errSecSuccess ? "no longer trusted" : statusText(status));
}

} // namespace

int removeTrustedCert(const Arguments& arguments)
{
    if (arguments.operands.size() != 1)
        return wrongUse("remove-trusted-cert", "needs exactly one certificate file");
    const TrustedCertificate read = readOperand(arguments.operands[0]);
    if (!read.certificate)
        return exitFailure;
    if (!arguments.has('d'))
        return removeUserSetting(read) ? exitSuccess : exitFailure;
    if (!requireAdministrator())
        return exitFailure;
    // Both places, whatever comes of the first: a removal must not stop halfway.
    const bool isOutOfKeychain = removeFromSystemKeychain(read);
    const bool isOutOfStore = removeFromTrustStore(read);
    return isOutOfKeychain && isOutOfStore ? exitSuccess : exitFailure;
}

} // namespace kf::security
