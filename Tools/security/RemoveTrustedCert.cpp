#include "security/Commands.h"
#include "security/TrustedCertificate.h"

namespace kf::security {

namespace {

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
    return changeEveryPlace([&](TrustPlace& place) { return place.remove(read.der); }, false);
}

} // namespace kf::security
