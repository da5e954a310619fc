// A CSSM for tests: writes down which calls were made, and lets chosen ones fail.
#pragma once

#include "Security/CSSM/CssmManager.h"

#include <map>
#include <string>
#include <vector>

namespace kf::test {

/// Takes CSSM's place in the process while it lives. Behind it works a manager
/// of its own with fresh instances of the platform's modules, not yet started.
class RecordingCssm : public CssmService {
public:
    RecordingCssm()
    {
        manager_.registerModule(gGuidAppleCSP, makeCspModule());
        manager_.registerModule(gGuidAppleX509CL, makeX509ClModule());
    }

    CssmManager& manager() noexcept { return manager_; }

    /// Every further call of this name fails with `error` before it reaches the manager.
    void fail(const std::string& call, CSSM_RETURN error) { failures_[call] = error; }
    void succeed(const std::string& call) { failures_.erase(call); }

    /// The names of the calls since the last time this was asked.
    std::vector<std::string> takeCalls() { return std::exchange(calls_, {}); }

    CSSM_RETURN init(const CSSM_VERSION* version, CSSM_PRIVILEGE_SCOPE scope, const CSSM_GUID* callerGuid,
        CSSM_KEY_HIERARCHY keyHierarchy, CSSM_PVC_MODE* pvcPolicy, const void* reserved) override
    {
        return record(
            "CSSM_Init", [&] { return manager_.init(version, scope, callerGuid, keyHierarchy, pvcPolicy, reserved); });
    }
    CSSM_RETURN moduleLoad(const CSSM_GUID* moduleGuid, CSSM_KEY_HIERARCHY keyHierarchy) override
    {
        return record("CSSM_ModuleLoad", [&] { return manager_.moduleLoad(moduleGuid, keyHierarchy); });
    }
    CSSM_RETURN moduleUnload(const CSSM_GUID* moduleGuid) override
    {
        return record("CSSM_ModuleUnload", [&] { return manager_.moduleUnload(moduleGuid); });
    }
    CSSM_RETURN moduleAttach(const CSSM_GUID* moduleGuid, const CSSM_VERSION* version,
        const CSSM_API_MEMORY_FUNCS* memoryFuncs, std::uint32_t subserviceID, CSSM_SERVICE_TYPE subserviceType,
        CSSM_ATTACH_FLAGS attachFlags, CSSM_KEY_HIERARCHY keyHierarchy, CSSM_FUNC_NAME_ADDR* functionTable,
        std::uint32_t numFunctionTable, const void* reserved, CSSM_MODULE_HANDLE* moduleHandle) override
    {
        return record("CSSM_ModuleAttach", [&] {
            return manager_.moduleAttach(moduleGuid, version, memoryFuncs, subserviceID, subserviceType, attachFlags,
                keyHierarchy, functionTable, numFunctionTable, reserved, moduleHandle);
        });
    }
    CSSM_RETURN moduleDetach(CSSM_MODULE_HANDLE moduleHandle) override
    {
        return record("CSSM_ModuleDetach", [&] { return manager_.moduleDetach(moduleHandle); });
    }
    CSSM_RETURN createDigestContext(
        CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm, CSSM_CC_HANDLE* contextHandle) override
    {
        return record("CSSM_CSP_CreateDigestContext",
            [&] { return manager_.createDigestContext(cspHandle, algorithm, contextHandle); });
    }
    CSSM_RETURN createSignatureContext(CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm,
        const CSSM_ACCESS_CREDENTIALS* credentials, const CSSM_KEY* key, CSSM_CC_HANDLE* contextHandle) override
    {
        return record("CSSM_CSP_CreateSignatureContext",
            [&] { return manager_.createSignatureContext(cspHandle, algorithm, credentials, key, contextHandle); });
    }
    CSSM_RETURN deleteContext(CSSM_CC_HANDLE contextHandle) override
    {
        return record("CSSM_DeleteContext", [&] { return manager_.deleteContext(contextHandle); });
    }
    CSSM_RETURN digestData(
        CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount, CSSM_DATA* digest) override
    {
        return record(
            "CSSM_DigestData", [&] { return manager_.digestData(contextHandle, dataBufs, dataBufCount, digest); });
    }
    CSSM_RETURN signData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
        CSSM_ALGORITHMS digestAlgorithm, CSSM_DATA* signature) override
    {
        return record("CSSM_SignData",
            [&] { return manager_.signData(contextHandle, dataBufs, dataBufCount, digestAlgorithm, signature); });
    }
    CSSM_RETURN verifyData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
        CSSM_ALGORITHMS digestAlgorithm, const CSSM_DATA* signature) override
    {
        return record("CSSM_VerifyData",
            [&] { return manager_.verifyData(contextHandle, dataBufs, dataBufCount, digestAlgorithm, signature); });
    }
    CSSM_RETURN certGetAllFields(
        CSSM_CL_HANDLE clHandle, const CSSM_DATA* cert, std::uint32_t* numberOfFields, CSSM_FIELD** certFields) override
    {
        return record("CSSM_CL_CertGetAllFields",
            [&] { return manager_.certGetAllFields(clHandle, cert, numberOfFields, certFields); });
    }
    CSSM_RETURN freeFields(CSSM_CL_HANDLE clHandle, std::uint32_t numberOfFields, CSSM_FIELD** fields) override
    {
        return record("CSSM_CL_FreeFields", [&] { return manager_.freeFields(clHandle, numberOfFields, fields); });
    }

private:
    template <class Call>
    CSSM_RETURN record(const std::string& name, Call call)
    {
        calls_.push_back(name);
        const auto failure = failures_.find(name);
        return failure == failures_.end() ? call() : failure->second;
    }

    CssmManager manager_;
    ScopedCssmService installed_{*this};
    std::map<std::string, CSSM_RETURN> failures_;
    std::vector<std::string> calls_;
};

} // namespace kf::test
