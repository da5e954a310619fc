#include "Security/Authorization/SudoBackend.h"

#include "Security/Authorization/ChildProcess.h"
#include "Security/Authorization/Launch.h"
#include "Security/Authorization/OpenRequest.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace kf::authorization {

namespace {

/// This process's own environment, which the askpass program needs, with sudo's
/// messages in English: its exit status does not tell a person's "no" from a
/// wrong password.
std::vector<std::string> environmentForSudo()
{
    std::vector<std::string> environment = {"LC_MESSAGES=C"};
    for (char** entry = ::environ; entry && *entry; ++entry) {
        const std::string_view text = *entry;
        if (!text.starts_with("LC_MESSAGES=") && !text.starts_with("LC_ALL="))
            environment.emplace_back(text);
    }
    return environment;
}

/// What a child writes until it ends, as long as the request is not given up.
std::string readUntilEnd(int descriptor, const OpenRequest& request)
{
    std::string text;
    std::array<char, 512> buffer;
    while (request.waitFor(descriptor)) {
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

Status statusOfRefusal(std::string_view messages)
{
    const auto tells = [&](std::string_view text) { return messages.find(text) != messages.npos; };
    if (tells("unable to run"))
        return Failure{errAuthorizationInteractionNotAllowed};
    return Failure{tells("no password was provided") ? errAuthorizationCanceled : errAuthorizationDenied};
}

/// `sudo -A -v`: a question and nothing else.
Status validate(const std::string& sudo)
{
    DescriptorPair messages = makePipe();
    if (!messages)
        return Failure{errAuthorizationInternal};
    const OpenRequest request;
    const auto child = startChild({.path = sudo,
        .arguments = {"-A", "-v"},
        .environment = environmentForSudo(),
        .errors = messages.theirs.get(),
        .leadsGroup = true});
    messages.theirs.reset();
    if (!child)
        return Failure{errAuthorizationInternal};
    const std::string text = readUntilEnd(messages.ours.get(), request);
    if (request.isCanceled())
        ::kill(-*child, SIGTERM); // the askpass program, and sudo where it may be
    const int exitStatus = waitForChild(*child);
    if (exitStatus == 0)
        return {};
    return request.isCanceled() ? Status(Failure{errAuthorizationCanceled}) : statusOfRefusal(text);
}

} // namespace

bool SudoBackend::isUsable() const noexcept
{
    const char* askpass = std::getenv("SUDO_ASKPASS");
    return askpass && *askpass && ::access(places_.sudo.c_str(), X_OK) == 0
        && ::access(places_.launcher.c_str(), X_OK) == 0;
}

Status SudoBackend::obtainRight(const std::string& right, AuthorizationFlags flags)
{
    if (right != administratorRight)
        return Failure{errAuthorizationDenied};
    if ((flags & kAuthorizationFlagInteractionAllowed) == 0 || !isUsable())
        return Failure{errAuthorizationInteractionNotAllowed};
    return validate(places_.sudo);
}

Status SudoBackend::execute(const ToolCommand& tool, std::FILE** pipe)
{
    LaunchResult result =
        launch({places_.sudo, "-A", "--", places_.launcher}, wayOfTheAuthority, tool, pipe, environmentForSudo(), true);
    if (result.end == LaunchEnd::notTheAuthority)
        result = launch({places_.sudo, "-A", "-k", "--", places_.launcher}, wayOfAnyCertificate, tool, pipe,
            environmentForSudo(), true);
    return statusOfLaunch(result, errAuthorizationDenied);
}

} // namespace kf::authorization
