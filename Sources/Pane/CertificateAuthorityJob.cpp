// The first job: the institution's root certificate.

#include "AppKit/MainThread.h"
#include "Foundation/Guarded.h"
#include "Foundation/NSData.h"
#include "Foundation/NSDictionary.h"
#include "Foundation/NSLog.h"
#include "Keychain/KFUtilities.h"
#include "Keychain/KeychainTools.h"
#include "Keychain/SFAuthorization+Execute.h"
#include "Pane/KFInstallerPane+Private.h"
#include "Pane/PaneBundle.h"
#include "Security/SecTrust.h"

namespace {

const Ref<NSString>& authorityAlias()
{
    static const Ref<NSString> alias = "Orvane Certification Authority"_ns;
    return alias;
}

Ref<NSString> authorityFile()
{
    const Ref<NSBundle> bundle = kf::paneBundle();
    return bundle ? bundle->pathForResource("orvane_ca"_ns, "der"_ns) : nullptr;
}

Ref<NSArray> toolArguments(const Ref<NSString>& certificateFile)
{
    return NSArray::arrayWithObjects(
        {"add-trusted-cert"_ns, "-k"_ns, NSStringWithFormat("%s%s", "/Library/Keychains/", "System.keychain"), "-d"_ns,
            "-r"_ns, "trustRoot"_ns, certificateFile ? certificateFile : NSString::string()});
}

// Whether it worked shows when the certificate is looked up again: one that is
// there already is as good as a new one.
void addToDefaultKeychain(const Ref<NSString>& certificateFile)
{
    const Ref<NSData> data = certificateFile ? NSData::dataWithContentsOfFile(certificateFile) : nullptr;
    const SecCertificateRef certificate = KeychainTools::createCertificateWithData(data);
    SecKeychainRef keychain;
    SecKeychainCopyDefault(&keychain);
    if (certificate && keychain)
        SecCertificateAddToKeychain(certificate, keychain);
}

SecTrustResultType evaluate(const Ref<NSArray>& certificates, const SecPolicyRef& policy)
{
    SecTrustResultType result = kSecTrustResultDeny;
    SecTrustRef trust;
    SecTrustCreateWithCertificates(certificates, policy, &trust);
    SecTrustEvaluate(trust, &result);
    return result;
}

} // namespace

void KFInstallerPane::installCertificateAuthority()
{
    Private::setState(this, -1, authorityStatus_);
    if (!kf::guarded("installCertificateAuthority", [this] { findOrInstallAuthority(); }))
        failAuthority("Failed to install the certificate authority"_ns);
}

void KFInstallerPane::findOrInstallAuthority()
{
    bool installedByTool = false;
    if (countOf(KFUtilities::certificatesForAlias(authorityAlias())) == 0
        && !installAuthorityCertificate(&installedByTool))
        return;
    const Ref<NSArray> certificates = KFUtilities::certificatesForAlias(authorityAlias());
    if (countOf(certificates) == 0) {
        failAuthority("Failed to install the certificate authority"_ns);
        return;
    }
    trustAuthority(certificates, installedByTool);
}

/// False where the job ends here.
bool KFInstallerPane::installAuthorityCertificate(bool* installedByTool)
{
    const Ref<NSString> certificateFile = authorityFile();
    Ref<NSError> error;
    const Ref<SFAuthorization> authorization = authorize(&error);
    if (!authorization) {
        addToDefaultKeychain(certificateFile);
        return true;
    }
    // A tool that ran and failed leaves no error: the second lookup decides.
    Execute::executePrivilegedTool(
        authorization, "/usr/bin/security"_ns, toolArguments(certificateFile), true, nullptr, &error);
    if (error) {
        failAuthority(
            NSStringWithFormat("Failed to install the certificate authority:\n%@", error->localizedDescription()));
        NSLog("Root install error: %@", error);
        return false;
    }
    *installedByTool = true;
    return true;
}

void KFInstallerPane::trustAuthority(const Ref<NSArray>& certificates, bool installedByTool)
{
    NSLog("Found %d certificates", static_cast<std::int32_t>(certificates->count()));
    const SecPolicyRef policy = KFSecPolicyCreateBasicX509();
    if (evaluate(certificates, policy) == kSecTrustResultProceed) {
        Private::setState(this, 1, authorityStatus_);
        showMessage("Certificate authority is valid"_ns);
        return;
    }
    Ref<NSMutableDictionary> settings = NSMutableDictionary::dictionary();
    if (policy)
        settings->setObjectForKey(policy, "kSecTrustSettingsPolicy"_ns);
    const OSStatus status = SecTrustSettingsSetTrustSettings(certificates->objectAs<SecCertificate>(0),
        installedByTool ? kSecTrustSettingsDomainAdmin : kSecTrustSettingsDomainUser, settings);
    const Ref<NSString> statusText = KeychainTools::stringForErrorCode(status);
    NSLog("%@", statusText);
    if (status != errSecSuccess) {
        failAuthority(NSStringWithFormat("Failed to install the certificate authority:\n%@", statusText));
        return;
    }
    Private::setState(this, 1, authorityStatus_);
    showMessage("Certificate authority is valid"_ns);
}

void KFInstallerPane::failAuthority(const Ref<NSString>& message)
{
    Private::setState(this, 0, authorityStatus_);
    showError(message);
}
