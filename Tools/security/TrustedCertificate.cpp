#include "security/TrustedCertificate.h"

#include "Foundation/NSNumber.h"
#include "Security/Authorization/Backend.h"
#include "security/CertificateFile.h"
#include "security/Commands.h"
#include "security/FileTools.h"

#include <iostream>

namespace kf::security {

TrustedCertificate readOperand(const std::string& path)
{
    TrustedCertificate read{shownText(path), {}, nullptr};
    CertificateFile file = readCertificateFile(path);
    if (!file.der) {
        report(read.path, false, file.error);
        return read;
    }
    read.der = std::move(*file.der);
    read.certificate = certificateFrom(read.der);
    if (!read.certificate)
        report(read.path, false, "holds a damaged certificate");
    return read;
}

SecCertificateRef certificateFrom(const Bytes& der)
{
    Bytes copy = der; // the interface takes pointers to mutable bytes and changes none
    const CSSM_DATA data{copy.size(), copy.data()};
    SecCertificateRef certificate;
    static_cast<void>(SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate));
    return certificate;
}

Ref<NSDictionary> trustAsRoot() { return settingFor(kSecTrustSettingsResultTrustRoot); }

bool isTrustedAsRoot(const SecCertificateRef& certificate, SecTrustSettingsDomain domain)
{
    return hasSetting(certificate, domain, kSecTrustSettingsResultTrustRoot);
}

Ref<NSDictionary> settingFor(SecTrustSettingsResult result)
{
    SecPolicySearchRef search;
    SecPolicyRef policy;
    SecPolicySearchCreate(CSSM_CERT_X_509v3, &CSSMOID_APPLE_X509_BASIC, nullptr, &search);
    SecPolicySearchCopyNext(search, &policy);
    return NSDictionary::dictionaryWithObjectsAndKeys(
        {{policy, kSecTrustSettingsPolicy}, {NSNumber::numberWithUnsignedInt(result), kSecTrustSettingsResult}});
}

bool hasSetting(const SecCertificateRef& certificate, SecTrustSettingsDomain domain, SecTrustSettingsResult result)
{
    Ref<NSArray> settings;
    if (SecTrustSettingsCopyTrustSettings(certificate, domain, &settings) != errSecSuccess || countOf(settings) != 1)
        return false;
    const auto found = settings->objectAs<NSDictionary>(0)->objectAs<NSNumber>(kSecTrustSettingsResult);
    return found && found->unsignedIntValue() == result;
}

bool report(const std::string& place, bool succeeded, const std::string& text)
{
    if (succeeded)
        std::cout << place << ": " << text << std::endl;
    else
        std::cerr << "security: " << place << ": " << text << std::endl;
    return succeeded;
}

int changeEveryPlace(const std::function<Outcome(TrustPlace&)>& change, bool stopsAtKeychain)
{
    constexpr auto patience = std::chrono::minutes(4); // longer than any one place takes
    const FileLock turn(turnLock, patience);
    if (!turn.isHeld()) {
        report(systemKeychainName, false, std::string("another run does not end (") + turnLock + ")");
        return exitFailure;
    }
    int status = exitSuccess;
    for (const auto& place : trustPlaces()) {
        const Outcome outcome = attempt([&] { return change(*place); });
        if (report(place->name(), outcome.succeeded(), outcome.text) || !place->decides())
            continue;
        status = exitFailure;
        if (stopsAtKeychain && place->name() == systemKeychainName)
            break;
    }
    return status;
}

bool requireAdministrator()
{
    return authorization::currentBackend()->isAdministrator()
        || report(systemKeychainName, false, statusText(errAuthorizationDenied));
}

std::string statusText(OSStatus status)
{
    const auto text = SecCopyErrorMessageString(status, nullptr);
    return (text ? toUTF8(text) : std::string("unknown error")) + " (" + std::to_string(status) + ")";
}

} // namespace kf::security
