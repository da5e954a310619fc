#include "Security/Authorization/Backend.h"
#include "Security/Keychain/DatabaseFiles.h"
#include "Security/Keychain/KeychainAccess.h"
#include "security/CertificateFile.h"
#include "security/Commands.h"
#include "security/FileTools.h"
#include "security/SystemKeychain.h"
#include "security/TrustedCertificate.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace kf::security {

namespace {

SecKeychainRef keychainOf(SecTrustSettingsDomain domain)
{
    SecKeychainRef keychain;
    if (domain == kSecTrustSettingsDomainAdmin)
        return keychain::systemKeychain();
    static_cast<void>(SecKeychainCopyDefault(&keychain));
    return keychain;
}

SecKeychainRef keychainAt(const std::string& path)
{
    SecKeychainRef keychain;
    static_cast<void>(SecKeychainOpen(path.c_str(), &keychain));
    return keychain;
}

/// Whether a keychain could be made at a path: errSecSuccess, or why not.
OSStatus statusOfMaking(const std::string& path)
{
    std::filesystem::path ancestor = path;
    struct stat status = {};
    while (::stat(ancestor.c_str(), &status) != 0 && ancestor.has_relative_path())
        ancestor = ancestor.parent_path();
    if (!S_ISDIR(status.st_mode))
        return errSecKeychainWrongType;
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        return errSecWrPerm;
    return ::faccessat(AT_FDCWD, ancestor.c_str(), W_OK | X_OK, AT_EACCESS) == 0 ? errSecSuccess : errSecReadOnly;
}

/// Whether a keychain will take a certificate, as far as can be told before anything is written.
OSStatus statusOfWriting(const SecKeychainRef& keychain, const Bytes& certificate)
{
    if (!keychain)
        return errSecInvalidKeychain;
    if (CFEqual(keychain, keychain::systemKeychain()) && !authorization::currentBackend()->isAdministrator())
        return errAuthorizationDenied;
    const auto files = keychain::inspectDatabase(keychain->path());
    if (files.status() == errSecNoSuchKeychain)
        return statusOfMaking(keychain->path());
    if (!files)
        return files.status();
    if (files->writing != errSecSuccess)
        return files->writing;
    // Opens and unlocks it.
    const OSStatus status = keychain::readTrust(keychain, certificate).status();
    return status == errSecItemNotFound ? errSecSuccess : status;
}

/// Adds the certificate to a keychain besides the one that holds its setting.
bool addToKeychain(const TrustedCertificate& read, const std::string& place, const SecKeychainRef& keychain)
{
    if (CFEqual(keychain, keychain::systemKeychain())) {
        if (const std::string error = SystemKeychain::noteAddition(read.der); !error.empty())
            return report(place, false, error);
    }
    const OSStatus status = SecCertificateAddToKeychain(read.certificate, keychain);
    if (status == errSecDuplicateItem)
        return report(place, true, "the certificate was there already");
    return report(place, status == errSecSuccess, status == errSecSuccess ? "certificate added" : statusText(status));
}

struct Kind {
    std::string_view name; ///< as -r takes it
    SecTrustSettingsResult result;
    const char* was; ///< what is told where the setting was there
    const char* is;  ///< and where it has been written
};

constexpr std::array kinds = {
    Kind{"trustRoot", kSecTrustSettingsResultTrustRoot, "was trusted already", "trusted"},
    Kind{"trustAsRoot", kSecTrustSettingsResultTrustAsRoot, "was trusted already", "trusted by itself"},
    Kind{"deny", kSecTrustSettingsResultDeny, "was denied already", "denied"},
    Kind{"unspecified", kSecTrustSettingsResultUnspecified, "had no word on it already", "no word on it any more"},
};

std::string whyNotOfKind(const Bytes& certificate, const Kind& kind)
{
    switch (kind.result) {
    case kSecTrustSettingsResultTrustRoot:
        return whyNotAdmissible(certificate);
    case kSecTrustSettingsResultTrustAsRoot:
        return whyNotAdmissibleItself(certificate);
    default:
        return {}; // whatever it is, it may be distrusted
    }
}

int setForTheUser(const TrustedCertificate& read, const Kind& kind)
{
    if (hasSetting(read.certificate, kSecTrustSettingsDomainUser, kind.result)) {
        report(defaultKeychainName, true, kind.was);
        return exitSuccess;
    }
    const OSStatus status =
        SecTrustSettingsSetTrustSettings(read.certificate, kSecTrustSettingsDomainUser, settingFor(kind.result));
    const bool isDone = status == errSecSuccess;
    return report(defaultKeychainName, isDone, isDone ? kind.is : statusText(status)) ? exitSuccess : exitFailure;
}

/// The other places hold trusted roots and nothing else: from them a
/// certificate that is none is taken out where we put it in.
Outcome setInPlace(TrustPlace& place, const Bytes& certificate, const Kind& kind)
{
    if (kind.result == kSecTrustSettingsResultTrustRoot)
        return place.add(certificate);
    if (place.name() != systemKeychainName)
        return place.remove(certificate);
    const Outcome outcome = SystemKeychain::set(certificate, kind.result);
    switch (outcome.kind) {
    case Outcome::Kind::unchanged:
        return unchanged(kind.was);
    case Outcome::Kind::done:
        return done(kind.is);
    default:
        return outcome;
    }
}

int setForEverybody(const TrustedCertificate& read, const Kind& kind)
{
    return changeEveryPlace([&](TrustPlace& place) { return setInPlace(place, read.der, kind); }, true);
}

} // namespace

int addTrustedCert(const Arguments& arguments)
{
    if (arguments.operands.size() != 1)
        return wrongUse("add-trusted-cert", "needs exactly one certificate file");
    const std::string name = arguments.value('r').value_or("trustRoot");
    const auto kind = std::ranges::find(kinds, name, &Kind::name);
    if (kind == kinds.end())
        return wrongUse("add-trusted-cert", "unknown kind of trust \"" + shownText(name) + "\"");
    if (arguments.value('p').value_or("basic") != "basic")
        return wrongUse("add-trusted-cert", "unknown policy \"" + shownText(*arguments.value('p')) + "\"");
    const TrustedCertificate read = readOperand(arguments.operands[0]);
    if (!read.certificate)
        return exitFailure;
    if (const std::string reason = whyNotOfKind(read.der, *kind); !reason.empty()) {
        report(read.path, false, reason);
        return exitFailure;
    }
    const auto domain = arguments.has('d') ? kSecTrustSettingsDomainAdmin : kSecTrustSettingsDomainUser;
    if (domain == kSecTrustSettingsDomainAdmin && !requireAdministrator())
        return exitFailure;
    const std::string path = arguments.value('k').value_or(std::string());
    const SecKeychainRef keychain = keychainAt(path);
    const bool isAnother = arguments.has('k') && !CFEqual(keychain, keychainOf(domain));
    if (isAnother) {
        if (const OSStatus status = statusOfWriting(keychain, read.der); status != errSecSuccess) {
            report(shownText(path), false, statusText(status));
            return exitFailure;
        }
    }
    const int status = arguments.has('d') ? setForEverybody(read, *kind) : setForTheUser(read, *kind);
    const bool isAdded = !isAnother || addToKeychain(read, shownText(path), keychain);
    return isAdded ? status : exitFailure;
}

} // namespace kf::security
