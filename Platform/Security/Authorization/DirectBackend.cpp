#include "Security/Authorization/Backend.h"

#include "Security/Authorization/ToolPipe.h"

namespace kf::authorization {

Status DirectBackend::obtainRight(const std::string& right, AuthorizationFlags)
{
    if (right != administratorRight)
        return Failure{errAuthorizationDenied};
    return {};
}

Result<pid_t> DirectBackend::execute(const ToolCommand& tool, std::FILE** pipe)
{
    ToolPipe connection(pipe != nullptr);
    if (!connection)
        return Failure{errAuthorizationToolExecuteFailure};
    const auto child = startChild(
        {.path = tool.path, .arguments = tool.arguments, .input = connection.theirs(), .output = connection.theirs()});
    if (!child)
        return child.failure();
    connection.handTo(pipe);
    return child;
}

} // namespace kf::authorization
