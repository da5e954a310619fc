// The way to administrator rights of an ordinary user.
#pragma once

#include "Security/Authorization/Backend.h"

#include <atomic>
#include <memory>

namespace kf::authorization {

/// Asks the first way and, only where that could ask nobody, the second: a
/// person's "no" is not asked about twice. Tools run the way that granted.
class InteractiveBackend final : public Backend {
public:
    /// polkit, then sudo.
    InteractiveBackend();
    InteractiveBackend(std::unique_ptr<Backend> first, std::unique_ptr<Backend> second) noexcept;

    Status obtainRight(const std::string& right, AuthorizationFlags flags) override;
    Result<pid_t> execute(const ToolCommand& tool, std::FILE** pipe) override;
    bool isAdministrator() const noexcept override { return false; }

private:
    std::unique_ptr<Backend> first_;
    std::unique_ptr<Backend> second_;
    std::atomic<Backend*> granting_;
};

} // namespace kf::authorization
