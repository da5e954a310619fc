#include "Security/Authorization/InteractiveBackend.h"

#include "Security/Authorization/PolkitBackend.h"
#include "Security/Authorization/SudoBackend.h"

namespace kf::authorization {

namespace {

/// Whether a failed question was put to somebody.
bool wasAnswered(OSStatus status)
{
    switch (status) {
    case errAuthorizationInteractionNotAllowed:
    case errAuthorizationInvalidSet:
    case errAuthorizationInternal:
        return false;
    default:
        return true;
    }
}

} // namespace

InteractiveBackend::InteractiveBackend()
    : InteractiveBackend(std::make_unique<PolkitBackend>(), std::make_unique<SudoBackend>())
{
}

InteractiveBackend::InteractiveBackend(std::unique_ptr<Backend> first, std::unique_ptr<Backend> second) noexcept
    : first_(std::move(first)), second_(std::move(second)), granting_(first_.get())
{
}

Status InteractiveBackend::obtainRight(const std::string& right, AuthorizationFlags flags)
{
    const Status answer = first_->obtainRight(right, flags);
    if (answer || wasAnswered(answer.status())) {
        granting_ = first_.get();
        return answer;
    }
    const Status second = second_->obtainRight(right, flags);
    if (second)
        granting_ = second_.get();
    // Why the first could not ask is the better news where the second could not either.
    return second || wasAnswered(second.status()) ? second : answer;
}

Result<pid_t> InteractiveBackend::execute(const ToolCommand& tool, std::FILE** pipe)
{
    return granting_.load()->execute(tool, pipe);
}

} // namespace kf::authorization
