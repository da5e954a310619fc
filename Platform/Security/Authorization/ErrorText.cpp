#include "Security/Authorization/ErrorText.h"

#include "Security/Authorization.h"

namespace kf {

Ref<NSString> authorizationErrorText(OSStatus status)
{
    switch (status) {
    case errAuthorizationSuccess:
        return "The operation completed successfully"_ns;
    case errAuthorizationInvalidSet:
        return "The set parameter is invalid"_ns;
    case errAuthorizationInvalidRef:
        return "The authorization parameter is invalid"_ns;
    case errAuthorizationInvalidTag:
        return "The tag parameter is invalid"_ns;
    case errAuthorizationInvalidPointer:
        return "The authorizedRights parameter is invalid"_ns;
    case errAuthorizationDenied:
        return "The Security Server denied authorization for one or more requested rights"_ns;
    case errAuthorizationCanceled:
        return "The user canceled the operation"_ns;
    case errAuthorizationInteractionNotAllowed:
        return "The Security Server denied authorization because no user interaction is allowed"_ns;
    case errAuthorizationInternal:
        return "An unrecognized internal error occurred"_ns;
    case errAuthorizationExternalizeNotAllowed:
        return "The Security Server denied externalization of the authorization reference"_ns;
    case errAuthorizationInternalizeNotAllowed:
        return "The Security Server denied internalization of the authorization reference"_ns;
    case errAuthorizationInvalidFlags:
        return "The flags parameter is invalid"_ns;
    case errAuthorizationToolExecuteFailure:
        return "The tool failed to execute"_ns;
    case errAuthorizationToolEnvironmentError:
        return "The attempt to execute the tool failed to return a success or an error code"_ns;
    default:
        return nullptr;
    }
}

} // namespace kf
