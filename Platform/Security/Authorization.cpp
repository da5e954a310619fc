#include "Security/Authorization.h"

#include "Foundation/NSFormat.h"
#include "Security/Authorization/Backend.h"
#include "Security/Authorization/ErrorText.h"

using namespace kf;

namespace {

constexpr AuthorizationFlags knownFlags =
    kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize;

Status obtain(Authorization& authorization, const Ref<NSString>& right, AuthorizationFlags flags)
{
    const auto name = right ? right->UTF8String() : std::nullopt;
    if (!name || name->empty())
        return Failure{errAuthorizationInvalidSet};
    if ((flags & ~knownFlags) != 0)
        return Failure{errAuthorizationInvalidFlags};
    if (authorization.holds(*name))
        return {};
    if ((flags & kAuthorizationFlagExtendRights) == 0)
        return Failure{errAuthorizationDenied};
    const Status granted = authorization.backend().obtainRight(*name, flags);
    if (granted)
        authorization.add(*name);
    return granted;
}

Ref<NSError> errorOf(OSStatus status)
{
    const auto description = NSStringWithFormat("%@ (%d)", authorizationErrorText(status), status);
    return NSError::errorWithDomain(NSOSStatusErrorDomain, status,
        NSDictionary::dictionaryWithObjectsAndKeys({{description, NSLocalizedDescriptionKey}}));
}

std::vector<std::string> vectorOf(char* const* arguments)
{
    std::vector<std::string> words;
    for (; arguments && *arguments; ++arguments)
        words.emplace_back(*arguments);
    return words;
}

} // namespace

Authorization::Authorization(std::shared_ptr<authorization::Backend> backend) noexcept
    : backend_(std::move(backend)) { }

Authorization::~Authorization() = default;

SFAuthorization::SFAuthorization() : authorization_(makeRef<Authorization>(authorization::currentBackend())) { }

SFAuthorization::~SFAuthorization() = default;

Ref<SFAuthorization> SFAuthorization::authorization() { return makeRef<SFAuthorization>(); }

bool SFAuthorization::obtainWithRight(const Ref<NSString>& right, AuthorizationFlags flags, Ref<NSError>* error)
{
    const Status obtained = obtain(*authorization_, right, flags);
    if (!obtained && error)
        *error = errorOf(obtained.status());
    return static_cast<bool>(obtained);
}

OSStatus AuthorizationExecuteWithPrivileges(const AuthorizationRef& authorization, const char* path,
    AuthorizationFlags flags, char* const* arguments, std::FILE** communicationsPipe)
{
    if (communicationsPipe)
        *communicationsPipe = nullptr;
    if (!authorization)
        return errAuthorizationInvalidRef;
    if (!path)
        return errAuthorizationInvalidPointer;
    if (flags != kAuthorizationFlagDefaults)
        return errAuthorizationInvalidFlags;
    if (!authorization->holds(authorization::administratorRight))
        return errAuthorizationDenied;
    return authorization->backend().execute({path, vectorOf(arguments)}, communicationsPipe).status();
}
