// Administrator rights from polkit.
#pragma once

#include "Security/Authorization/Backend.h"
#include "Security/Authorization/LaunchReply.h"

namespace kf::authorization {

/// Asks polkit's authority on the system bus, which asks a person through the
/// session's agent, and runs the tool through pkexec and the launcher. The right
/// is kept for a while, so that one dialog serves the question and the execution.
///
/// obtainRight, besides what every back end gives: errAuthorizationInvalidSet
/// where the action is not installed, errAuthorizationInternal where no bus, no
/// polkit or no pkexec is there. execute: errAuthorizationCanceled where a
/// further question was dismissed, errAuthorizationDenied where it was refused
/// or the launcher runs no such tool.
class PolkitBackend final : public Backend {
public:
    struct Places {
        std::string pkexec = "/usr/bin/pkexec";
        std::string launcher = launcherPath;
    };
    PolkitBackend() : PolkitBackend(Places()) { }
    explicit PolkitBackend(Places places) : places_(std::move(places)) { }

    Status obtainRight(const std::string& right, AuthorizationFlags flags) override;
    Result<pid_t> execute(const ToolCommand& tool, std::FILE** pipe) override;
    bool isAdministrator() const noexcept override { return false; }

private:
    Places places_;
};

} // namespace kf::authorization
