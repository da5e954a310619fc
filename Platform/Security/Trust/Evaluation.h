// Deciding whether a certificate is trusted.
#pragma once

#include "Security/Keychain/KeychainAccess.h"
#include "Security/SecTrust.h"

namespace kf::trust {

/// What a trust object says under the basic X.509 policy, which covers servers
/// and e-mail: denied where either is, trusted where both are.
keychain::TrustLevel basicLevel(const keychain::Trust& trust) noexcept;

/// Evaluates the first certificate under the basic X.509 policy, as
/// SecTrustEvaluate says. errSecUnknownFormat where it is no certificate that
/// can be read.
Result<SecTrustResultType> evaluate(const std::vector<SecCertificateRef>& certificates);

/// A result and, where it trusts nobody, why: OpenSSL's texts, those about the
/// certificate itself rather than about one of the two kinds of anchors.
struct Evaluation {
    SecTrustResultType result = kSecTrustResultInvalid;
    std::vector<std::string> reasons;
};
Result<Evaluation> evaluateWithReasons(const std::vector<SecCertificateRef>& certificates);

} // namespace kf::trust
