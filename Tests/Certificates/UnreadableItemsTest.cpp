// What happens where the keychain service cannot hand over a certificate. It
// always can once it has made one, so these functions take the place of its own
// in this program. CSSM's own are seen through, for what no service behind them gets to see.
#include "Certificates/X509Certificate.h"
#include "Security/cssmapi.h"
#include "Tests/Certificates/CertificateMaker.h"
#include "Tests/Support/LibraryFunction.h"
#include "Tests/Support/RecordingCssm.h"

#include <gmock/gmock.h>

namespace {

OSStatus identityStatus = errSecSuccess;
OSStatus certificateStatus = errSecSuccess;
int handlersGiven = 0;

void count(CSSM_API_ModuleEventHandler handler, const void* context)
{
    handlersGiven += (handler ? 1 : 0) + (context ? 1 : 0);
}

} // namespace

OSStatus SecIdentityCopyCertificate(const SecIdentityRef& identity, SecCertificateRef* certificate)
{
    if (identityStatus == errSecSuccess)
        *certificate = identity->certificate();
    return identityStatus;
}

OSStatus SecCertificateGetData(const SecCertificateRef&, CSSM_DATA*) { return certificateStatus; }

CSSM_RETURN CSSM_ModuleLoad(const CSSM_GUID* moduleGuid, CSSM_KEY_HIERARCHY keyHierarchy,
    CSSM_API_ModuleEventHandler eventHandler, void* eventHandlerContext)
{
    static const auto real = kf::test::libraryFunction(&CSSM_ModuleLoad);
    count(eventHandler, eventHandlerContext);
    return real(moduleGuid, keyHierarchy, eventHandler, eventHandlerContext);
}

CSSM_RETURN CSSM_ModuleUnload(
    const CSSM_GUID* moduleGuid, CSSM_API_ModuleEventHandler eventHandler, void* eventHandlerContext)
{
    static const auto real = kf::test::libraryFunction(&CSSM_ModuleUnload);
    count(eventHandler, eventHandlerContext);
    return real(moduleGuid, eventHandler, eventHandlerContext);
}

namespace kf::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class UnreadableItemsTest : public testing::Test {
protected:
    Ref<NSMutableDictionary> extract()
    {
        testing::internal::CaptureStderr();
        auto dictionary = X509Certificate::extractCertDictFromIdentity(identity);
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
    EXPECT_EQ(handlersGiven, 0);
}

} // namespace
} // namespace kf::test
