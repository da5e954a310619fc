#include "Certificates/CDSACsp.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/RecordingCssm.h"

#include <gmock/gmock.h>

/// The CSP side's mark that CSSM was started; each test begins without it.
extern CSSM_BOOL cssmInitd;

namespace kf::test {
namespace {

using testing::ElementsAre;

CSSM_DATA dataOf(std::string_view text)
{
    return {text.size(), reinterpret_cast<std::uint8_t*>(const_cast<char*>(text.data()))};
}

/// Keeps what the last start and the last attach were given.
class ArgumentKeepingCssm final : public RecordingCssm {
public:
    struct Init {
        CSSM_VERSION version;
        CSSM_PRIVILEGE_SCOPE scope;
        CSSM_GUID callerGuid;
        CSSM_KEY_HIERARCHY keyHierarchy;
        CSSM_PVC_MODE pvcPolicy;
        const void* reserved;
    };
    struct Attach {
        CSSM_GUID guid;
        CSSM_VERSION version;
        CSSM_API_MEMORY_FUNCS functions;
        std::uint32_t subserviceID;
        CSSM_SERVICE_TYPE service;
        CSSM_ATTACH_FLAGS flags;
        CSSM_KEY_HIERARCHY keyHierarchy;
        const void* functionTable;
        std::uint32_t numFunctionTable;
        const void* reserved;
    };

    CSSM_RETURN init(const CSSM_VERSION* version, CSSM_PRIVILEGE_SCOPE scope, const CSSM_GUID* callerGuid,
        CSSM_KEY_HIERARCHY keyHierarchy, CSSM_PVC_MODE* pvcPolicy, const void* reserved) override
    {
        initArguments = {*version, scope, *callerGuid, keyHierarchy, *pvcPolicy, reserved};
        return RecordingCssm::init(version, scope, callerGuid, keyHierarchy, pvcPolicy, reserved);
    }
    CSSM_RETURN moduleLoad(const CSSM_GUID* moduleGuid, CSSM_KEY_HIERARCHY keyHierarchy) override
    {
        loaded = *moduleGuid;
        return RecordingCssm::moduleLoad(moduleGuid, keyHierarchy);
    }
    CSSM_RETURN moduleAttach(const CSSM_GUID* moduleGuid, const CSSM_VERSION* version,
        const CSSM_API_MEMORY_FUNCS* memoryFuncs, std::uint32_t subserviceID, CSSM_SERVICE_TYPE subserviceType,
        CSSM_ATTACH_FLAGS attachFlags, CSSM_KEY_HIERARCHY keyHierarchy, CSSM_FUNC_NAME_ADDR* functionTable,
        std::uint32_t numFunctionTable, const void* reserved, CSSM_MODULE_HANDLE* moduleHandle) override
    {
        attachArguments = {*moduleGuid, *version, *memoryFuncs, subserviceID, subserviceType, attachFlags, keyHierarchy,
            functionTable, numFunctionTable, reserved};
        // Left there where the call fails.
        *moduleHandle = 99;
        return RecordingCssm::moduleAttach(moduleGuid, version, memoryFuncs, subserviceID, subserviceType, attachFlags,
            keyHierarchy, functionTable, numFunctionTable, reserved, moduleHandle);
    }

    CSSM_RETURN createSignatureContext(CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm,
        const CSSM_ACCESS_CREDENTIALS* credentials, const CSSM_KEY* key, CSSM_CC_HANDLE* contextHandle) override
    {
        EXPECT_EQ(credentials, nullptr);
        keys.push_back(key);
        return RecordingCssm::createSignatureContext(cspHandle, algorithm, credentials, key, contextHandle);
    }
    CSSM_RETURN digestData(
        CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount, CSSM_DATA* digest) override
    {
        EXPECT_EQ(dataBufCount, 1U);
        return RecordingCssm::digestData(contextHandle, dataBufs, dataBufCount, digest);
    }
    CSSM_RETURN signData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
        CSSM_ALGORITHMS digestAlgorithm, CSSM_DATA* signature) override
    {
        EXPECT_EQ(dataBufCount, 1U);
        EXPECT_EQ(digestAlgorithm, CSSM_ALGID_NONE);
        return RecordingCssm::signData(contextHandle, dataBufs, dataBufCount, digestAlgorithm, signature);
    }
    CSSM_RETURN verifyData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
        CSSM_ALGORITHMS digestAlgorithm, const CSSM_DATA* signature) override
    {
        EXPECT_EQ(dataBufCount, 1U);
        EXPECT_EQ(digestAlgorithm, CSSM_ALGID_NONE);
        return RecordingCssm::verifyData(contextHandle, dataBufs, dataBufCount, digestAlgorithm, signature);
    }

