// Reading PKCS#12 bundles (RFC 7292).
#pragma once

#include "Security/Keychain/Backend.h"

namespace kf::keychain {

struct BundleCertificate {
    Bytes der;
    std::string label; ///< the bundle's friendly name, else the certificate's own
};

/// A bundle that is whole: one private key, its certificate, and what helps to verify that.
struct Bundle {
    PrivateKey key;
    BundleCertificate leaf;
    std::vector<BundleCertificate> chain; ///< from the leaf's issuer upwards, then the rest
};

/// What one bundle may hold; keys count though all must be the same.
inline constexpr std::size_t mostBundleCertificates = 64;
inline constexpr std::size_t mostBundleKeys = 8;

/// Reads a bundle and proves that its key's numbers belong together and to its certificate; that an RSA key's primes
/// are prime is taken on trust. `passphrase` is UTF-8; an empty one is a pass phrase too. Takes seconds where the
/// bundle's iteration counts are high. A bundle without MAC is taken: the pass phrase is proven by what it opens.
/// Errors: those of SecKeychainItemImport.
Result<Bundle> readBundle(std::span<const std::uint8_t> data, std::span<const std::uint8_t> passphrase);

} // namespace kf::keychain
