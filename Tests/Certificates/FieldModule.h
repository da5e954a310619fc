// A certificate library whose fields a test makes up.
#pragma once

#include "Security/CSSM/CssmManager.h"
#include "Security/cssmoids.h"
#include "Security/x509defs.h"

#include <vector>

namespace kf::test {

/// Takes the place of the platform's certificate library in a CSSM of its own.
/// Whatever certificate it is asked about, it gives the fields set here.
class FieldModule {
public:
    FieldModule() { manager_.registerModule(gGuidAppleX509CL, std::make_shared<Module>(*this)); }

    std::vector<CSSM_FIELD> fields;
    /// What asking for the fields gives; CSSM_OK gives them.
    CSSM_RETURN error = CSSM_OK;
    /// What freeing them gives.
    CSSM_RETURN freeingError = CSSM_OK;

private:
    class Session final : public CssmSession {
    public:
        explicit Session(FieldModule& owner) noexcept : owner_(owner) { }
        Result<std::span<CSSM_FIELD>> certGetAllFields(const CSSM_DATA&) override
        {
            if (owner_.error != CSSM_OK)
                return cssmFailure(owner_.error);
            return std::span<CSSM_FIELD>(owner_.fields);
        }
        Status freeFields(std::span<CSSM_FIELD>) override
        {
            if (owner_.freeingError != CSSM_OK)
                return cssmFailure(owner_.freeingError);
            return {};
        }

    private:
        FieldModule& owner_;
    };
    class Module final : public CssmModule {
    public:
        explicit Module(FieldModule& owner) noexcept : owner_(owner) { }
        CSSM_SERVICE_MASK services() const noexcept override { return CSSM_SERVICE_CL; }
        Result<std::unique_ptr<CssmSession>> attach(CSSM_SERVICE_TYPE, const CssmMemory&) override
        {
            return std::unique_ptr<CssmSession>(std::make_unique<Session>(owner_));
        }

    private:
        FieldModule& owner_;
    };

    CssmManager manager_;
    ScopedCssmService installed_{manager_};
};

/// A field whose value is the bytes of `value`, which must live as long.
template <class T>
CSSM_FIELD fieldOf(const CSSM_OID& oid, T& value)
{
    return {oid, {sizeof(T), reinterpret_cast<std::uint8_t*>(&value)}};
}

} // namespace kf::test
