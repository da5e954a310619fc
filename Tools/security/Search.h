// Finding what a command is about.
#pragma once

#include "Security/Certificate/CertificateFields.h"
#include "Security/SecIdentity.h"
#include "security/Arguments.h"

#include <optional>
#include <string>
#include <vector>

namespace kf::security {

/// Which certificates are meant: those that have all that is said here.
struct Selection {
    std::optional<std::string> commonName;   ///< byte for byte
    std::optional<std::string> emailAddress; ///< any of the certificate's; ASCII letters in either case
    std::optional<std::string> digest;       ///< SHA-256 or SHA-1, hexadecimal, in capitals

    bool isEmpty() const noexcept { return !commonName && !emailAddress && !digest; }
    bool matches(const SecCertificateRef& certificate) const;
};

/// What -c, -e and -Z with a value say; nothing where a name is empty or the digest is none.
std::optional<Selection> selectionOf(const Arguments& arguments);

/// The keychains at these paths, or, without paths, the search list. Nothing
/// where one is not to be found so; that has been told then.
std::optional<std::vector<SecKeychainRef>> keychainsOf(const std::vector<std::string>& paths);

template <class T>
struct Found {
    std::vector<Ref<T>> items;
    bool isComplete = true; ///< false where a keychain could not be read, which has been told
};

/// Certificates in the order of the keychains, all or up to the first.
Found<SecCertificate> findCertificates(
    const std::vector<SecKeychainRef>& keychains, const Selection& selection, bool firstOnly = false);
Found<SecIdentity> findIdentities(const std::vector<SecKeychainRef>& keychains, const Selection& selection);

/// The one item found; nil, which has been told then, where there is none or
/// more, or where a keychain that could not be read might hold another.
SecCertificateRef onlyOne(const std::string& command, const Found<SecCertificate>& found);
SecIdentityRef onlyOne(const std::string& command, const Found<SecIdentity>& found);

/// Label and digest, on one line.
std::string describe(const SecCertificateRef& certificate);

/// The DER, which lives as long as the certificate.
std::span<const std::uint8_t> derOf(const SecCertificateRef& certificate);
/// The label that a keychain shows for it; empty where it is gone.
std::string labelOf(const SecCertificateRef& certificate);
/// SHA-256 and SHA-1 in hexadecimal, in capitals.
std::string sha256Of(const SecCertificateRef& certificate);
std::string sha1Of(const SecCertificateRef& certificate);

} // namespace kf::security
