#include "Foundation/NSNumber.h"
#include "Security/Authorization/Backend.h"
#include "Security/Keychain/KeychainAccess.h"
#include "security/CertificateFile.h"
#include "security/Commands.h"
#include "security/TrustStore.h"
#include "security/TrustedCertificate.h"

namespace kf::security {

namespace {

Ref<NSDictionary> trustAsRoot()
{
    SecPolicySearchRef search;
    SecPolicyRef policy;
    SecPolicySearchCreate(CSSM_CERT_X_509v3, &CSSMOID_APPLE_X509_BASIC, nullptr, &search);
    SecPolicySearchCopyNext(search, &policy);
    return NSDictionary::dictionaryWithObjectsAndKeys({{policy, kSecTrustSettingsPolicy}});
}

bool isTrustedAsRoot(const SecCertificateRef& certificate, SecTrustSettingsDomain domain)
{
    Ref<NSArray> settings;
    if (SecTrustSettingsCopyTrustSettings(certificate, domain, &settings) != errSecSuccess || countOf(settings) != 1)
        return false;
    const auto result = settings->objectAs<NSDictionary>(0)->objectAs<NSNumber>(kSecTrustSettingsResult);
    return result && result->unsignedIntValue() == kSecTrustSettingsResultTrustRoot;
}

SecKeychainRef keychainOf(SecTrustSettingsDomain domain)
{
    SecKeychainRef keychain;
    if (domain == kSecTrustSettingsDomainAdmin)
        return keychain::systemKeychain();
    static_cast<void>(SecKeychainCopyDefault(&keychain));
    return keychain;
}

/// Adds the certificate to a keychain besides the one that holds its setting.
bool addToKeychain(const TrustedCertificate& read, const std::string& path, SecTrustSettingsDomain domain)
{
    SecKeychainRef keychain;
    OSStatus status = SecKeychainOpen(path.c_str(), &keychain);
    if (status == errSecSuccess && CFEqual(keychain, keychainOf(domain)))
        return true;
    if (CFEqual(keychain, keychain::systemKeychain()) && !authorization::currentBackend()->isAdministrator())
        status = errAuthorizationDenied;
    if (status == errSecSuccess)
        status = SecCertificateAddToKeychain(read.certificate, keychain);
    if (status == errSecDuplicateItem)
        return report(path, true, "the certificate was there already");
    return report(path, status == errSecSuccess, status == errSecSuccess ? "certificate added" : statusText(status));
}

bool writeSetting(const TrustedCertificate& read, SecTrustSettingsDomain domain)
{
    const std::string place = domain == kSecTrustSettingsDomainAdmin ? systemKeychainName : defaultKeychainName;
    if (isTrustedAsRoot(read.certificate, domain))
        return report(place, true, "was trusted already");
    const OSStatus status = SecTrustSettingsSetTrustSettings(read.certificate, domain, trustAsRoot());
    return report(place, status == errSecSuccess, status == errSecSuccess ? "trusted" : statusText(status));
}

bool publish(const TrustedCertificate& read)
{
    const auto store = distributionTrustStore();
    if (!store)
        return report("distribution's trust store", false, "this distribution's is not known");
    const Outcome outcome = store->add(read.der);
    return report(store->name(), outcome.succeeded, outcome.text);
}

} // namespace

int addTrustedCert(const Arguments& arguments)
{
    if (arguments.operands.size() != 1)
        return wrongUse("add-trusted-cert", "needs exactly one certificate file");
    if (arguments.value('r').value_or("trustRoot") != "trustRoot")
        return wrongUse("add-trusted-cert", "unknown kind of trust \"" + *arguments.value('r') + "\"");
    const TrustedCertificate read = readOperand(arguments.operands[0]);
    if (!read.certificate)
        return exitFailure;
    if (const std::string reason = whyNotAdmissible(read.der); !reason.empty()) {
        report(read.path, false, reason);
        return exitFailure;
    }
    const auto domain = arguments.has('d') ? kSecTrustSettingsDomainAdmin : kSecTrustSettingsDomainUser;
    if (domain == kSecTrustSettingsDomainAdmin && !requireAdministrator())
        return exitFailure;
    if (!writeSetting(read, domain))
        return exitFailure;
    const bool isAdded = !arguments.has('k') || addToKeychain(read, *arguments.value('k'), domain);
    const bool isPublished = domain == kSecTrustSettingsDomainUser || publish(read);
    return isAdded && isPublished ? exitSuccess : exitFailure;
}

} // namespace kf::security
