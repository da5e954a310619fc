// What stands where, read anew.
#pragma once

#include "Security/Certificate/CertificateFields.h"

#include <string>

namespace kf {

/// What one keychain holds of a certificate.
struct KeychainHolding {
    OSStatus status = errSecSuccess; ///< why it could not be read; the rest is false then
    bool certificate = false;
    bool privateKey = false; ///< that belongs to the certificate
    bool trusted = false;    ///< as an authority, by a trust setting of this keychain
};

/// Where a member's certificate and the institution's authority stand.
struct InstalledState {
    std::string defaultKeychain; ///< its path; empty where there is none
    KeychainHolding personal;    ///< in the default keychain
    KeychainHolding authorityForUser;
    KeychainHolding authorityForAll; ///< in the System keychain
    bool authorityInDistributionStore = false;
};

/// Reads the keychains and the distribution's store; both certificates are DER. A locked keychain is asked for, as
/// everywhere. Writes nothing. Any thread.
InstalledState readInstalledState(
    std::span<const std::uint8_t> personalCertificate, std::span<const std::uint8_t> authority);

/// How many certificates of the searched keychains carry an e-mail address (byte for byte) and have their private key
/// beside them. A locked keychain is asked for. Any thread.
Result<std::size_t> countIdentities(const std::string& emailAddress);

/// What the NSS database at a path holds of a certificate; its key and its trust are not looked at. Another program's
/// database will do.
KeychainHolding readForeignDatabase(const std::string& path, std::span<const std::uint8_t> certificate);

/// Whether the NSS database at a path says that an authority is trusted for servers. errSecInteractionNotAllowed where
/// the database is locked: another program's pass phrase is not asked for. Any thread.
Result<bool> foreignDatabaseTrusts(const std::string& path, std::span<const std::uint8_t> authority);

} // namespace kf
