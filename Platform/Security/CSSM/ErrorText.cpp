#include "Security/CSSM/ErrorText.h"
#include "Security/cssmerr.h"

#include <algorithm>
#include <iterator>

namespace kf {

namespace {

struct ErrorText {
    CSSM_RETURN error;
    const char* text;
};

constexpr ErrorText texts[] = {
    {CSSMERR_CSSM_INTERNAL_ERROR, "The security services manager failed for an internal reason."},
    {CSSMERR_CSSM_MEMORY_ERROR, "The security services manager has no memory left."},
    {CSSMERR_CSSM_INVALID_POINTER, "The security services manager was given an invalid pointer."},
    {CSSMERR_CSSM_INVALID_GUID, "No security module has this identifier."},
    {CSSMERR_CSSM_INCOMPATIBLE_VERSION, "This version of the security services interface is not supported."},
    {CSSMERR_CSSM_SCOPE_NOT_SUPPORTED, "This privilege scope is not supported."},
    {CSSMERR_CSSM_INVALID_PVC, "This pointer validation policy is not supported."},
    {CSSMERR_CSSM_ADDIN_LOAD_FAILED, "The security module could not be loaded."},
    {CSSMERR_CSSM_INVALID_KEY_HIERARCHY, "This key hierarchy is not supported."},
    {CSSMERR_CSSM_ADDIN_UNLOAD_FAILED, "The security module could not be unloaded; it is still in use."},
    {CSSMERR_CSSM_INVALID_ADDIN_FUNCTION_TABLE, "Function tables are not supported."},
    {CSSMERR_CSSM_ADDIN_AUTHENTICATE_FAILED, "The security module could not be authenticated."},
    {CSSMERR_CSSM_INVALID_SERVICE_MASK, "The security module does not offer this service."},
    {CSSMERR_CSSM_MODULE_NOT_LOADED, "The security module is not loaded."},
    {CSSMERR_CSSM_INVALID_SUBSERVICEID, "The security module has no such subservice."},
    {CSSMERR_CSSM_INVALID_ATTRIBUTE, "The security module was attached with flags that are not supported."},
    {CSSMERR_CSSM_NOT_INITIALIZED, "The security services manager has not been started."},
    {CSSMERR_CSSM_INVALID_ADDIN_HANDLE, "The handle names no attached security module."},

    {CSSMERR_CSP_INTERNAL_ERROR, "The cryptographic service failed for an internal reason."},
    {CSSMERR_CSP_MEMORY_ERROR, "The cryptographic service has no memory left."},
    {CSSMERR_CSP_INVALID_INPUT_POINTER, "The cryptographic service was given invalid input."},
    {CSSMERR_CSP_INVALID_OUTPUT_POINTER, "The cryptographic service was given no place for its output."},
    {CSSMERR_CSP_FUNCTION_NOT_IMPLEMENTED, "The cryptographic service does not offer this operation."},
    {CSSMERR_CSP_FUNCTION_FAILED, "The cryptographic operation failed."},
    {CSSMERR_CSP_INVALID_CONTEXT_HANDLE, "The handle names no cryptographic context."},
    {CSSMERR_CSP_INVALID_CSP_HANDLE, "The handle names no attached cryptographic service."},
    {CSSMERR_CSP_INPUT_LENGTH_ERROR, "The length of the input does not fit the algorithm."},
    {CSSMERR_CSP_OUTPUT_LENGTH_ERROR, "The output buffer is too small."},
    {CSSMERR_CSP_INVALID_KEY, "The key is damaged or of another kind than it says."},
    {CSSMERR_CSP_INVALID_KEY_CLASS, "A key of this class cannot be used for the operation."},
    {CSSMERR_CSP_ALGID_MISMATCH, "The key does not belong to the algorithm."},
    {CSSMERR_CSP_KEY_USAGE_INCORRECT, "The key may not be used for the operation."},
    {CSSMERR_CSP_KEY_BLOB_TYPE_INCORRECT, "The key is not given in clear."},
    {CSSMERR_CSP_UNSUPPORTED_KEY_FORMAT, "This key format is not supported."},
    {CSSMERR_CSP_INVALID_ALGORITHM, "The algorithm is unknown to the cryptographic service."},
    {CSSMERR_CSP_INVALID_CONTEXT, "The cryptographic context was made for another operation."},
    {CSSMERR_CSP_INVALID_DIGEST_ALGORITHM, "The digest algorithm does not fit the signature algorithm."},
    {CSSMERR_CSP_VERIFY_FAILED, "The signature is not valid for the data."},
    {CSSMERR_CSP_MISSING_ATTR_KEY, "The cryptographic service was given no key."},
    {CSSMERR_CSP_INVALID_DATA_COUNT, "The cryptographic service was given a wrong number of buffers."},

    {CSSMERR_CL_INTERNAL_ERROR, "The certificate library failed for an internal reason."},
    {CSSMERR_CL_MEMORY_ERROR, "The certificate library has no memory left."},
    {CSSMERR_CL_INVALID_POINTER, "The certificate library was given no place for its output."},
    {CSSMERR_CL_FUNCTION_NOT_IMPLEMENTED, "The certificate library does not offer this operation."},
    {CSSMERR_CL_INVALID_CERT_POINTER, "The certificate library was given no certificate."},
    {CSSMERR_CL_INVALID_FIELD_POINTER, "The certificate library was given no fields."},
    {CSSMERR_CL_UNKNOWN_FORMAT, "The data is not a readable certificate."},
    {CSSMERR_CL_INVALID_CL_HANDLE, "The handle names no attached certificate library."},
};

} // namespace

Ref<NSString> cssmErrorText(CSSM_RETURN error)
{
    const auto* const found =
        std::find_if(std::begin(texts), std::end(texts), [&](const ErrorText& known) { return known.error == error; });
    return found == std::end(texts) ? nullptr : NSString::stringWithUTF8String(found->text);
}

} // namespace kf
