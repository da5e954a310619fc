#include "Security/CSSM/CssmModule.h"

namespace kf {

CssmContext::~CssmContext() = default;
CssmSession::~CssmSession() = default;
CssmModule::~CssmModule() = default;

Status CssmContext::digest(std::span<const CSSM_DATA>, CSSM_DATA&) const
{
    return cssmFailure(CSSMERR_CSP_INVALID_CONTEXT);
}

Status CssmContext::sign(std::span<const CSSM_DATA>, CSSM_ALGORITHMS, CSSM_DATA&) const
{
    return cssmFailure(CSSMERR_CSP_INVALID_CONTEXT);
}

Status CssmContext::verify(std::span<const CSSM_DATA>, CSSM_ALGORITHMS, const CSSM_DATA&) const
{
    return cssmFailure(CSSMERR_CSP_INVALID_CONTEXT);
}

Status CssmSession::detach() { return {}; }

Result<std::shared_ptr<const CssmContext>> CssmSession::createDigestContext(CSSM_ALGORITHMS)
{
    return cssmFailure(CSSMERR_CSP_FUNCTION_NOT_IMPLEMENTED);
}

Result<std::shared_ptr<const CssmContext>> CssmSession::createSignatureContext(CSSM_ALGORITHMS, const CSSM_KEY&)
{
    return cssmFailure(CSSMERR_CSP_FUNCTION_NOT_IMPLEMENTED);
}

Result<std::span<CSSM_FIELD>> CssmSession::certGetAllFields(const CSSM_DATA&)
{
    return cssmFailure(CSSMERR_CL_FUNCTION_NOT_IMPLEMENTED);
}

Status CssmSession::freeFields(std::span<CSSM_FIELD>) { return cssmFailure(CSSMERR_CL_FUNCTION_NOT_IMPLEMENTED); }

Status CssmModule::load() { return {}; }

Status CssmModule::unload() { return {}; }

} // namespace kf
