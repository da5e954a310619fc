// CSSM behind one interface, so that it can be replaced.
#pragma once

#include "Security/cssmapi.h"

namespace kf {

/// What the functions of cssmapi.h do, one for one; they forward to current().
class CssmService {
public:
    virtual ~CssmService();

    virtual CSSM_RETURN init(const CSSM_VERSION* version, CSSM_PRIVILEGE_SCOPE scope, const CSSM_GUID* callerGuid,
        CSSM_KEY_HIERARCHY keyHierarchy, CSSM_PVC_MODE* pvcPolicy, const void* reserved) = 0;
    virtual CSSM_RETURN moduleLoad(const CSSM_GUID* moduleGuid, CSSM_KEY_HIERARCHY keyHierarchy) = 0;
    virtual CSSM_RETURN moduleUnload(const CSSM_GUID* moduleGuid) = 0;
    virtual CSSM_RETURN moduleAttach(const CSSM_GUID* moduleGuid, const CSSM_VERSION* version,
        const CSSM_API_MEMORY_FUNCS* memoryFuncs, std::uint32_t subserviceID, CSSM_SERVICE_TYPE subserviceType,
        CSSM_ATTACH_FLAGS attachFlags, CSSM_KEY_HIERARCHY keyHierarchy, CSSM_FUNC_NAME_ADDR* functionTable,
        std::uint32_t numFunctionTable, const void* reserved, CSSM_MODULE_HANDLE* moduleHandle) = 0;
    virtual CSSM_RETURN moduleDetach(CSSM_MODULE_HANDLE moduleHandle) = 0;

    virtual CSSM_RETURN createDigestContext(
        CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm, CSSM_CC_HANDLE* contextHandle) = 0;
    virtual CSSM_RETURN createSignatureContext(CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm,
        const CSSM_ACCESS_CREDENTIALS* credentials, const CSSM_KEY* key, CSSM_CC_HANDLE* contextHandle) = 0;
    virtual CSSM_RETURN deleteContext(CSSM_CC_HANDLE contextHandle) = 0;
    virtual CSSM_RETURN digestData(
        CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount, CSSM_DATA* digest) = 0;
    virtual CSSM_RETURN signData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
        CSSM_ALGORITHMS digestAlgorithm, CSSM_DATA* signature) = 0;
    virtual CSSM_RETURN verifyData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
        CSSM_ALGORITHMS digestAlgorithm, const CSSM_DATA* signature) = 0;

    virtual CSSM_RETURN certGetAllFields(
        CSSM_CL_HANDLE clHandle, const CSSM_DATA* cert, std::uint32_t* numberOfFields, CSSM_FIELD** certFields) = 0;
    virtual CSSM_RETURN freeFields(CSSM_CL_HANDLE clHandle, std::uint32_t numberOfFields, CSSM_FIELD** fields) = 0;

    /// The process's service: the platform's own manager unless it was replaced.
    static CssmService& current() noexcept;

private:
    friend class ScopedCssmService;
    static CssmService* exchange(CssmService* service) noexcept;
};

/// Puts another service in the place of the process's own while it lives. The
/// service is borrowed. Not while another thread is inside CSSM.
class ScopedCssmService {
public:
    explicit ScopedCssmService(CssmService& service) noexcept : before_(CssmService::exchange(&service)) { }
    ~ScopedCssmService() { CssmService::exchange(before_); }
    ScopedCssmService(const ScopedCssmService&) = delete;
    ScopedCssmService& operator=(const ScopedCssmService&) = delete;

private:
    CssmService* before_;
};

} // namespace kf
