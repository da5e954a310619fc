// Administrator rights and running tools with them.
#pragma once

#include "Foundation/NSError.h"
#include "Security/SecBase.h"

#include <cstdio>
#include <memory>
#include <set>
#include <string>

namespace kf::authorization {
class Backend;
}

enum : OSStatus {
    errAuthorizationSuccess = 0,
    errAuthorizationInvalidSet = -60001,
    errAuthorizationInvalidRef = -60002,
    errAuthorizationInvalidTag = -60003,
    errAuthorizationInvalidPointer = -60004,
    errAuthorizationDenied = -60005,
    errAuthorizationCanceled = -60006,
    errAuthorizationInteractionNotAllowed = -60007,
    errAuthorizationInternal = -60008,
    errAuthorizationExternalizeNotAllowed = -60009,
    errAuthorizationInternalizeNotAllowed = -60010,
    errAuthorizationInvalidFlags = -60011,
    errAuthorizationToolExecuteFailure = -60031,
    errAuthorizationToolEnvironmentError = -60032,
};

using AuthorizationFlags = std::uint32_t;
inline constexpr AuthorizationFlags kAuthorizationFlagDefaults = 0;
inline constexpr AuthorizationFlags kAuthorizationFlagInteractionAllowed = 1;
inline constexpr AuthorizationFlags kAuthorizationFlagExtendRights = 2;
inline constexpr AuthorizationFlags kAuthorizationFlagPreAuthorize = 16;

/// A grant of rights to this process; the handle behind SFAuthorization. Any
/// thread, one at a time.
class Authorization final : public NSObject {
public:
    bool holds(const std::string& right) const { return rights_.contains(right); }
    /// Takes a right in that the back end granted.
    void add(const std::string& right) { rights_.insert(right); }
    /// Who grants rights and runs tools for it: the back end of the time when it was made.
    kf::authorization::Backend& backend() const noexcept { return *backend_; }
    const char* className() const noexcept override { return "Authorization"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    explicit Authorization(std::shared_ptr<kf::authorization::Backend> backend) noexcept;
    ~Authorization() override;

    std::shared_ptr<kf::authorization::Backend> backend_;
    std::set<std::string> rights_;
};
using AuthorizationRef = Ref<Authorization>;

/// Runs a tool with administrator rights under an authorization that holds
/// "system.privilege.admin". `path` is absolute; `arguments` is a vector of C
/// strings ended by a null slot, or null; `communicationsPipe`, where not null,
/// receives a stream connected to the tool's standard input and output, which
/// the caller closes; without it the tool's input is /dev/null. When the call
/// succeeds the tool is this process's one unreaped child; when it fails there
/// is none. Errors: errAuthorizationInvalidRef, errAuthorizationInvalidPointer
/// (null path), errAuthorizationInvalidFlags (flags other than 0),
/// errAuthorizationDenied (the right is not held, or does not cover this tool),
/// errAuthorizationCanceled (a further question was dismissed),
/// errAuthorizationToolExecuteFailure (it could not be started).
OSStatus AuthorizationExecuteWithPrivileges(const AuthorizationRef& authorization, const char* path,
    AuthorizationFlags flags, char* const* arguments, std::FILE** communicationsPipe);

/// An authorization as an object. Any thread, one at a time.
class SFAuthorization final : public NSObject {
public:
    /// A fresh authorization that holds no rights.
    static Ref<SFAuthorization> authorization();

    const AuthorizationRef& authorizationRef() const noexcept { return authorization_; }
    /// Obtains a right, asking the person where the flags allow it; blocks
    /// until that is decided. On failure false, and `*error` (where not null)
    /// is an NSOSStatusErrorDomain error with an errAuthorization code:
    /// errAuthorizationInvalidSet (no right, or one that the machine has no
    /// action for), errAuthorizationInvalidFlags, errAuthorizationDenied
    /// (refused, unknown right, or not held where the flags do not allow to
    /// extend), errAuthorizationCanceled (dismissed, or given up with
    /// cancelOpenRequests), errAuthorizationInteractionNotAllowed (nobody can
    /// be asked), errAuthorizationInternal (there is nothing to ask with). On
    /// success `*error` stays as it was.
    bool obtainWithRight(const Ref<NSString>& right, AuthorizationFlags flags, Ref<NSError>* error);

    const char* className() const noexcept override { return "SFAuthorization"; }

private:
    template <class T, class... Arguments>
    friend Ref<T> makeRef(Arguments&&...);
    SFAuthorization();
    ~SFAuthorization() override;

    AuthorizationRef authorization_;
};
