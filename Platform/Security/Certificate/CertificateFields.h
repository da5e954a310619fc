// What the keychain service reads from a certificate's DER.
#pragma once

#include "Security/Result.h"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kf {

using Bytes = std::vector<std::uint8_t>;
/// SHA-256: the name for good of an object, whatever database holds it.
using Digest = std::array<std::uint8_t, 32>;

Digest sha256(std::span<const std::uint8_t> bytes);
std::array<std::uint8_t, 20> sha1(std::span<const std::uint8_t> bytes);

/// The fields that keychains index and show. Spans point into the DER given.
struct CertificateFields {
    std::span<const std::uint8_t> serial;  ///< the INTEGER with tag and length
    std::span<const std::uint8_t> issuer;  ///< the Name, DER
    std::span<const std::uint8_t> subject; ///< the Name, DER
    /// SHA-1 of the RSA modulus (unsigned, no leading zero), or of the EC point or
    /// raw public key: CKA_ID of the private key that belongs to it.
    std::array<std::uint8_t, 20> keyId{};
    Bytes subjectKeyIdentifier; ///< the extension's value; empty without one
    std::string commonName;     ///< UTF-8; empty without one
    /// Common name, else organizational unit, else organization, else the serial number in hexadecimal.
    std::string label;
    /// emailAddress values of the subject, then rfc822 subject alternative
    /// names; UTF-8, repeats kept.
    std::vector<std::string> emailAddresses;
    std::int64_t notBefore = 0; ///< seconds since the Unix epoch
    std::int64_t notAfter = 0;
    bool isCA = false;

    /// First e-mail address, else the common name.
    const std::string& alias() const noexcept { return emailAddresses.empty() ? commonName : emailAddresses.front(); }
};

/// Reads exactly one DER certificate (RFC 5280) without decoding its public key
/// into a key object. errSecUnknownFormat where the bytes are anything else or
/// bytes follow it.
Result<CertificateFields> readCertificateFields(std::span<const std::uint8_t> der);

/// What a Name (DER) reads as: its common name, else its organizational unit, else its organization; UTF-8, empty where
/// it has none of them.
std::string shortName(std::span<const std::uint8_t> name);

} // namespace kf
