#include "Security/Authorization/PolkitBackend.h"

#include "Security/Authorization/Launch.h"
#include "Security/Authorization/PolkitAuthority.h"

#include <unistd.h>

namespace kf::authorization {

namespace {

/// pkexec's own, where the launcher was not reached.
constexpr int exitStatusDismissed = 126;

LaunchResult launchThrough(
    const PolkitBackend::Places& places, const char* way, const ToolCommand& tool, std::FILE** pipe)
{
    // pkexec refuses to start with some values of the caller's variables, and needs none of them.
    const std::vector<std::string> environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
    return launch({places.pkexec, "--disable-internal-agent", places.launcher}, way, tool, pipe, environment, false);
}

} // namespace

Status PolkitBackend::obtainRight(const std::string& right, AuthorizationFlags flags)
{
    if (right != administratorRight)
        return Failure{errAuthorizationDenied};
    // Nobody is asked for what could not be used.
    if (::access(places_.pkexec.c_str(), X_OK) != 0 || ::access(places_.launcher.c_str(), X_OK) != 0)
        return Failure{errAuthorizationInternal};
    const OpenRequest request;
    return checkAuthorization(right, (flags & kAuthorizationFlagInteractionAllowed) != 0, request);
}

Result<pid_t> PolkitBackend::execute(const ToolCommand& tool, std::FILE** pipe)
{
    LaunchResult result = launchThrough(places_, wayOfTheAuthority, tool, pipe);
    if (result.end == LaunchEnd::notTheAuthority)
        result = launchThrough(places_, wayOfAnyCertificate, tool, pipe);
    return resultOfLaunch(
        result, result.exitStatus == exitStatusDismissed ? errAuthorizationCanceled : errAuthorizationDenied);
}

} // namespace kf::authorization
