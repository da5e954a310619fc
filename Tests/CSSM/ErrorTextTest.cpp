#include "Security/CSSM/ErrorText.h"
#include "Security/Result.h"
#include "Security/cssmapi.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

std::string printed(const char* label, CSSM_RETURN error)
{
    testing::internal::CaptureStderr();
    cssmPerror(label, error);
    return testing::internal::GetCapturedStderr();
}

TEST(CssmErrorText, EachErrorHasATextOfItsOwn)
{
    const CSSM_RETURN errors[] = {
        CSSMERR_CSSM_INTERNAL_ERROR,
        CSSMERR_CSSM_MEMORY_ERROR,
        CSSMERR_CSSM_INVALID_POINTER,
        CSSMERR_CSSM_INVALID_GUID,
        CSSMERR_CSSM_INCOMPATIBLE_VERSION,
        CSSMERR_CSSM_SCOPE_NOT_SUPPORTED,
        CSSMERR_CSSM_INVALID_PVC,
        CSSMERR_CSSM_ADDIN_LOAD_FAILED,
        CSSMERR_CSSM_INVALID_KEY_HIERARCHY,
        CSSMERR_CSSM_ADDIN_UNLOAD_FAILED,
        CSSMERR_CSSM_INVALID_ADDIN_FUNCTION_TABLE,
        CSSMERR_CSSM_ADDIN_AUTHENTICATE_FAILED,
        CSSMERR_CSSM_INVALID_SERVICE_MASK,
        CSSMERR_CSSM_MODULE_NOT_LOADED,
        CSSMERR_CSSM_INVALID_SUBSERVICEID,
        CSSMERR_CSSM_INVALID_ATTRIBUTE,
        CSSMERR_CSSM_NOT_INITIALIZED,
        CSSMERR_CSSM_INVALID_ADDIN_HANDLE,
        CSSMERR_CSP_INTERNAL_ERROR,
        CSSMERR_CSP_MEMORY_ERROR,
        CSSMERR_CSP_INVALID_INPUT_POINTER,
        CSSMERR_CSP_INVALID_OUTPUT_POINTER,
        CSSMERR_CSP_FUNCTION_NOT_IMPLEMENTED,
        CSSMERR_CSP_FUNCTION_FAILED,
        CSSMERR_CSP_INVALID_CONTEXT_HANDLE,
        CSSMERR_CSP_INVALID_CSP_HANDLE,
        CSSMERR_CSP_INPUT_LENGTH_ERROR,
        CSSMERR_CSP_OUTPUT_LENGTH_ERROR,
        CSSMERR_CSP_INVALID_KEY,
        CSSMERR_CSP_INVALID_KEY_CLASS,
        CSSMERR_CSP_ALGID_MISMATCH,
        CSSMERR_CSP_KEY_USAGE_INCORRECT,
        CSSMERR_CSP_KEY_BLOB_TYPE_INCORRECT,
        CSSMERR_CSP_UNSUPPORTED_KEY_FORMAT,
        CSSMERR_CSP_INVALID_ALGORITHM,
        CSSMERR_CSP_INVALID_CONTEXT,
        CSSMERR_CSP_INVALID_DIGEST_ALGORITHM,
        CSSMERR_CSP_VERIFY_FAILED,
        CSSMERR_CSP_MISSING_ATTR_KEY,
        CSSMERR_CSP_INVALID_DATA_COUNT,
        CSSMERR_CL_INTERNAL_ERROR,
        CSSMERR_CL_MEMORY_ERROR,
        CSSMERR_CL_INVALID_POINTER,
        CSSMERR_CL_FUNCTION_NOT_IMPLEMENTED,
        CSSMERR_CL_INVALID_CERT_POINTER,
        CSSMERR_CL_INVALID_FIELD_POINTER,
        CSSMERR_CL_UNKNOWN_FORMAT,
        CSSMERR_CL_INVALID_CL_HANDLE,
    };
    std::set<std::string> texts;
    for (const CSSM_RETURN error : errors) {
        const auto text = kf::cssmErrorText(error);
        ASSERT_TRUE(text) << std::hex << error;
        EXPECT_TRUE(texts.insert(toUTF8(text)).second) << toUTF8(text);
        // Whoever asks for the text of a status gets the same.
        EXPECT_EQ(toUTF8(SecCopyErrorMessageString(static_cast<OSStatus>(error), nullptr)), toUTF8(text));
    }
}

TEST(CssmErrorText, OtherNumbersHaveNone)
{
    EXPECT_FALSE(kf::cssmErrorText(CSSM_OK));
    EXPECT_FALSE(kf::cssmErrorText(1));
    EXPECT_FALSE(kf::cssmErrorText(CSSM_CSSM_BASE_ERROR));
    EXPECT_FALSE(kf::cssmErrorText(0xFFFFFFFF));
}

TEST(CssmPerror, PrintsLabelAndText)
{
    EXPECT_EQ(printed("CSSM_ModuleAttach", CSSMERR_CSSM_MODULE_NOT_LOADED),
        "CSSM_ModuleAttach: The security module is not loaded.\n");
    EXPECT_EQ(printed("cdsaDigest", CSSMERR_CSP_INVALID_ALGORITHM),
        "cdsaDigest: The algorithm is unknown to the cryptographic service.\n");
}

TEST(CssmPerror, PrintsOtherStatusesWithTheirText)
{
    const auto text = SecCopyErrorMessageString(errSecItemNotFound, nullptr);
    ASSERT_TRUE(text);
    EXPECT_EQ(printed("SecIdentityCopyCertificate", static_cast<CSSM_RETURN>(errSecItemNotFound)),
        "SecIdentityCopyCertificate: " + toUTF8(text) + "\n");
}

TEST(CssmPerror, PrintsTheNumberWhereThereIsNoText)
{
    EXPECT_EQ(printed("cdsaDigest", 0x800107FFU), "cdsaDigest: unknown error 0x800107FF\n");
    EXPECT_EQ(printed(nullptr, 0x800107FFU), "error: unknown error 0x800107FF\n");
}

} // namespace
