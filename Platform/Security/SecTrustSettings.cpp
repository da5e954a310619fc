#include "Foundation/NSNumber.h"
#include "Security/Authorization/Backend.h"
#include "Security/Certificate/LibraryContext.h"
#include "Security/Keychain/Index.h"
#include "Security/SecKeychainSearch.h"
#include "Security/SecTrust.h"
#include "Security/Trust/AdminDomain.h"
#include "Security/Trust/DistributionStore.h"
#include "Security/Trust/Evaluation.h"

#include <algorithm>

using namespace kf;
using kf::keychain::ParsedCertificate;
using kf::keychain::Trust;
using kf::keychain::TrustLevel;

constinit const Ref<NSString> kSecTrustSettingsPolicy = kf::constant<"kSecTrustSettingsPolicy">();
constinit const Ref<NSString> kSecTrustSettingsResult = kf::constant<"kSecTrustSettingsResult">();

namespace {

bool isSelfSigned(const ParsedCertificate& certificate)
{
    if (!certificate.fields || !std::ranges::equal(certificate.fields->issuer, certificate.fields->subject))
        return false;
    const OpenSSLErrorMark mark;
    const ScopedX509 x509 = decodeCertificate(certificate.der);
    return x509 && X509_self_signed(x509.get(), 1) == 1;
}

Result<TrustLevel> levelOf(const Ref<NSObject>& result, bool selfSigned)
{
    const TrustLevel trusted = selfSigned ? TrustLevel::trusted : TrustLevel::trustedPeer;
    if (!result)
        return trusted;
    const auto number = refCast<NSNumber>(result);
    switch (number ? number->unsignedIntValue() : static_cast<std::uint32_t>(kSecTrustSettingsResultInvalid)) {
    case kSecTrustSettingsResultTrustRoot:
    case kSecTrustSettingsResultTrustAsRoot:
        return trusted;
    case kSecTrustSettingsResultDeny:
        return TrustLevel::denied;
    case kSecTrustSettingsResultUnspecified:
        return TrustLevel::unspecified;
    default:
        return Failure{errSecInvalidTrustSettings};
    }
}

/// Lets one more setting count for a purpose; a denial stays.
void apply(TrustLevel& purpose, TrustLevel level)
{
    if (purpose != TrustLevel::denied && level != TrustLevel::unspecified)
        purpose = level;
}

/// Takes one dictionary in. The basic policy is about servers and e-mail; no policy means every use.
Status applySetting(const NSDictionary& setting, bool selfSigned, Trust& trust)
{
    for (const auto& key : setting.allKeys()) {
        if (!CFEqual(key, kSecTrustSettingsPolicy) && !CFEqual(key, kSecTrustSettingsResult))
            return Failure{errSecInvalidTrustSettings};
    }
    const auto policy = setting.objectForKey(kSecTrustSettingsPolicy);
    if (policy && !refCast<SecPolicy>(policy))
        return Failure{errSecInvalidTrustSettings};
    const auto level = levelOf(setting.objectForKey(kSecTrustSettingsResult), selfSigned);
    if (!level)
        return level.failure();
    apply(trust.server, *level);
    apply(trust.email, *level);
    if (!policy) {
        apply(trust.client, *level);
        apply(trust.codeSigning, *level);
    }
    return {};
}

Result<Trust> trustOf(const Ref<NSObject>& settings, bool selfSigned)
{
    Trust trust;
    std::vector<Ref<NSDictionary>> dictionaries;
    if (const auto single = refCast<NSDictionary>(settings)) {
        dictionaries.push_back(single);
    } else if (const auto array = refCast<NSArray>(settings)) {
        for (NSUInteger index = 0; index < array->count(); ++index)
            dictionaries.push_back(array->objectAs<NSDictionary>(index));
    } else if (settings) {
        return Failure{errSecParam};
    }
    if (dictionaries.empty())
        dictionaries.push_back(NSDictionary::dictionary());
    for (const auto& dictionary : dictionaries) {
        if (!dictionary)
            return Failure{errSecParam};
        if (const Status applied = applySetting(*dictionary, selfSigned, trust); !applied)
            return applied.failure();
    }
    return trust;
}

/// The keychain that holds a domain's settings.
Result<SecKeychainRef> keychainOf(SecTrustSettingsDomain domain)
{
    SecKeychainRef keychain;
    switch (domain) {
    case kSecTrustSettingsDomainUser:
        if (const OSStatus status = SecKeychainCopyDefault(&keychain); status != errSecSuccess)
            return Failure{status};
        return keychain;
    case kSecTrustSettingsDomainAdmin:
        return keychain::systemKeychain();
    case kSecTrustSettingsDomainSystem:
        return Failure{errSecReadOnly};
    default:
        return Failure{errSecParam};
    }
}

/// Whether a domain is the administrator's, and this process is none.
bool takesTheTool(SecTrustSettingsDomain domain)
{
    return domain == kSecTrustSettingsDomainAdmin && !authorization::currentBackend()->isAdministrator();
}

SecTrustSettingsResult resultOf(TrustLevel level)
{
    switch (level) {
    case TrustLevel::trusted:
        return kSecTrustSettingsResultTrustRoot;
    case TrustLevel::trustedPeer:
        return kSecTrustSettingsResultTrustAsRoot;
    case TrustLevel::denied:
        return kSecTrustSettingsResultDeny;
    case TrustLevel::unspecified:
        break;
    }
    return kSecTrustSettingsResultUnspecified;
}

Ref<NSArray> settingsOf(const Trust& trust)
{
    const TrustLevel level = trust::basicLevel(trust);
    const auto setting = NSMutableDictionary::dictionary();
    const bool everyUse = level == trust.client && level == trust.codeSigning;
    if (!everyUse)
        setting->setObjectForKey(makeRef<SecPolicy>(CSSMOID_APPLE_X509_BASIC), kSecTrustSettingsPolicy);
    setting->setObjectForKey(NSNumber::numberWithUnsignedInt(resultOf(level)), kSecTrustSettingsResult);
    return NSArray::arrayWithObjects({setting});
}

Result<Trust> trustOfDistribution(const ParsedCertificate& certificate)
{
    if (!certificate.fields)
        return Failure{errSecItemNotFound};
    const auto found = trust::distributionStore()->certificatesWithSubject(certificate.fields->subject);
    if (std::ranges::find(found, certificate.der) == found.end())
        return Failure{errSecItemNotFound};
    Trust trust;
    trust.server = trust.email = TrustLevel::trusted;
    return trust;
}

Result<Ref<NSMutableArray>> certificatesOfDistribution()
{
    auto certificates = NSMutableArray::array();
    for (Bytes& der : trust::distributionStore()->certificates()) {
        const CSSM_DATA data{der.size(), der.data()};
        SecCertificateRef certificate;
        if (SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate)
            == errSecSuccess)
            certificates->addObject(certificate);
    }
    return certificates;
}

