#include "Security/cssmapi.h"
#include "Security/CSSM/CssmManager.h"

#include <atomic>
#include <cstdio>
#include <new>

const CSSM_GUID gGuidAppleCSP = {0x6D1F3A52, 0x90C4, 0x4B7E, {0xA1, 0x5D, 0x2E, 0x87, 0x0B, 0xF6, 0x33, 0xC9}};
const CSSM_GUID gGuidAppleX509CL = {0xB84E0C17, 0x2F6A, 0x4D93, {0x8C, 0x71, 0xE5, 0x19, 0x4A, 0xD2, 0x60, 0x7B}};

namespace kf {

namespace {

std::atomic<CssmService*> replacement{nullptr};

} // namespace

CssmService::~CssmService() = default;

CssmService& CssmService::current() noexcept
{
    CssmService* const service = replacement.load(std::memory_order_acquire);
    return service ? *service : CssmManager::platform();
}

CssmService* CssmService::exchange(CssmService* service) noexcept
{
    return replacement.exchange(service, std::memory_order_acq_rel);
}

} // namespace kf

namespace {

/// Makes a call of the current service; what it throws becomes an error of the
/// module range that begins at `base`.
template <class Call>
CSSM_RETURN forward(CSSM_RETURN base, Call call) noexcept
{
    try {
        return call(kf::CssmService::current());
    } catch (const std::bad_alloc&) {
        return base + CSSM_ERRCODE_MEMORY_ERROR;
    } catch (...) {
        return base + CSSM_ERRCODE_INTERNAL_ERROR;
    }
}

using kf::CssmService;

} // namespace

CSSM_RETURN CSSM_Init(const CSSM_VERSION* version, CSSM_PRIVILEGE_SCOPE scope, const CSSM_GUID* callerGuid,
    CSSM_KEY_HIERARCHY keyHierarchy, CSSM_PVC_MODE* pvcPolicy, const void* reserved)
{
    return forward(CSSM_CSSM_BASE_ERROR,
        [&](CssmService& cssm) { return cssm.init(version, scope, callerGuid, keyHierarchy, pvcPolicy, reserved); });
}

CSSM_RETURN CSSM_ModuleLoad(
    const CSSM_GUID* moduleGuid, CSSM_KEY_HIERARCHY keyHierarchy, CSSM_API_ModuleEventHandler, void*)
{
    return forward(CSSM_CSSM_BASE_ERROR, [&](CssmService& cssm) { return cssm.moduleLoad(moduleGuid, keyHierarchy); });
}

CSSM_RETURN CSSM_ModuleUnload(const CSSM_GUID* moduleGuid, CSSM_API_ModuleEventHandler, void*)
{
    return forward(CSSM_CSSM_BASE_ERROR, [&](CssmService& cssm) { return cssm.moduleUnload(moduleGuid); });
}

CSSM_RETURN CSSM_ModuleAttach(const CSSM_GUID* moduleGuid, const CSSM_VERSION* version,
    const CSSM_API_MEMORY_FUNCS* memoryFuncs, std::uint32_t subserviceID, CSSM_SERVICE_TYPE subserviceType,
    CSSM_ATTACH_FLAGS attachFlags, CSSM_KEY_HIERARCHY keyHierarchy, CSSM_FUNC_NAME_ADDR* functionTable,
    std::uint32_t numFunctionTable, const void* reserved, CSSM_MODULE_HANDLE* moduleHandle)
{
    return forward(CSSM_CSSM_BASE_ERROR, [&](CssmService& cssm) {
        return cssm.moduleAttach(moduleGuid, version, memoryFuncs, subserviceID, subserviceType, attachFlags,
            keyHierarchy, functionTable, numFunctionTable, reserved, moduleHandle);
    });
}

CSSM_RETURN CSSM_ModuleDetach(CSSM_MODULE_HANDLE moduleHandle)
{
    return forward(CSSM_CSSM_BASE_ERROR, [&](CssmService& cssm) { return cssm.moduleDetach(moduleHandle); });
}

CSSM_RETURN CSSM_CSP_CreateDigestContext(
    CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm, CSSM_CC_HANDLE* contextHandle)
{
    return forward(CSSM_CSP_BASE_ERROR,
        [&](CssmService& cssm) { return cssm.createDigestContext(cspHandle, algorithm, contextHandle); });
}

CSSM_RETURN CSSM_CSP_CreateSignatureContext(CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm,
    const CSSM_ACCESS_CREDENTIALS* credentials, const CSSM_KEY* key, CSSM_CC_HANDLE* contextHandle)
{
    return forward(CSSM_CSP_BASE_ERROR, [&](CssmService& cssm) {
        return cssm.createSignatureContext(cspHandle, algorithm, credentials, key, contextHandle);
    });
}

CSSM_RETURN CSSM_DeleteContext(CSSM_CC_HANDLE contextHandle)
{
    return forward(CSSM_CSP_BASE_ERROR, [&](CssmService& cssm) { return cssm.deleteContext(contextHandle); });
}

CSSM_RETURN CSSM_DigestData(
    CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount, CSSM_DATA* digest)
{
    return forward(CSSM_CSP_BASE_ERROR,
        [&](CssmService& cssm) { return cssm.digestData(contextHandle, dataBufs, dataBufCount, digest); });
}

CSSM_RETURN CSSM_SignData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
    CSSM_ALGORITHMS digestAlgorithm, CSSM_DATA* signature)
{
    return forward(CSSM_CSP_BASE_ERROR, [&](CssmService& cssm) {
        return cssm.signData(contextHandle, dataBufs, dataBufCount, digestAlgorithm, signature);
    });
}

CSSM_RETURN CSSM_VerifyData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
    CSSM_ALGORITHMS digestAlgorithm, const CSSM_DATA* signature)
{
    return forward(CSSM_CSP_BASE_ERROR, [&](CssmService& cssm) {
        return cssm.verifyData(contextHandle, dataBufs, dataBufCount, digestAlgorithm, signature);
    });
}

CSSM_RETURN CSSM_CL_CertGetAllFields(
    CSSM_CL_HANDLE clHandle, const CSSM_DATA* cert, std::uint32_t* numberOfFields, CSSM_FIELD** certFields)
{
    return forward(CSSM_CL_BASE_ERROR,
        [&](CssmService& cssm) { return cssm.certGetAllFields(clHandle, cert, numberOfFields, certFields); });
}

CSSM_RETURN CSSM_CL_FreeFields(CSSM_CL_HANDLE clHandle, std::uint32_t numberOfFields, CSSM_FIELD** fields)
{
    return forward(
        CSSM_CL_BASE_ERROR, [&](CssmService& cssm) { return cssm.freeFields(clHandle, numberOfFields, fields); });
}

void cssmPerror(const char* label, CSSM_RETURN error)
{
    const auto text = SecCopyErrorMessageString(static_cast<OSStatus>(error), nullptr);
    char number[sizeof "unknown error 0x00000000"];
    std::snprintf(number, sizeof number, "unknown error 0x%08X", error);
    // One call, so that lines of several threads do not mix.
    std::fprintf(stderr, "%s: %s\n", label ? label : "error", text ? toUTF8(text).c_str() : number);
}