    Init initArguments{};
    CSSM_GUID loaded{};
    std::vector<const CSSM_KEY*> keys;
    Attach attachArguments{};
};

class CDSACspTest : public testing::Test {
protected:
    CDSACspTest()
    {
        cssmInitd = 0;
        testing::internal::CaptureStderr();
    }
    // The CSP side leaves reporting to its callers.
    ~CDSACspTest() override { EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); }

    CSSM_CSP_HANDLE attached()
    {
        CSSM_CSP_HANDLE handle = 0;
        EXPECT_EQ(cdsaCspAttach(&handle), CSSM_OK);
        cssm.takeCalls();
        return handle;
    }

    ArgumentKeepingCssm cssm;
};

TEST_F(CDSACspTest, StartsCssmOnce)
{
    EXPECT_EQ(cssmStartup(), CSSM_OK);
    EXPECT_EQ(cssmInitd, 1);
    EXPECT_EQ(cssmStartup(), CSSM_OK);
    EXPECT_EQ(cssmInitd, 1);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_Init"));
}

TEST_F(CDSACspTest, TriesToStartAgainAfterAFailure)
{
    cssm.fail("CSSM_Init", CSSMERR_CSSM_INTERNAL_ERROR);
    EXPECT_EQ(cssmStartup(), CSSMERR_CSSM_INTERNAL_ERROR);
    EXPECT_EQ(cssmStartup(), CSSMERR_CSSM_INTERNAL_ERROR);
    cssm.succeed("CSSM_Init");
    EXPECT_EQ(cssmStartup(), CSSM_OK);
    EXPECT_EQ(cssmStartup(), CSSM_OK);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_Init", "CSSM_Init", "CSSM_Init"));
}

TEST_F(CDSACspTest, StartsCssmAsItself)
{
    ASSERT_EQ(cssmStartup(), CSSM_OK);
    const auto& init = cssm.initArguments;
    EXPECT_EQ(init.version.Major, 2U);
    EXPECT_EQ(init.version.Minor, 0U);
    EXPECT_EQ(init.scope, CSSM_PRIVILEGE_SCOPE_NONE);
    EXPECT_EQ(init.callerGuid, (CSSM_GUID{0xFADE, 0, 0, {1, 2, 3, 4, 5, 6, 7, 0}}));
    EXPECT_EQ(init.keyHierarchy, CSSM_KEY_HIERARCHY_NONE);
    EXPECT_EQ(init.pvcPolicy, CSSM_PVC_NONE);
    EXPECT_EQ(init.reserved, nullptr);
}

TEST_F(CDSACspTest, AttachingStartsLoadsAndAttaches)
{
    CSSM_CSP_HANDLE handle = 0;
    EXPECT_EQ(cdsaCspAttach(&handle), CSSM_OK);
    EXPECT_NE(handle, 0U);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_Init", "CSSM_ModuleLoad", "CSSM_ModuleAttach"));
    EXPECT_EQ(cssm.loaded, gGuidAppleCSP);
    const auto& attach = cssm.attachArguments;
    EXPECT_EQ(attach.guid, gGuidAppleCSP);
    EXPECT_EQ(attach.version.Major, 2U);
    EXPECT_EQ(attach.version.Minor, 0U);
    EXPECT_EQ(attach.functions.malloc_func, appMalloc);
    EXPECT_EQ(attach.functions.free_func, appFree);
    EXPECT_EQ(attach.functions.realloc_func, appRealloc);
    EXPECT_EQ(attach.functions.calloc_func, appCalloc);
    EXPECT_EQ(attach.functions.AllocRef, nullptr);
    EXPECT_EQ(attach.subserviceID, 0U);
    EXPECT_EQ(attach.service, CSSM_SERVICE_CSP);
    EXPECT_EQ(attach.flags, 0U);
    EXPECT_EQ(attach.keyHierarchy, CSSM_KEY_HIERARCHY_NONE);
    EXPECT_EQ(attach.functionTable, nullptr);
    EXPECT_EQ(attach.numFunctionTable, 0U);
    EXPECT_EQ(attach.reserved, nullptr);
}

