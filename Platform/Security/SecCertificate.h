// Certificates.
#pragma once

#include "Security/SecKeychainItem.h"

#include <memory>

namespace kf::keychain {
struct ParsedCertificate;
}

/// One X.509 certificate: a keychain item, or loose bytes in no keychain.
class SecCertificate final : public SecKeychainItem {
public:
    const kf::keychain::ParsedCertificate& parsed() const noexcept { return *parsed_; }
    const std::shared_ptr<const kf::keychain::ParsedCertificate>& sharedParsed() const noexcept { return parsed_; }
    const char* className() const noexcept override { return "SecCertificate"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    SecCertificate(std::shared_ptr<const kf::keychain::ParsedCertificate> parsed, SecKeychainRef keychain) noexcept;
    ~SecCertificate() override;

    std::shared_ptr<const kf::keychain::ParsedCertificate> parsed_;
};
using SecCertificateRef = Ref<SecCertificate>;

/// A certificate in no keychain from its DER bytes (copied); the caller owns
/// it. errSecParam for another type or encoding, errSecUnknownFormat where the
/// bytes are not exactly one DER certificate.
OSStatus SecCertificateCreateFromData(
    const CSSM_DATA* data, CSSM_CERT_TYPE type, CSSM_CERT_ENCODING encoding, SecCertificateRef* certificate);

/// Adds a certificate to a keychain (nil: the default one).
/// errSecDuplicateItem where it is there already.
OSStatus SecCertificateAddToKeychain(const SecCertificateRef& certificate, const SecKeychainRef& keychain);

/// The DER bytes; `*data` points into the certificate and lives as long.
OSStatus SecCertificateGetData(const SecCertificateRef& certificate, CSSM_DATA* data);

/// The certificate's e-mail addresses: emailAddress values of its subject, then
/// its subject alternative names of type e-mail, repeats kept; an array of
/// NSString owned by the caller, possibly empty.
OSStatus SecCertificateCopyEmailAddresses(const SecCertificateRef& certificate, Ref<NSArray>* emailAddresses);
