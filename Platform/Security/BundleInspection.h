// Looking into a PKCS#12 bundle before anything is done with it.
#pragma once

#include "Security/Certificate/CertificateFields.h"

namespace kf {

/// What a person is told of a bundle that can be imported.
struct BundleInspection {
    Bytes der;          ///< the certificate
    std::string name;   ///< of the certificate: its common name, else what comes next (CertificateFields::label); UTF-8
    std::string issuer; ///< the same of its issuer; empty where that has no name
    std::vector<std::string> emailAddresses;
    std::int64_t notBefore = 0; ///< seconds since the Unix epoch
    std::int64_t notAfter = 0;
    /// The bundle holds a certificate that goes by the authority's name and is another one.
    bool holdsImpostor = false;
};

/// Reads a bundle with the import's own code and writes nothing. `passphrase` is UTF-8; `authority` is the DER of the
/// institution's authority. Takes seconds where the bundle's iteration counts are high; what was read of the last
/// bundle, its key too, stays in memory until it is imported or forgotten, so that the import does not take them again.
/// Any thread. Errors: those of SecKeychainItemImport.
Result<BundleInspection> inspectBundle(std::span<const std::uint8_t> pkcs12, std::span<const std::uint8_t> passphrase,
    std::span<const std::uint8_t> authority);

/// Wipes what the last inspection left for an import. Any thread.
void forgetInspectedBundle();

/// The paths of the searched keychains that hold a certificate which is found by the authority's name and is another
/// one. A keychain that cannot be read is left out. Any thread.
std::vector<std::string> keychainsWithImpostor(std::span<const std::uint8_t> authority);

} // namespace kf
