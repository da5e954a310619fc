#include "Security/Authorization/Backend.h"
#include "Security/Keychain/DatabaseFiles.h"
#include "Security/Keychain/KeychainAccess.h"
#include "security/CertificateFile.h"
#include "security/Commands.h"
#include "security/FileTools.h"
#include "security/SystemKeychain.h"
#include "security/TrustedCertificate.h"

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

int trustForTheUser(const TrustedCertificate& read)
{
    if (isTrustedAsRoot(read.certificate, kSecTrustSettingsDomainUser)) {
        report(defaultKeychainName, true, "was trusted already");
        return exitSuccess;
    }
    const OSStatus status =
        SecTrustSettingsSetTrustSettings(read.certificate, kSecTrustSettingsDomainUser, trustAsRoot());
    const bool isDone = status == errSecSuccess;
    return report(defaultKeychainName, isDone, isDone ? "trusted" : statusText(status)) ? exitSuccess : exitFailure;
}

int trustForEverybody(const TrustedCertificate& read)
{
    return changeEveryPlace([&](TrustPlace& place) { return place.add(read.der); }, true);
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
    const std::string path = arguments.value('k').value_or(std::string());
    const SecKeychainRef keychain = keychainAt(path);
    const bool isAnother = arguments.has('k') && !CFEqual(keychain, keychainOf(domain));
    if (isAnother) {
        if (const OSStatus status = statusOfWriting(keychain, read.der); status != errSecSuccess) {
            report(shownText(path), false, statusText(status));
            return exitFailure;
        }
    }
    const int status = arguments.has('d') ? trustForEverybody(read) : trustForTheUser(read);
    const bool isAdded = !isAnother || addToKeychain(read, shownText(path), keychain);
    return isAdded ? status : exitFailure;
}

} // namespace kf::security
