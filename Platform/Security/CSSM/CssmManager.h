// The manager of modules, attachments and contexts.
#pragma once

#include "Security/CSSM/CssmModule.h"
#include "Security/CSSM/CssmService.h"

#include <mutex>
#include <unordered_map>
#include <vector>

namespace kf {

/// A CSSM with a registry of modules of its own. Handles are never used twice,
/// and no number names both an attachment and a context, so that a stale or
/// mistaken handle is always found out. Any thread.
class CssmManager final : public CssmService {
public:
    /// Knows no module.
    CssmManager() = default;
    /// The one that knows the platform's modules; lives as long as the process.
    static CssmManager& platform();

    /// Makes a module known under its identifier; it takes the place of one that
    /// had it, whose attachments go on.
    void registerModule(const CSSM_GUID& guid, std::shared_ptr<CssmModule> module);

    CSSM_RETURN init(const CSSM_VERSION* version, CSSM_PRIVILEGE_SCOPE scope, const CSSM_GUID* callerGuid,
        CSSM_KEY_HIERARCHY keyHierarchy, CSSM_PVC_MODE* pvcPolicy, const void* reserved) override;
    CSSM_RETURN moduleLoad(const CSSM_GUID* moduleGuid, CSSM_KEY_HIERARCHY keyHierarchy) override;
    CSSM_RETURN moduleUnload(const CSSM_GUID* moduleGuid) override;
    CSSM_RETURN moduleAttach(const CSSM_GUID* moduleGuid, const CSSM_VERSION* version,
        const CSSM_API_MEMORY_FUNCS* memoryFuncs, std::uint32_t subserviceID, CSSM_SERVICE_TYPE subserviceType,
        CSSM_ATTACH_FLAGS attachFlags, CSSM_KEY_HIERARCHY keyHierarchy, CSSM_FUNC_NAME_ADDR* functionTable,
        std::uint32_t numFunctionTable, const void* reserved, CSSM_MODULE_HANDLE* moduleHandle) override;
    CSSM_RETURN moduleDetach(CSSM_MODULE_HANDLE moduleHandle) override;
    CSSM_RETURN createDigestContext(
        CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm, CSSM_CC_HANDLE* contextHandle) override;
    CSSM_RETURN createSignatureContext(CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm,
        const CSSM_ACCESS_CREDENTIALS* credentials, const CSSM_KEY* key, CSSM_CC_HANDLE* contextHandle) override;
    CSSM_RETURN deleteContext(CSSM_CC_HANDLE contextHandle) override;
    CSSM_RETURN digestData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
        CSSM_DATA* digest) override;
    CSSM_RETURN signData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
        CSSM_ALGORITHMS digestAlgorithm, CSSM_DATA* signature) override;
    CSSM_RETURN verifyData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
        CSSM_ALGORITHMS digestAlgorithm, const CSSM_DATA* signature) override;
    CSSM_RETURN certGetAllFields(CSSM_CL_HANDLE clHandle, const CSSM_DATA* cert, std::uint32_t* numberOfFields,
        CSSM_FIELD** certFields) override;
    CSSM_RETURN freeFields(CSSM_CL_HANDLE clHandle, std::uint32_t numberOfFields, CSSM_FIELD** fields) override;

private:
    struct Module {
        CSSM_GUID guid;
        std::shared_ptr<CssmModule> implementation;
        std::uint64_t loads = 0;
        std::uint64_t attachments = 0;
    };
    struct Attachment {
        std::shared_ptr<Module> module;
        CSSM_SERVICE_TYPE service;
        std::unique_ptr<CssmSession> session;
    };
    struct Context {
        CSSM_MODULE_HANDLE attachmentHandle;
        std::shared_ptr<const CssmContext> implementation;
    };

    std::shared_ptr<Module> findModule(const CSSM_GUID& guid) const;
    std::shared_ptr<Attachment> findAttachment(CSSM_MODULE_HANDLE handle, CSSM_SERVICE_TYPE service) const;
    std::shared_ptr<const CssmContext> findContext(CSSM_CC_HANDLE handle) const;
    CSSM_RETURN addContext(
        CSSM_CSP_HANDLE cspHandle, Result<std::shared_ptr<const CssmContext>> made, CSSM_CC_HANDLE* contextHandle);

    mutable std::mutex mutex_;
    bool initialized_ = false;
    CSSM_HANDLE lastHandle_ = 0;
    std::vector<std::shared_ptr<Module>> modules_;
    std::unordered_map<CSSM_MODULE_HANDLE, std::shared_ptr<Attachment>> attachments_;
    std::unordered_map<CSSM_CC_HANDLE, Context> contexts_;
};

} // namespace kf
