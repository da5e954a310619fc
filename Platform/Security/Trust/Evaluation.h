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

} // namespace kf::trust
