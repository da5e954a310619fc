// The second job: the person's own certificate.

#include "AppKit/MainThread.h"
#include "Certificates/NSData+KeyfoldAdditions.h"
#include "Certificates/X509Certificate.h"
#include "Foundation/Guarded.h"
#include "Foundation/NSDictionary.h"
#include "Foundation/NSLog.h"
#include "Keychain/KeychainTools.h"
#include "Pane/KFInstallerPane+Private.h"
#include "PaneConfiguration.h"
#include "Security/SecIdentity.h"

namespace {

/// Nil for nil.
Ref<NSString> emailAddressForLogin(const Ref<NSString>& login)
{
    return login ? login->stringByAppendingString(NSString::stringWithUTF8String(kf::configuration::emailDomain))
                 : nullptr;
}

// Without a login name nothing is this person's: an address made of the domain
// alone must not find anything to delete.
Ref<NSArray> identitiesOf(const Ref<NSString>& login, const Ref<NSString>& emailAddress)
{
    return login && login->length() > 0 ? KeychainTools::identitiesForEmailAddress(emailAddress) : nullptr;
}

Ref<NSString> issuerOrganization(const SecCertificateRef& certificate)
{
    const Ref<NSDictionary> fields = X509Certificate::extractCertDictFromCert(certificate);
    const auto issuer = fields ? fields->objectAs<NSDictionary>("Issuer"_ns) : nullptr;
    return issuer ? issuer->objectAs<NSString>("Organization"_ns) : nullptr;
}

void deleteKeyAndCertificate(
    const SecKeyRef& key, const SecCertificateRef& certificate, const Ref<NSString>& emailAddress)
{
    OSStatus status = SecKeychainItemDelete(key);
    if (status != errSecSuccess) {
        // The missing quote is part of the line that log readers know.
        NSLog("\tError deleting key for '%@: %@", emailAddress, KeychainTools::stringForErrorCode(status));
        return;
    }
    status = SecKeychainItemDelete(certificate);
    if (status != errSecSuccess)
        NSLog("\tError deleting cert for '%@': %@", emailAddress, KeychainTools::stringForErrorCode(status));
}

// An identity is no item of a keychain; what it is made of is.
void deleteImportedItem(const Ref<NSObject>& item)
{
    const SecIdentityRef identity = refCast<SecIdentity>(item);
    if (!identity) {
        SecKeychainItemDelete(refCast<SecKeychainItem>(item));
        return;
    }
    SecKeyRef key;
    SecCertificateRef certificate;
    SecIdentityCopyPrivateKey(identity, &key);
    SecIdentityCopyCertificate(identity, &certificate);
    SecKeychainItemDelete(key);
    SecKeychainItemDelete(certificate);
}

} // namespace

void KFInstallerPane::installPersonalCertificate()
{
    showMessage("Installing your personal certificate"_ns);
    Private::setState(this, -1, personalStatus_);
    OSStatus status = errSecInternalComponent;
    Ref<NSArray> items;
    kf::guarded("installPersonalCertificate", [&] {
        offerToDeleteOldCertificates();
        status = importBundle(&items);
    });
    // Whatever happened: bundle and pass phrase do not stay behind, and the sphere does not stay gray.
    setValue(nullptr, "pkcs12"_ns);
    setValue(nullptr, "downloadpassword"_ns);
    if (!kf::guarded("installPersonalCertificate", [&] { reportImport(status, items); }))
        Private::setState(this, 0, personalStatus_);
}

void KFInstallerPane::offerToDeleteOldCertificates()
{
    const Ref<NSString> login = refCast<NSString>(valueForField("login"_ns));
    const Ref<NSString> emailAddress = emailAddressForLogin(login);
    const Ref<NSArray> identities = identitiesOf(login, emailAddress);
    NSLog("Found %d identities for address '%@'", static_cast<std::int32_t>(countOf(identities)), emailAddress);

    NSInteger alertResult = NSAlertDefaultReturn;
    if (countOf(identities) > 0) {
        // Stored before anything can go wrong with the question itself.
        alertResult_ = NSAlertDefaultReturn;
        performSelectorOnMainThread(
            kf::selector("identityAlert", this, &KFInstallerPane::identityAlert), nullptr, true);
        alertResult = alertResult_;
    }
    if (alertResult == NSAlertAlternateReturn) {
        deleteOldIdentities(identities, emailAddress);
        deleteOldCertificates(emailAddress);
    }
}

