// What the commands about trusted certificates share.
#pragma once

#include "Security/Certificate/CertificateFields.h"
#include "Security/SecTrust.h"
#include "security/TrustPlace.h"

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

/// The certificate in no keychain; nil where the bytes are none.
SecCertificateRef certificateFrom(const Bytes& der);

/// The setting that makes a certificate a trusted root for servers and e-mail.
Ref<NSDictionary> trustAsRoot();
bool isTrustedAsRoot(const SecCertificateRef& certificate, SecTrustSettingsDomain domain);
/// The same for another result.
Ref<NSDictionary> settingFor(SecTrustSettingsResult result);
bool hasSetting(const SecCertificateRef& certificate, SecTrustSettingsDomain domain, SecTrustSettingsResult result);

/// Tells what came of one place; returns `succeeded`.
bool report(const std::string& place, bool succeeded, const std::string& text);

/// Changes every place of the machine, one after the other and each told by
/// itself, while no other run does. Gives the exit status: what the deciding
/// places make of it. `stopsAtKeychain`: what the System keychain does not
/// take is not published.
int changeEveryPlace(const std::function<Outcome(TrustPlace&)>& change, bool stopsAtKeychain);

/// Whether this process may change what everybody trusts; tells where it may not.
bool requireAdministrator();

/// The platform's text for a status.
std::string statusText(OSStatus status);

} // namespace kf::security
