#include "Security/Authorization/Backend.h"

#include "Security/Authorization/InteractiveBackend.h"

#include <cstdlib>
#include <mutex>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace kf::authorization {

namespace {

/// KEYFOLD_AUTHORIZATION=none gives up every right, root's too: for
/// demonstrations and tests on a machine whose own settings must stay as they
/// are. Whoever sets it can only take rights away from the program, never give
/// it any, so it need not be trusted.
bool rightsAreGivenUp() noexcept
{
    const char* choice = std::getenv("KEYFOLD_AUTHORIZATION");
    return choice && std::string_view(choice) == "none";
}

std::shared_ptr<Backend> fittingBackend()
{
    if (rightsAreGivenUp())
        return std::make_shared<NoRightsBackend>(errAuthorizationDenied);
    if (::geteuid() == 0)
        return std::make_shared<DirectBackend>();
    return std::make_shared<InteractiveBackend>();
}

std::mutex mutex;
std::shared_ptr<Backend>& chosenBackend()
{
    static std::shared_ptr<Backend> backend;
    return backend;
}

} // namespace

Backend::~Backend() = default;

std::shared_ptr<Backend> currentBackend()
{
    const std::lock_guard lock(mutex);
    return chosenBackend() ? chosenBackend() : fittingBackend();
}

std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> backend)
{
    const std::lock_guard lock(mutex);
    return std::exchange(chosenBackend(), std::move(backend));
}

Status NoRightsBackend::obtainRight(const std::string&, AuthorizationFlags) { return Failure{refusal_}; }

Result<pid_t> NoRightsBackend::execute(const ToolCommand&, std::FILE**)
{
    return Failure{errAuthorizationToolExecuteFailure};
}

} // namespace kf::authorization
