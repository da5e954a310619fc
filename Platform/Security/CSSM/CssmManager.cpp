#include "Security/CSSM/CssmManager.h"

#include <algorithm>

namespace kf {

namespace {

constexpr CSSM_VERSION supportedVersion{2, 0};

bool isSupported(const CSSM_VERSION& version) noexcept
{
    return version.Major == supportedVersion.Major && version.Minor == supportedVersion.Minor;
}

bool isComplete(const CSSM_API_MEMORY_FUNCS& functions) noexcept
{
    return functions.malloc_func && functions.free_func && functions.realloc_func && functions.calloc_func;
}

bool areReadable(const CSSM_DATA* buffers, std::uint32_t count) noexcept
{
    return buffers && std::all_of(buffers, buffers + count, [](const CSSM_DATA& buffer) {
        return buffer.Data || buffer.Length == 0;
    });
}

} // namespace

CssmManager& CssmManager::platform()
{
    // Never destroyed: other threads and destructors may still use it at exit.
    static CssmManager& manager = []() -> CssmManager& {
        auto made = std::make_unique<CssmManager>();
        made->registerModule(gGuidAppleCSP, makeCspModule());
        made->registerModule(gGuidAppleX509CL, makeX509ClModule());
        return *made.release();
    }();
    return manager;
}

void CssmManager::registerModule(const CSSM_GUID& guid, std::shared_ptr<CssmModule> module)
{
    auto entry = std::make_shared<Module>(Module{guid, std::move(module)});
    const std::lock_guard lock(mutex_);
    std::erase_if(modules_, [&](const auto& known) { return known->guid == guid; });
    modules_.push_back(std::move(entry));
}

std::shared_ptr<CssmManager::Module> CssmManager::findModule(const CSSM_GUID& guid) const
{
    const auto found = std::find_if(modules_.begin(), modules_.end(), [&](const auto& m) { return m->guid == guid; });
    return found == modules_.end() ? nullptr : *found;
}

CSSM_RETURN CssmManager::init(const CSSM_VERSION* version, CSSM_PRIVILEGE_SCOPE scope, const CSSM_GUID* callerGuid,
    CSSM_KEY_HIERARCHY keyHierarchy, CSSM_PVC_MODE* pvcPolicy, const void* reserved)
{
    if (!version || !callerGuid || !pvcPolicy || reserved)
        return CSSMERR_CSSM_INVALID_POINTER;
    if (!isSupported(*version))
        return CSSMERR_CSSM_INCOMPATIBLE_VERSION;
    if (scope != CSSM_PRIVILEGE_SCOPE_NONE)
        return CSSMERR_CSSM_SCOPE_NOT_SUPPORTED;
    if (keyHierarchy != CSSM_KEY_HIERARCHY_NONE)
        return CSSMERR_CSSM_INVALID_KEY_HIERARCHY;
    if (*pvcPolicy != CSSM_PVC_NONE)
        return CSSMERR_CSSM_INVALID_PVC;
    const std::lock_guard lock(mutex_);
    initialized_ = true;
    return CSSM_OK;
}

CSSM_RETURN CssmManager::moduleLoad(const CSSM_GUID* moduleGuid, CSSM_KEY_HIERARCHY keyHierarchy)
{
    if (!moduleGuid)
        return CSSMERR_CSSM_INVALID_POINTER;
    if (keyHierarchy != CSSM_KEY_HIERARCHY_NONE)
        return CSSMERR_CSSM_INVALID_KEY_HIERARCHY;
    const std::lock_guard lock(mutex_);
    if (!initialized_)
        return CSSMERR_CSSM_NOT_INITIALIZED;
    const auto module = findModule(*moduleGuid);
    if (!module)
        return CSSMERR_CSSM_INVALID_GUID;
    if (module->loads == 0) {
        if (const Status loaded = module->implementation->load(); !loaded)
            return cssmReturn(loaded);
    }
    ++module->loads;
    return CSSM_OK;
}

CSSM_RETURN CssmManager::moduleUnload(const CSSM_GUID* moduleGuid)
{
    if (!moduleGuid)
        return CSSMERR_CSSM_INVALID_POINTER;
    const std::lock_guard lock(mutex_);
    const auto module = findModule(*moduleGuid);
    if (!module || module->loads == 0)
        return CSSMERR_CSSM_MODULE_NOT_LOADED;
    if (module->loads == 1) {
        if (module->attachments != 0)
            return CSSMERR_CSSM_ADDIN_UNLOAD_FAILED;
        if (const Status unloaded = module->implementation->unload(); !unloaded)
            return cssmReturn(unloaded);
    }
    --module->loads;
    return CSSM_OK;
}

CSSM_RETURN CssmManager::moduleAttach(const CSSM_GUID* moduleGuid, const CSSM_VERSION* version,
    const CSSM_API_MEMORY_FUNCS* memoryFuncs, std::uint32_t subserviceID, CSSM_SERVICE_TYPE subserviceType,
    CSSM_ATTACH_FLAGS attachFlags, CSSM_KEY_HIERARCHY keyHierarchy, CSSM_FUNC_NAME_ADDR* functionTable,
    std::uint32_t numFunctionTable, const void* reserved, CSSM_MODULE_HANDLE* moduleHandle)
{
    if (!moduleGuid || !version || !memoryFuncs || !isComplete(*memoryFuncs) || !moduleHandle || reserved)
        return CSSMERR_CSSM_INVALID_POINTER;
    if (!isSupported(*version))
        return CSSMERR_CSSM_INCOMPATIBLE_VERSION;
    if (subserviceID != 0)
        return CSSMERR_CSSM_INVALID_SUBSERVICEID;
    if (attachFlags != 0)
        return CSSMERR_CSSM_INVALID_ATTRIBUTE;
    if (keyHierarchy != CSSM_KEY_HIERARCHY_NONE)
        return CSSMERR_CSSM_INVALID_KEY_HIERARCHY;
    if (functionTable || numFunctionTable != 0)
        return CSSMERR_CSSM_INVALID_ADDIN_FUNCTION_TABLE;
    const std::lock_guard lock(mutex_);
    const auto module = findModule(*moduleGuid);
    if (!module || module->loads == 0)
        return CSSMERR_CSSM_MODULE_NOT_LOADED;
    if ((module->implementation->services() & subserviceType) != subserviceType || subserviceType == 0)
        return CSSMERR_CSSM_INVALID_SERVICE_MASK;
    auto session = module->implementation->attach(subserviceType, CssmMemory(*memoryFuncs));
    if (!session)
        return cssmReturn(session);
    const CSSM_MODULE_HANDLE handle = ++lastHandle_;
    attachments_.emplace(
        handle, std::make_shared<Attachment>(Attachment{module, subserviceType, std::move(session).value()}));
    ++module->attachments;
    *moduleHandle = handle;
    return CSSM_OK;
}

CSSM_RETURN CssmManager::moduleDetach(CSSM_MODULE_HANDLE moduleHandle)
{
    const std::lock_guard lock(mutex_);
    const auto found = attachments_.find(moduleHandle);
    if (found == attachments_.end())
        return CSSMERR_CSSM_INVALID_ADDIN_HANDLE;
    if (const Status detached = found->second->session->detach(); !detached)
        return cssmReturn(detached);
    std::erase_if(contexts_, [&](const auto& entry) { return entry.second.attachmentHandle == moduleHandle; });
    --found->second->module->attachments;
    attachments_.erase(found);
    return CSSM_OK;
}

std::shared_ptr<CssmManager::Attachment> CssmManager::findAttachment(
    CSSM_MODULE_HANDLE handle, CSSM_SERVICE_TYPE service) const
{
    const std::lock_guard lock(mutex_);
    const auto found = attachments_.find(handle);
    return found != attachments_.end() && found->second->service == service ? found->second : nullptr;
}

std::shared_ptr<const CssmContext> CssmManager::findContext(CSSM_CC_HANDLE handle) const
{
    const std::lock_guard lock(mutex_);
    const auto found = contexts_.find(handle);
    return found == contexts_.end() ? nullptr : found->second.implementation;
}

CSSM_RETURN CssmManager::addContext(
    CSSM_CSP_HANDLE cspHandle, Result<std::shared_ptr<const CssmContext>> made, CSSM_CC_HANDLE* contextHandle)
{
    if (!made)
        return cssmReturn(made);
    const std::lock_guard lock(mutex_);
    // It may have been detached meanwhile, and its contexts with it.
    if (!attachments_.contains(cspHandle))
        return CSSMERR_CSP_INVALID_CSP_HANDLE;
    const CSSM_CC_HANDLE handle = ++lastHandle_;
    contexts_.emplace(handle, Context{cspHandle, std::move(made).value()});
    *contextHandle = handle;
    return CSSM_OK;
}

CSSM_RETURN CssmManager::createDigestContext(
    CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm, CSSM_CC_HANDLE* contextHandle)
{
    if (!contextHandle)
        return CSSMERR_CSP_INVALID_OUTPUT_POINTER;
    const auto attachment = findAttachment(cspHandle, CSSM_SERVICE_CSP);
    if (!attachment)
        return CSSMERR_CSP_INVALID_CSP_HANDLE;
    return addContext(cspHandle, attachment->session->createDigestContext(algorithm), contextHandle);
}

CSSM_RETURN CssmManager::createSignatureContext(CSSM_CSP_HANDLE cspHandle, CSSM_ALGORITHMS algorithm,
    const CSSM_ACCESS_CREDENTIALS* credentials, const CSSM_KEY* key, CSSM_CC_HANDLE* contextHandle)
{
    if (!contextHandle)
        return CSSMERR_CSP_INVALID_OUTPUT_POINTER;
    if (credentials)
        return CSSMERR_CSP_INVALID_INPUT_POINTER;
    const auto attachment = findAttachment(cspHandle, CSSM_SERVICE_CSP);
    if (!attachment)
        return CSSMERR_CSP_INVALID_CSP_HANDLE;
    if (!key)
        return CSSMERR_CSP_MISSING_ATTR_KEY;
    if (!key->KeyData.Data)
        return CSSMERR_CSP_INVALID_KEY;
    return addContext(cspHandle, attachment->session->createSignatureContext(algorithm, *key), contextHandle);
}

CSSM_RETURN CssmManager::deleteContext(CSSM_CC_HANDLE contextHandle)
{
    const std::lock_guard lock(mutex_);
    return contexts_.erase(contextHandle) == 1 ? CSSM_OK : CSSMERR_CSP_INVALID_CONTEXT_HANDLE;
}

CSSM_RETURN CssmManager::digestData(
    CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount, CSSM_DATA* digest)
{
    const auto context = findContext(contextHandle);
    if (!context)
        return CSSMERR_CSP_INVALID_CONTEXT_HANDLE;
    if (!areReadable(dataBufs, dataBufCount))
        return CSSMERR_CSP_INVALID_INPUT_POINTER;
    if (!digest)
        return CSSMERR_CSP_INVALID_OUTPUT_POINTER;
    return cssmReturn(context->digest({dataBufs, dataBufCount}, *digest));
}

CSSM_RETURN CssmManager::signData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
    CSSM_ALGORITHMS digestAlgorithm, CSSM_DATA* signature)
{
    const auto context = findContext(contextHandle);
    if (!context)
        return CSSMERR_CSP_INVALID_CONTEXT_HANDLE;
    if (!areReadable(dataBufs, dataBufCount))
        return CSSMERR_CSP_INVALID_INPUT_POINTER;
    if (!signature)
        return CSSMERR_CSP_INVALID_OUTPUT_POINTER;
    return cssmReturn(context->sign({dataBufs, dataBufCount}, digestAlgorithm, *signature));
}

