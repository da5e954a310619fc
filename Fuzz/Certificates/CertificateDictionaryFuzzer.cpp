// Any bytes that are taken for a certificate have a dictionary with at least its
// serial number, names and key.

#include "Certificates/X509Certificate.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length)
{
    const CSSM_DATA data{length, const_cast<std::uint8_t*>(bytes)};
    SecCertificateRef certificate;
    if (SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate) != errSecSuccess)
        return 0;
    const auto dictionary = X509Certificate::extractCertDictFromCert(certificate);
    if (!dictionary)
        std::abort();
    for (const auto& key : {"SerialNumber"_ns, "Issuer"_ns, "Subject"_ns, "PublicKey"_ns})
        if (!dictionary->objectForKey(key))
            std::abort();
    return 0;
}
