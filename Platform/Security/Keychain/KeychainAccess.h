// What the trust service needs of keychains, beyond the public calls.
#pragma once

#include "Security/Certificate/CertificateFields.h"
#include "Security/SecCertificate.h"

namespace kf::keychain {

/// One purpose's word in a certificate's trust object.
enum class TrustLevel : std::uint8_t {
    unspecified, ///< nothing said (CKT_NSS_MUST_VERIFY_TRUST)
    trusted,     ///< anchor of chains (CKT_NSS_TRUSTED_DELEGATOR)
    trustedPeer, ///< this certificate itself (CKT_NSS_TRUSTED)
    denied,      ///< CKT_NSS_NOT_TRUSTED
};

/// What a keychain says of a certificate's trustworthiness.
struct Trust {
    TrustLevel server = TrustLevel::unspecified;
    TrustLevel client = TrustLevel::unspecified;
    TrustLevel email = TrustLevel::unspecified;
    TrustLevel codeSigning = TrustLevel::unspecified;
    friend bool operator==(const Trust&, const Trust&) = default;
};

/// The keychain of machine-wide items.
SecKeychainRef systemKeychain();

/// The trust object that a keychain holds for a certificate; errSecItemNotFound without one.
Result<Trust> readTrust(const SecKeychainRef& keychain, std::span<const std::uint8_t> certificate);
/// Writes or replaces it; the certificate is added to the keychain first where
/// it is missing there. Both or neither.
Status writeTrust(const SecKeychainRef& keychain, std::span<const std::uint8_t> certificate, const Trust& trust);
/// Takes the trust object out; the certificate stays. errSecItemNotFound without one.
Status removeTrust(const SecKeychainRef& keychain, std::span<const std::uint8_t> certificate);

/// The certificates of a keychain whose subject is `subject` (DER of the Name).
Result<std::vector<SecCertificateRef>> certificatesWithSubject(
    const SecKeychainRef& keychain, std::span<const std::uint8_t> subject);

} // namespace kf::keychain
