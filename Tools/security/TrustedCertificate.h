// What the two commands about trusted certificates share.
#pragma once

#include "Security/Certificate/CertificateFields.h"
#include "Security/SecTrust.h"

#include <string>

namespace kf::security {

inline constexpr const char* systemKeychainName = "System keychain";
inline constexpr const char* defaultKeychainName = "default keychain";

/// The one operand's certificate, read and parsed.
struct TrustedCertificate {
    std::string path;
    Bytes der;
    SecCertificateRef certificate; ///< nil where it could not be read; that has been told then
};

/// Reads it; tells on standard error why it cannot.
TrustedCertificate readOperand(const std::string& path);

/// Tells what came of one place; returns `succeeded`.
bool report(const std::string& place, bool succeeded, const std::string& text);

/// Whether this process may change what everybody trusts; tells where it may not.
bool requireAdministrator();

/// The platform's text for a status.
std::string statusText(OSStatus status);

} // namespace kf::security