void KFInstallerPane::identityAlert()
{
    alertResult_ = NSAlertDefaultReturn;
    const Ref<NSAlert> alert =
        NSAlert::alertWithMessageText("Existing certificates found"_ns, "No"_ns, "Yes"_ns, nullptr, "%@\n\n%@\n\n%@",
            "You appear to have one or more old certificates installed. Would you like to delete them?"_ns,
            "WARNING: If you have used S/MIME for email encryption, do not delete your certificates"_ns,
            NSStringWithFormat("For more information, see %s", kf::configuration::helpURL));
    alert->setDelegate(this);
    alert->setShowsHelp(true);
    alert->setAlertStyle(NSCriticalAlertStyle);
    alertResult_ = alert->runModal();
}

void KFInstallerPane::deleteOldIdentities(const Ref<NSArray>& identities, const Ref<NSString>& emailAddress)
{
    for (const Ref<NSObject>& object : *identities) {
        const SecIdentityRef identity = refCast<SecIdentity>(object);
        SecCertificateRef certificate;
        SecKeyRef key;
        SecIdentityCopyCertificate(identity, &certificate);
        SecIdentityCopyPrivateKey(identity, &key);
        if (CFEqual(issuerOrganization(certificate), "Orvane Collegium"_ns))
            deleteKeyAndCertificate(key, certificate, emailAddress);
    }
}

// Whoever issued them: after "Yes", every certificate for the address goes.
void KFInstallerPane::deleteOldCertificates(const Ref<NSString>& emailAddress)
{
    const Ref<NSArray> certificates = KeychainTools::certificatesForEmailAddress(emailAddress);
    if (!certificates)
        return;
    for (const Ref<NSObject>& certificate : *certificates) {
        const OSStatus status = SecKeychainItemDelete(refCast<SecKeychainItem>(certificate));
        if (status != errSecSuccess)
            NSLog("\tError deleting certificate for '%@': %@", emailAddress, KeychainTools::stringForErrorCode(status));
    }
}

OSStatus KFInstallerPane::importBundle(Ref<NSArray>* items)
{
    const Ref<NSData> bundle =
        KeyfoldAdditions::dataWithBase64EncodedString(refCast<NSString>(valueForField("pkcs12"_ns)));
    SecKeyImportExportParameters parameters;
    parameters.passphrase = refCast<NSString>(valueForField("downloadpassword"_ns));
    parameters.keyUsage = CSSM_KEYUSE_ANY;
    parameters.keyAttributes = CSSM_KEYATTR_SENSITIVE | CSSM_KEYATTR_EXTRACTABLE;
    SecExternalFormat format = kSecFormatPKCS12;
    SecExternalItemType type = kSecItemTypeAggregate;
    SecKeychainRef keychain;
    SecKeychainCopyDefault(&keychain);
    return SecKeychainItemImport(bundle, "p12"_ns, &format, &type, 0, &parameters, keychain, items);
}

void KFInstallerPane::reportImport(OSStatus status, const Ref<NSArray>& items)
{
    if (status == errSecSuccess && items) {
        NSLog("Imported %d items", static_cast<std::int32_t>(items->count()));
        if (items->count() > 0)
            setValue(items->objectAtIndex(0), "UserSecIdentityRef"_ns);
        showMessage("Personal certificate has been successfully installed"_ns);
        Private::setState(this, 1, personalStatus_);
        return;
    }
    const Ref<NSString> statusText = KeychainTools::stringForErrorCode(status);
    NSLog("Error loading certificate: %@ (%d)", statusText, status);
    if (items) {
        for (const Ref<NSObject>& item : *items)
            deleteImportedItem(item);
    }
    showMessage(NSStringWithFormat("Failed to install your personal certificate:\n%@", statusText));
    Private::setState(this, 0, personalStatus_);
}
