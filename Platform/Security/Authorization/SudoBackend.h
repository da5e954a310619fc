// Administrator rights from sudo and an askpass program.
#pragma once

#include "Security/Authorization/Backend.h"
#include "Security/Authorization/LaunchReply.h"

namespace kf::authorization {

/// Asks `sudo -A`, which asks a person through the program that SUDO_ASKPASS
/// names, and runs the tool through the launcher. sudo remembers the person for
/// a while, so that one dialog serves the question and the execution; for a
/// certificate that is not the deployment's own it asks again.
///
/// obtainRight: errAuthorizationInteractionNotAllowed without a program to ask
/// with. execute: errAuthorizationDenied where a further question was not
/// answered rightly or the launcher runs no such tool.
class SudoBackend final : public Backend {
public:
    struct Places {
        std::string sudo = "/usr/bin/sudo";
        std::string launcher = launcherPath;
    };
    SudoBackend() : SudoBackend(Places()) { }
    explicit SudoBackend(Places places) : places_(std::move(places)) { }

    Status obtainRight(const std::string& right, AuthorizationFlags flags) override;
    Status execute(const ToolCommand& tool, std::FILE** pipe) override;
    bool isAdministrator() const noexcept override { return false; }

private:
    /// Whether sudo, the launcher and an askpass program are there.
    bool isUsable() const noexcept;

    Places places_;
};

} // namespace kf::authorization
