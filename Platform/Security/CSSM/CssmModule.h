// What a module offers to CSSM.
#pragma once

#include "Security/Result.h"
#include "Security/cssmerr.h"
#include "Security/cssmtype.h"

#include <limits>
#include <memory>
#include <span>

namespace kf {

/// A CSSM error as a failure; as a status it is the same 32 bits.
inline Failure cssmFailure(CSSM_RETURN error) noexcept { return Failure{static_cast<OSStatus>(error)}; }

template <class T>
CSSM_RETURN cssmReturn(const Result<T>& result) noexcept
{
    return static_cast<CSSM_RETURN>(result.status());
}

/// The memory functions of one attachment.
class CssmMemory {
public:
    explicit CssmMemory(const CSSM_API_MEMORY_FUNCS& functions) noexcept : functions_(functions) { }

    /// Null where the application has no memory, or where `size` passes the functions' 32 bits.
    void* allocate(std::size_t size) const
    {
        if (size > std::numeric_limits<std::uint32_t>::max())
            return nullptr;
        return functions_.malloc_func(static_cast<std::uint32_t>(size), functions_.AllocRef);
    }
    void free(void* memory) const { functions_.free_func(memory, functions_.AllocRef); }

private:
    CSSM_API_MEMORY_FUNCS functions_;
};

/// One algorithm, ready for work on one attachment. It may outlive its session,
/// where it is at work while another thread detaches. May be used by several
/// threads at once.
class CssmContext {
public:
    virtual ~CssmContext();
    virtual Status digest(std::span<const CSSM_DATA> buffers, CSSM_DATA& digest) const;
    virtual Status sign(
        std::span<const CSSM_DATA> buffers, CSSM_ALGORITHMS digestAlgorithm, CSSM_DATA& signature) const;
    virtual Status verify(
        std::span<const CSSM_DATA> buffers, CSSM_ALGORITHMS digestAlgorithm, const CSSM_DATA& signature) const;
};

/// One attachment of a module, with the services of its kind; the others are
/// not implemented. May be used by several threads at once.
class CssmSession {
public:
    virtual ~CssmSession();
    /// A failure leaves the session attached.
    virtual Status detach();

    virtual Result<std::shared_ptr<const CssmContext>> createDigestContext(CSSM_ALGORITHMS algorithm);
    virtual Result<std::shared_ptr<const CssmContext>> createSignatureContext(
        CSSM_ALGORITHMS algorithm, const CSSM_KEY& key);

    /// The fields are allocated with the attachment's memory functions.
    virtual Result<std::span<CSSM_FIELD>> certGetAllFields(const CSSM_DATA& certificate);
    virtual Status freeFields(std::span<CSSM_FIELD> fields);
};

/// A module as the manager knows it. Its calls, and CssmSession::detach, are made
/// under the manager's lock and must not call CSSM.
class CssmModule {
public:
    virtual ~CssmModule();
    virtual CSSM_SERVICE_MASK services() const noexcept = 0;
    virtual Status load();
    virtual Status unload();
    virtual Result<std::unique_ptr<CssmSession>> attach(CSSM_SERVICE_TYPE service, const CssmMemory& memory) = 0;
};

/// Fresh instances of the platform's modules.
std::unique_ptr<CssmModule> makeCspModule();
std::unique_ptr<CssmModule> makeX509ClModule();

} // namespace kf
