// What happens where the keychain service cannot hand over a certificate. It
// always can once it has made one, so these functions take the place of its own
// in this program.
#include "Certificates/X509Certificate.h"
#include "Tests/Certificates/CertificateMaker.h"
#include "Tests/Support/RecordingCssm.h"

#include <gmock/gmock.h>

namespace {

OSStatus identityStatus = errSecSuccess;
OSStatus certificateStatus = errSecSuccess;

} // namespace

OSStatus SecIdentityCopyCertificate(const SecIdentityRef& identity, SecCertificateRef* certificate)
{
    if (identityStatus == errSecSuccess)
        *certificate = identity->certificate();
    return identityStatus;
}

OSStatus SecCertificateGetData(const SecCertificateRef&, CSSM_DATA*) { return certificateStatus; }

namespace kf::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class UnreadableItemsTest : public testing::Test {
protected:
    Ref<NSMutableDictionary> extract()
    {
        testing::internal::CaptureStderr();
        const auto dictionary = X509Certificate::extractCertDictFromIdentity(identity);
        printed = testing::internal::GetCapturedStderr();
        return dictionary;
    }

    SecIdentityRef identity =
        makeRef<SecIdentity>(certificateFromDer(CertificateMaker().openssl("/CN=Ada")), Ref<SecKey>());
    RecordingCssm cssm;
    std::string printed;
};

TEST_F(UnreadableItemsTest, AnIdentityWithoutCertificateIsPrinted)
{
    identityStatus = errSecItemNotFound;
    EXPECT_FALSE(extract());
    EXPECT_EQ(printed,
        "SecIdentityCopyCertificate: " + toUTF8(SecCopyErrorMessageString(errSecItemNotFound, nullptr)) + "\n");
    EXPECT_THAT(cssm.takeCalls(), IsEmpty());
}

TEST_F(UnreadableItemsTest, ACertificateWithoutBytesEndsInSilenceAndDetaches)
{
    identityStatus = errSecSuccess;
    certificateStatus = errSecInvalidItemRef;
    EXPECT_FALSE(extract());
    EXPECT_EQ(printed, "");
    EXPECT_THAT(cssm.takeCalls(),
        ElementsAre("CSSM_Init", "CSSM_ModuleLoad", "CSSM_ModuleAttach", "CSSM_ModuleDetach", "CSSM_ModuleUnload"));
}

} // namespace
} // namespace kf::test
