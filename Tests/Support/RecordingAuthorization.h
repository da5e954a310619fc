// Administrator rights for tests: granted or refused as told, and a tool that
// is never the real one.
#pragma once

#include "Security/Authorization/Backend.h"

#include <functional>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kf::test {

/// Is the process's authorization back end while it lives. Records what is
/// asked; fails where told. One at a time.
class RecordingAuthorization {
public:
    RecordingAuthorization() : backend_(std::make_shared<Backend>()), before_(kf::authorization::setBackend(backend_))
    {
    }
    RecordingAuthorization(const RecordingAuthorization&) = delete;
    RecordingAuthorization& operator=(const RecordingAuthorization&) = delete;
    ~RecordingAuthorization() { kf::authorization::setBackend(before_); }

    /// Every right is refused with this code.
    void refuse(OSStatus status) { backend_->refusal = status; }
    /// Every tool fails to start with this code.
    void failToLaunch(OSStatus status) { backend_->launchFailure = status; }
    /// What the tool does, in this process, and the exit status of the child that stands for it. Default: nothing, 0.
    void setTool(std::function<int(const kf::authorization::ToolCommand&)> tool) { backend_->tool = std::move(tool); }
    /// Whether this process counts as able to write the admin domain itself. Default: no, so that nothing outside a
    /// sandbox is touched.
    void setAdministrator(bool administrator) { backend_->administrator = administrator; }

    struct Asked {
        std::string right;
        AuthorizationFlags flags;
    };
    const std::vector<Asked>& asked() const { return backend_->asked; }
    const std::vector<kf::authorization::ToolCommand>& executed() const { return backend_->executed; }

private:
    struct Backend final : kf::authorization::Backend {
        Status obtainRight(const std::string& right, AuthorizationFlags flags) override
        {
            asked.push_back({right, flags});
            return refusal == errSecSuccess ? Status() : Status(Failure{refusal});
        }
        Result<pid_t> execute(const kf::authorization::ToolCommand& command, std::FILE** pipe) override
        {
            executed.push_back(command);
            if (launchFailure != errSecSuccess || pipe)
                return Failure{pipe ? errAuthorizationToolExecuteFailure : launchFailure};
            const int status = tool ? tool(command) : 0;
            const pid_t child = ::fork();
            if (child == 0)
                ::_exit(status);
            if (child < 0)
                return Failure{errAuthorizationToolExecuteFailure};
            return child;
        }
        bool isAdministrator() const noexcept override { return administrator; }

        OSStatus refusal = errSecSuccess;
        OSStatus launchFailure = errSecSuccess;
        bool administrator = false;
        std::function<int(const kf::authorization::ToolCommand&)> tool;
        std::vector<Asked> asked;
        std::vector<kf::authorization::ToolCommand> executed;
    };

    std::shared_ptr<Backend> backend_;
    std::shared_ptr<kf::authorization::Backend> before_;
};

} // namespace kf::test