TEST_F(CDSACspTest, EachAttachLoadsAnewAndEachCallerDetachesItsOwn)
{
    const auto first = attached();
    CSSM_CSP_HANDLE second = 0;
    EXPECT_EQ(cdsaCspAttach(&second), CSSM_OK);
    EXPECT_NE(first, second);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_ModuleLoad", "CSSM_ModuleAttach"));
    EXPECT_EQ(cdsaCspDetach(first), CSSM_OK);
    EXPECT_EQ(cdsaCspDetach(second), CSSM_OK);
    // Detaching never unloads.
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_ModuleDetach", "CSSM_ModuleDetach"));
}

TEST_F(CDSACspTest, AFailedStartEndsTheAttach)
{
    cssm.fail("CSSM_Init", CSSMERR_CSSM_INTERNAL_ERROR);
    CSSM_CSP_HANDLE handle = 42;
    EXPECT_EQ(cdsaCspAttach(&handle), CSSMERR_CSSM_INTERNAL_ERROR);
    EXPECT_EQ(handle, 42U);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_Init"));
}

TEST_F(CDSACspTest, AFailedLoadEndsTheAttach)
{
    cssm.fail("CSSM_ModuleLoad", CSSMERR_CSSM_ADDIN_LOAD_FAILED);
    CSSM_CSP_HANDLE handle = 42;
    EXPECT_EQ(cdsaCspAttach(&handle), CSSMERR_CSSM_ADDIN_LOAD_FAILED);
    EXPECT_EQ(handle, 42U);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_Init", "CSSM_ModuleLoad"));
}

TEST_F(CDSACspTest, AFailedAttachLeavesTheModuleLoaded)
{
    cssm.fail("CSSM_ModuleAttach", CSSMERR_CSSM_ADDIN_AUTHENTICATE_FAILED);
    CSSM_CSP_HANDLE handle = 42;
    EXPECT_EQ(cdsaCspAttach(&handle), CSSMERR_CSSM_ADDIN_AUTHENTICATE_FAILED);
    EXPECT_EQ(handle, 42U);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_Init", "CSSM_ModuleLoad", "CSSM_ModuleAttach"));
    EXPECT_EQ(cssm.manager().moduleUnload(&gGuidAppleCSP), CSSM_OK);
}

TEST_F(CDSACspTest, DetachingGivesItsError) { EXPECT_EQ(cdsaCspDetach(0), CSSMERR_CSSM_INVALID_ADDIN_HANDLE); }

TEST_F(CDSACspTest, DigestsIntoMemoryOfTheApplication)
{
    const auto handle = attached();
    const CSSM_DATA input = dataOf("abc");
    std::uint8_t before[] = {1, 2, 3};
    CSSM_DATA digest{sizeof before, before};
    EXPECT_EQ(cdsaDigest(handle, CSSM_ALGID_SHA1, &input, &digest), CSSM_OK);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_CSP_CreateDigestContext", "CSSM_DigestData", "CSSM_DeleteContext"));
    // What the argument held before is no buffer to write into.
    EXPECT_NE(digest.Data, before);
    EXPECT_THAT(before, ElementsAre(1, 2, 3));
    EXPECT_THAT(std::vector(digest.Data, digest.Data + digest.Length),
        ElementsAre(0xa9, 0x99, 0x3e, 0x36, 0x47, 0x06, 0x81, 0x6a, 0xba, 0x3e, 0x25, 0x71, 0x78, 0x50, 0xc2, 0x6c,
            0x9c, 0xd0, 0xd8, 0x9d));
    appFree(digest.Data, nullptr);
    EXPECT_EQ(cdsaDigest(handle, CSSM_ALGID_MD5, &input, &digest), CSSM_OK);
    EXPECT_EQ(digest.Length, 16U);
    appFree(digest.Data, nullptr);
    EXPECT_EQ(cdsaCspDetach(handle), CSSM_OK);
}

