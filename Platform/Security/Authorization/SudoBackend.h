// Administrator rights from sudo and an askpass program.
#pragma once

#include "Security/Authorization/Launch.h"
#include "Security/Authorization/LaunchReply.h"

namespace kf::authorization {

/// Asks `sudo -A`, which asks a person through the program that SUDO_ASKPASS
/// names, and runs the tool through the launcher. sudo remembers the person for
/// a while, so that one dialog serves the question and the execution; before it
/// asks about a certificate that is not the deployment's own it is made to forget.
///
/// obtainRight: errAuthorizationInteractionNotAllowed without a program to ask
/// with. execute: errAuthorizationCanceled where a further question was
/// dismissed, errAuthorizationDenied where it was not answered rightly or the
/// launcher runs no such tool.
class SudoBackend final : public Backend {
public:
    struct Places {
        std::string sudo = "/usr/bin/sudo";
        std::string launcher = launcherPath;
    };
    SudoBackend() : SudoBackend(Places()) { }
    explicit SudoBackend(Places places) : places_(std::move(places)) { }

    Status obtainRight(const std::string& right, AuthorizationFlags flags) override;
    Result<pid_t> execute(const ToolCommand& tool, std::FILE** pipe) override;
    bool isAdministrator() const noexcept override { return false; }

private:
    /// Whether sudo, the launcher and an askpass program are there.
    bool isUsable() const noexcept;
    Result<LaunchResult> askAndLaunch(const char* way, const ToolCommand& tool, std::FILE** pipe) const;

    Places places_;
};

} // namespace kf::authorization
