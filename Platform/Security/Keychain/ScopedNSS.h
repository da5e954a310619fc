// Owners of NSS's objects, one named type for each. For source files only.
#pragma once

#include <nss.h>
#include <pk11pub.h>
#include <pkcs11.h>
#include <pkcs11n.h>
#include <secmod.h>
#include <secmodt.h>

#include <memory>
#include <utility>
#include <vector>

namespace kf::keychain {

struct UserSlotCloser {
    void operator()(PK11SlotInfo* slot) const noexcept
    {
        SECMOD_CloseUserDB(slot);
        PK11_FreeSlot(slot);
    }
};
/// A slot opened with SECMOD_OpenUserDB; its database is closed with it.
using ScopedUserSlot = std::unique_ptr<PK11SlotInfo, UserSlotCloser>;

/// A session on a slot, on the PKCS#11 functions that the slot belongs to.
class ScopedSession {
public:
    ScopedSession(CK_FUNCTION_LIST& functions, CK_SESSION_HANDLE handle) noexcept
        : functions_(&functions), handle_(handle)
    {
    }
    ScopedSession(const ScopedSession&) = delete;
    ScopedSession& operator=(const ScopedSession&) = delete;
    ScopedSession(ScopedSession&& other) noexcept
        : functions_(std::exchange(other.functions_, nullptr)), handle_(other.handle_)
    {
    }
    ~ScopedSession()
    {
        if (functions_)
            functions_->C_CloseSession(handle_);
    }

    CK_FUNCTION_LIST& functions() const noexcept { return *functions_; }
    CK_SESSION_HANDLE handle() const noexcept { return handle_; }

private:
    CK_FUNCTION_LIST* functions_;
    CK_SESSION_HANDLE handle_;
};

} // namespace kf::keychain
