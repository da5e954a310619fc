// The bytes go where a certificate library hands over a validity time. A date
// comes of exactly the plain Zulu forms with their fields in range.

#include "Certificates/X509Certificate.h"
#include "Foundation/NSDate.h"
#include "Tests/Certificates/AnyCertificate.h"
#include "Tests/Certificates/FieldModule.h"

#include <cstdlib>
#include <regex>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length)
{
    static const SecCertificateRef certificate = kf::test::anyCertificate();
    static kf::test::FieldModule module;
    static const std::regex plain("([0-4]\\d|[7-9]\\d|\\d{4})(0[1-9]|1[0-2])(0[1-9]|[12]\\d|3[01])"
                                  "([01]\\d|2[0-3])[0-5]\\d[0-5]\\dZ");
    CSSM_X509_TIME time{BER_TAG_UTC_TIME, {length, const_cast<std::uint8_t*>(bytes)}};
    module.fields = {kf::test::fieldOf(CSSMOID_X509V1ValidityNotAfter, time)};
    const auto dictionary = X509Certificate::extractCertDictFromCert(certificate);
    std::string text(bytes, bytes + length);
    if (text.ends_with('\0'))
        text.pop_back();
    if ((dictionary->objectAs<NSDate>("NotValidAfter"_ns) != nullptr) != std::regex_match(text, plain))
        std::abort();
    return 0;
}
