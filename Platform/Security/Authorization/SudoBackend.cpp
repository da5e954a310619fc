#include "Security/Authorization/SudoBackend.h"

#include "Security/Authorization/ChildProcess.h"
#include "Security/Authorization/OpenRequest.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
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
/// The askpass program may leave something running that holds the descriptor.
std::string readUntilEnd(int descriptor, pid_t child, const OpenRequest& request)
{
    std::string text;
    std::array<char, 512> buffer;
    const ScopedDescriptor ended = watchChild(child);
    ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
    while (request.waitFor(descriptor, ended.get())) {
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

/// A question and nothing else; none where sudo remembers the person.
Status ask(const std::string& sudo)
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
    const std::string text = readUntilEnd(messages.ours.get(), *child, request);
    if (request.isCanceled())
        ::kill(-*child, SIGTERM); // the askpass program, and sudo where it may be
    const int exitStatus = waitForChild(*child);
    if (exitStatus == 0)
        return {};
    return request.isCanceled() ? Status(Failure{errAuthorizationCanceled}) : statusOfRefusal(text);
}

/// Runs sudo where it asks nobody and has nothing to say; whether it succeeded.
bool runQuietly(const std::string& sudo, std::vector<std::string> arguments)
{
    const ScopedDescriptor null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    const auto child = startChild({.path = sudo, .arguments = std::move(arguments), .errors = null.get()});
    return child && waitForChild(*child) == 0;
}

/// Whether sudo remembers the person.
bool isRemembered(const std::string& sudo) { return runQuietly(sudo, {"-n", "-v"}); }

/// Lets sudo forget the person.
void forget(const std::string& sudo) { static_cast<void>(runQuietly(sudo, {"-k"})); }

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
    constexpr Failure nobodyToAsk{errAuthorizationInteractionNotAllowed};
    if (!isUsable())
        return nobodyToAsk;
    if ((flags & kAuthorizationFlagInteractionAllowed) != 0)
        return ask(places_.sudo);
    return isRemembered(places_.sudo) ? Status() : Status(nobodyToAsk);
}

Result<LaunchResult> SudoBackend::askAndLaunch(const char* way, const ToolCommand& tool, std::FILE** pipe) const
{
    // Before the launch, for then what sudo says cannot be told from what the tool says.
    if (const Status answer = ask(places_.sudo); !answer)
        return answer.failure();
    return launch({places_.sudo, "-A", "--", places_.launcher}, way, tool, pipe, environmentForSudo(), true);
}

Result<pid_t> SudoBackend::execute(const ToolCommand& tool, std::FILE** pipe)
{
    auto result = askAndLaunch(wayOfTheAuthority, tool, pipe);
    if (result && result->end == LaunchEnd::notTheAuthority) {
        forget(places_.sudo);
        result = askAndLaunch(wayOfAnyCertificate, tool, pipe);
    }
    return result ? resultOfLaunch(*result, errAuthorizationDenied) : result.failure();
}

} // namespace kf::authorization