TEST_F(CDSACspTest, ADigestThatCannotBeginIsEmpty)
{
    const auto handle = attached();
    const CSSM_DATA input = dataOf("abc");
    std::uint8_t before[] = {1, 2, 3};
    CSSM_DATA digest{sizeof before, before};
    EXPECT_EQ(cdsaDigest(handle, 9, &input, &digest), CSSMERR_CSP_INVALID_ALGORITHM);
    EXPECT_EQ(digest.Data, nullptr);
    EXPECT_EQ(digest.Length, 0U);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_CSP_CreateDigestContext"));
    digest = {sizeof before, before};
    EXPECT_EQ(cdsaDigest(0, CSSM_ALGID_SHA1, &input, &digest), CSSMERR_CSP_INVALID_CSP_HANDLE);
    EXPECT_EQ(digest.Data, nullptr);
    EXPECT_EQ(digest.Length, 0U);
}

TEST_F(CDSACspTest, AFailedDigestDeletesItsContextAndIsEmpty)
{
    const auto handle = attached();
    const CSSM_DATA input = dataOf("abc");
    CSSM_DATA digest;
    cssm.fail("CSSM_DigestData", CSSMERR_CSP_FUNCTION_FAILED);
    EXPECT_EQ(cdsaDigest(handle, CSSM_ALGID_SHA1, &input, &digest), CSSMERR_CSP_FUNCTION_FAILED);
    EXPECT_EQ(digest.Data, nullptr);
    EXPECT_EQ(digest.Length, 0U);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_CSP_CreateDigestContext", "CSSM_DigestData", "CSSM_DeleteContext"));
}

TEST_F(CDSACspTest, AContextThatCannotBeDeletedDoesNotSpoilTheDigest)
{
    const auto handle = attached();
    const CSSM_DATA input = dataOf("abc");
    CSSM_DATA digest;
    cssm.fail("CSSM_DeleteContext", CSSMERR_CSP_INVALID_CONTEXT_HANDLE);
    EXPECT_EQ(cdsaDigest(handle, CSSM_ALGID_SHA1, &input, &digest), CSSM_OK);
    EXPECT_EQ(digest.Length, 20U);
    appFree(digest.Data, nullptr);
}

class CDSACspSignatureTest : public CDSACspTest {
protected:
    CDSACspSignatureTest()
    {
        const auto directory = std::filesystem::temp_directory_path() / ("keyfold-sign-" + std::to_string(::getpid()));
        std::filesystem::create_directory(directory);
        const auto pem = (directory / "pem").string();
        const auto der = (directory / "der").string();
        mustRun({"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", pem});
        mustRun({"openssl", "pkcs8", "-topk8", "-nocrypt", "-in", pem, "-outform", "DER", "-out", der});
        privateBytes = readFile(der);
        mustRun({"openssl", "pkey", "-in", pem, "-pubout", "-outform", "DER", "-out", der});
        publicBytes = readFile(der);
        std::filesystem::remove_all(directory);
        privateKey.KeyHeader.AlgorithmId = publicKey.KeyHeader.AlgorithmId = CSSM_ALGID_ECDSA;
        privateKey.KeyHeader.KeyClass = CSSM_KEYCLASS_PRIVATE_KEY;
        privateKey.KeyHeader.Format = CSSM_KEYBLOB_RAW_FORMAT_PKCS8;
        privateKey.KeyData = {privateBytes.size(), privateBytes.data()};
        publicKey.KeyHeader.KeyClass = CSSM_KEYCLASS_PUBLIC_KEY;
        publicKey.KeyHeader.Format = CSSM_KEYBLOB_RAW_FORMAT_SPKI;
        publicKey.KeyData = {publicBytes.size(), publicBytes.data()};
        handle = attached();
    }

    static constexpr CSSM_ALGORITHMS algorithm = CSSM_ALGID_SHA256WithECDSA;
    Bytes privateBytes;
    Bytes publicBytes;
    CSSM_KEY privateKey;
    CSSM_KEY publicKey;
    CSSM_DATA input = dataOf("what is signed");
    CSSM_CSP_HANDLE handle = 0;
};

