#include "security/TrustedCertificate.h"

#include "Security/Authorization/Backend.h"
#include "security/CertificateFile.h"

#include <iostream>

namespace kf::security {

TrustedCertificate readOperand(const std::string& path)
{
    TrustedCertificate read{path, {}, nullptr};
    CertificateFile file = readCertificateFile(path);
    if (!file.der) {
        report(path, false, file.error);
        return read;
    }
    read.der = std::move(*file.der);
    const CSSM_DATA data{read.der.size(), read.der.data()};
    const OSStatus status =
        SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &read.certificate);
    if (status != errSecSuccess)
        report(path, false, statusText(status));
    return read;
}

bool report(const std::string& place, bool succeeded, const std::string& text)
{
    if (succeeded)
        std::cout << place << ": " << text << std::endl;
    else
        std::cerr << "security: " << place << ": " << text << std::endl;
    return succeeded;
}

bool requireAdministrator()
{
    return authorization::currentBackend()->isAdministrator()
        || report(systemKeychainName, false, statusText(errAuthorizationDenied));
}

std::string statusText(OSStatus status)
{
    const auto text = SecCopyErrorMessageString(status, nullptr);
    return (text ? toUTF8(text) : std::string("unknown error")) + " (" + std::to_string(status) + ")";
}

} // namespace kf::security