CSSM_RETURN CssmManager::verifyData(CSSM_CC_HANDLE contextHandle, const CSSM_DATA* dataBufs, std::uint32_t dataBufCount,
    CSSM_ALGORITHMS digestAlgorithm, const CSSM_DATA* signature)
{
    const auto context = findContext(contextHandle);
    if (!context)
        return CSSMERR_CSP_INVALID_CONTEXT_HANDLE;
    if (!areReadable(dataBufs, dataBufCount) || !areReadable(signature, 1))
        return CSSMERR_CSP_INVALID_INPUT_POINTER;
    return cssmReturn(context->verify({dataBufs, dataBufCount}, digestAlgorithm, *signature));
}

CSSM_RETURN CssmManager::certGetAllFields(
    CSSM_CL_HANDLE clHandle, const CSSM_DATA* cert, std::uint32_t* numberOfFields, CSSM_FIELD** certFields)
{
    const auto attachment = findAttachment(clHandle, CSSM_SERVICE_CL);
    if (!attachment)
        return CSSMERR_CL_INVALID_CL_HANDLE;
    if (!cert || !cert->Data)
        return CSSMERR_CL_INVALID_CERT_POINTER;
    if (!numberOfFields || !certFields)
        return CSSMERR_CL_INVALID_POINTER;
    const auto fields = attachment->session->certGetAllFields(*cert);
    if (!fields)
        return cssmReturn(fields);
    *numberOfFields = static_cast<std::uint32_t>(fields->size());
    *certFields = fields->data();
    return CSSM_OK;
}

CSSM_RETURN CssmManager::freeFields(CSSM_CL_HANDLE clHandle, std::uint32_t numberOfFields, CSSM_FIELD** fields)
{
    const auto attachment = findAttachment(clHandle, CSSM_SERVICE_CL);
    if (!attachment)
        return CSSMERR_CL_INVALID_CL_HANDLE;
    if (!fields || !*fields)
        return CSSMERR_CL_INVALID_FIELD_POINTER;
    const Status freed = attachment->session->freeFields({*fields, numberOfFields});
    if (freed)
        *fields = nullptr;
    return cssmReturn(freed);
}

} // namespace kf
