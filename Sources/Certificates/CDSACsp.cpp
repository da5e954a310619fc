#include "Certificates/CDSACsp.h"

#include <cstdlib>

/// 1 once CSSM has been started; never cleared.
CSSM_BOOL cssmInitd = 0;

void* appMalloc(std::uint32_t size, void*) { return std::malloc(size); }

void appFree(void* memory, void*) { std::free(memory); }

void* appRealloc(void* memory, std::uint32_t size, void*) { return std::realloc(memory, size); }

void* appCalloc(std::uint32_t count, std::uint32_t size, void*) { return std::calloc(count, size); }

namespace {

const CSSM_API_MEMORY_FUNCS memFuncs = {appMalloc, appFree, appRealloc, appCalloc, nullptr};
const CSSM_VERSION vers = {2, 0};
const CSSM_GUID testGuid = {0xFADE, 0, 0, {1, 2, 3, 4, 5, 6, 7, 0}};

} // namespace

CSSM_RETURN cssmStartup()
{
    if (cssmInitd)
        return CSSM_OK;
    CSSM_PVC_MODE pvcPolicy = CSSM_PVC_NONE;
    const CSSM_RETURN error =
        CSSM_Init(&vers, CSSM_PRIVILEGE_SCOPE_NONE, &testGuid, CSSM_KEY_HIERARCHY_NONE, &pvcPolicy, nullptr);
    if (error != CSSM_OK)
        return error;
    cssmInitd = 1;
    return CSSM_OK;
}

CSSM_RETURN cdsaCspAttach(CSSM_CSP_HANDLE* handle)
{
    CSSM_RETURN error = cssmStartup();
    if (error != CSSM_OK)
        return error;
    error = CSSM_ModuleLoad(&gGuidAppleCSP, CSSM_KEY_HIERARCHY_NONE, nullptr, nullptr);
    if (error != CSSM_OK)
        return error;
    CSSM_CSP_HANDLE attached = 0;
    error = CSSM_ModuleAttach(&gGuidAppleCSP, &vers, &memFuncs, 0, CSSM_SERVICE_CSP, 0, CSSM_KEY_HIERARCHY_NONE,
        nullptr, 0, nullptr, &attached);
    if (error != CSSM_OK)
        return error;
    *handle = attached;
    return CSSM_OK;
}

CSSM_RETURN cdsaCspDetach(CSSM_CSP_HANDLE handle) { return CSSM_ModuleDetach(handle); }

CSSM_RETURN cdsaDigest(CSSM_CSP_HANDLE handle, CSSM_ALGORITHMS algorithm, const CSSM_DATA* input, CSSM_DATA* digest)
{
    // Empty on every failure.
    digest->Data = nullptr;
    digest->Length = 0;
    CSSM_CC_HANDLE context = 0;
    CSSM_RETURN error = CSSM_CSP_CreateDigestContext(handle, algorithm, &context);
    if (error != CSSM_OK)
        return error;
    error = CSSM_DigestData(context, input, 1, digest);
    CSSM_DeleteContext(context);
    return error;
}

CSSM_RETURN cdsaSign(CSSM_CSP_HANDLE handle, const CSSM_KEY* key, CSSM_ALGORITHMS algorithm, const CSSM_DATA* input,
    CSSM_DATA* signature)
{
    CSSM_CC_HANDLE context = 0;
    CSSM_RETURN error = CSSM_CSP_CreateSignatureContext(handle, algorithm, nullptr, key, &context);
    if (error != CSSM_OK)
        return error;
    error = CSSM_SignData(context, input, 1, CSSM_ALGID_NONE, signature);
    CSSM_DeleteContext(context);
    return error;
}

CSSM_RETURN cdsaVerify(CSSM_CSP_HANDLE handle, const CSSM_KEY* key, CSSM_ALGORITHMS algorithm, const CSSM_DATA* input,
    const CSSM_DATA* signature)
{
    CSSM_CC_HANDLE context = 0;
    CSSM_RETURN error = CSSM_CSP_CreateSignatureContext(handle, algorithm, nullptr, key, &context);
    if (error != CSSM_OK)
        return error;
    error = CSSM_VerifyData(context, input, 1, CSSM_ALGID_NONE, signature);
    CSSM_DeleteContext(context);
    return error;
}