/// Those of a domain's keychain that it says something of.
Result<Ref<NSMutableArray>> certificatesOf(SecTrustSettingsDomain domain)
{
    const auto keychain = keychainOf(domain);
    if (!keychain)
        return keychain.failure();
    SecKeychainSearchRef search;
    SecKeychainItemRef item;
    auto certificates = NSMutableArray::array();
    OSStatus status = SecKeychainSearchCreateFromAttributes(*keychain, kSecCertificateItemClass, nullptr, &search);
    while (status == errSecSuccess && (status = SecKeychainSearchCopyNext(search, &item)) == errSecSuccess) {
        const auto trust = keychain::readTrust(*keychain, refCast<SecCertificate>(item)->parsed().der);
        if (trust)
            certificates->addObject(item);
        else if (trust.status() != errSecItemNotFound && trust.status() != errSecUnknownFormat)
            return trust.failure();
    }
    if (status != errSecItemNotFound)
        return Failure{status};
    return certificates;
}

} // namespace

OSStatus SecTrustSettingsSetTrustSettings(
    const SecCertificateRef& certificate, SecTrustSettingsDomain domain, const Ref<NSObject>& settings)
{
    if (!certificate)
        return errSecParam;
    const auto trust = trustOf(settings, isSelfSigned(certificate->parsed()));
    if (!trust)
        return trust.status();
    if (takesTheTool(domain))
        return trust::writeAdminTrust(certificate->parsed().der, *trust).status();
    const auto keychain = keychainOf(domain);
    if (!keychain)
        return keychain.status();
    return keychain::writeTrust(*keychain, certificate->parsed().der, *trust).status();
}

OSStatus SecTrustSettingsCopyTrustSettings(
    const SecCertificateRef& certificate, SecTrustSettingsDomain domain, Ref<NSArray>* settings)
{
    if (!settings)
        return errSecParam;
    settings->reset();
    if (!certificate)
        return errSecParam;
    Result<Trust> trust = Failure{errSecItemNotFound};
    if (domain == kSecTrustSettingsDomainSystem) {
        trust = trustOfDistribution(certificate->parsed());
    } else {
        const auto keychain = keychainOf(domain);
        if (!keychain)
            return keychain.status();
        trust = keychain::readTrust(*keychain, certificate->parsed().der);
    }
    if (trust)
        *settings = settingsOf(*trust);
    return trust.status();
}

OSStatus SecTrustSettingsCopyCertificates(SecTrustSettingsDomain domain, Ref<NSArray>* certificates)
{
    if (!certificates)
        return errSecParam;
    certificates->reset();
    const auto found = domain == kSecTrustSettingsDomainSystem ? certificatesOfDistribution() : certificatesOf(domain);
    if (!found)
        return found.status();
    if ((*found)->count() == 0)
        return errSecNoTrustSettings;
    *certificates = NSArray::arrayWithArray(*found);
    return errSecSuccess;
}

OSStatus SecTrustSettingsRemoveTrustSettings(const SecCertificateRef& certificate, SecTrustSettingsDomain domain)
{
    if (!certificate)
        return errSecParam;
    if (takesTheTool(domain))
        return trust::removeAdminTrust(certificate->parsed().der).status();
    const auto keychain = keychainOf(domain);
    if (!keychain)
        return keychain.status();
    return keychain::removeTrust(*keychain, certificate->parsed().der).status();
}