TEST_F(CDSACspSignatureTest, VerifiesWhatItSigned)
{
    CSSM_DATA signature;
    ASSERT_EQ(cdsaSign(handle, &privateKey, algorithm, &input, &signature), CSSM_OK);
    EXPECT_THAT(
        cssm.takeCalls(), ElementsAre("CSSM_CSP_CreateSignatureContext", "CSSM_SignData", "CSSM_DeleteContext"));
    EXPECT_EQ(cdsaVerify(handle, &publicKey, algorithm, &input, &signature), CSSM_OK);
    EXPECT_THAT(
        cssm.takeCalls(), ElementsAre("CSSM_CSP_CreateSignatureContext", "CSSM_VerifyData", "CSSM_DeleteContext"));
    const CSSM_DATA other = dataOf("what is not");
    EXPECT_EQ(cdsaVerify(handle, &publicKey, algorithm, &other, &signature), CSSMERR_CSP_VERIFY_FAILED);
    EXPECT_THAT(cssm.keys, ElementsAre(&privateKey, &publicKey, &publicKey));
    EXPECT_THAT(
        cssm.takeCalls(), ElementsAre("CSSM_CSP_CreateSignatureContext", "CSSM_VerifyData", "CSSM_DeleteContext"));
    appFree(signature.Data, nullptr);
}

TEST_F(CDSACspSignatureTest, SignsIntoTheCallersBuffer)
{
    std::uint8_t buffer[128];
    CSSM_DATA signature{sizeof buffer, buffer};
    ASSERT_EQ(cdsaSign(handle, &privateKey, algorithm, &input, &signature), CSSM_OK);
    EXPECT_EQ(signature.Data, buffer);
    EXPECT_LT(signature.Length, sizeof buffer);
}

TEST_F(CDSACspSignatureTest, FailuresLeaveTheSignatureAsItWas)
{
    std::uint8_t buffer[128];
    CSSM_DATA signature{sizeof buffer, buffer};
    EXPECT_EQ(cdsaSign(handle, &privateKey, CSSM_ALGID_SHA1, &input, &signature), CSSMERR_CSP_INVALID_ALGORITHM);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_CSP_CreateSignatureContext"));
    EXPECT_EQ(cdsaVerify(handle, &publicKey, CSSM_ALGID_SHA1, &input, &signature), CSSMERR_CSP_INVALID_ALGORITHM);
    EXPECT_THAT(cssm.takeCalls(), ElementsAre("CSSM_CSP_CreateSignatureContext"));
    cssm.fail("CSSM_SignData", CSSMERR_CSP_FUNCTION_FAILED);
    EXPECT_EQ(cdsaSign(handle, &privateKey, algorithm, &input, &signature), CSSMERR_CSP_FUNCTION_FAILED);
    EXPECT_THAT(
        cssm.takeCalls(), ElementsAre("CSSM_CSP_CreateSignatureContext", "CSSM_SignData", "CSSM_DeleteContext"));
    EXPECT_EQ(signature.Data, buffer);
    EXPECT_EQ(signature.Length, sizeof buffer);
}

TEST_F(CDSACspSignatureTest, AContextThatCannotBeDeletedDoesNotSpoilTheResult)
{
    cssm.fail("CSSM_DeleteContext", CSSMERR_CSP_INVALID_CONTEXT_HANDLE);
    CSSM_DATA signature;
    EXPECT_EQ(cdsaSign(handle, &privateKey, algorithm, &input, &signature), CSSM_OK);
    EXPECT_EQ(cdsaVerify(handle, &publicKey, algorithm, &input, &signature), CSSM_OK);
    appFree(signature.Data, nullptr);
}

TEST(AppMemory, IsTheCLibrarys)
{
    int unused = 0;
    auto* memory = static_cast<std::uint8_t*>(appMalloc(4, &unused));
    ASSERT_NE(memory, nullptr);
    memory[3] = 7;
    memory = static_cast<std::uint8_t*>(appRealloc(memory, 4000, nullptr));
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(memory[3], 7);
    appFree(memory, &unused);
    memory = static_cast<std::uint8_t*>(appCalloc(3, 5, nullptr));
    EXPECT_THAT(std::vector(memory, memory + 15), testing::Each(0));
    appFree(memory, nullptr);
    appFree(nullptr, nullptr);
}

TEST(PlatformCssm, WorksWithoutAnyTestInBetween)
{
    cssmInitd = 0;
    CSSM_CSP_HANDLE handle = 0;
    ASSERT_EQ(cdsaCspAttach(&handle), CSSM_OK);
    const CSSM_DATA input = dataOf("abc");
    CSSM_DATA digest;
    EXPECT_EQ(cdsaDigest(handle, CSSM_ALGID_SHA1, &input, &digest), CSSM_OK);
    EXPECT_EQ(digest.Length, 20U);
    appFree(digest.Data, nullptr);
    EXPECT_EQ(cdsaCspDetach(handle), CSSM_OK);
}

} // namespace
} // namespace kf::test
