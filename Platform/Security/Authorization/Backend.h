// Who grants administrator rights and runs tools with them.
#pragma once

#include "Security/Authorization.h"
#include "Security/Result.h"

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kf::authorization {

/// The one right that this system asks for.
inline constexpr const char* administratorRight = "system.privilege.admin";

/// A program by its absolute path, and its arguments without the program's name.
struct ToolCommand {
    std::string path;
    std::vector<std::string> arguments;
};

/// One way to administrator rights. Implementations may be called from any
/// thread, also at once, and block until the matter is decided.
class Backend {
public:
    virtual ~Backend();

    /// Asks for a right, a person too where the flags allow it. Success means
    /// that the right is held now. errAuthorizationDenied: refused, or a right
    /// that is not known; errAuthorizationCanceled: a person dismissed the
    /// question; errAuthorizationInteractionNotAllowed: somebody would have to
    /// be asked, and that is not allowed or not possible. Never waits for an
    /// answer that nobody can give.
    virtual Status obtainRight(const std::string& right, AuthorizationFlags flags) = 0;

    /// Starts a tool as administrator and gives its process number. It is a
    /// child of this process that nobody has waited for, the only one that the
    /// call leaves; after a failure there is none. The tool gets descriptors 0 to 2 only and
    /// every signal in its default state. With a `pipe` its standard input and
    /// output are one connection, whose other end `*pipe` receives, owned by the
    /// caller; without, its input is /dev/null and its output this process's.
    /// errAuthorizationToolExecuteFailure where it could not be started.
    virtual Result<pid_t> execute(const ToolCommand& tool, std::FILE** pipe) = 0;

    /// Whether this process may itself change what belongs to the whole machine.
    virtual bool isAdministrator() const noexcept = 0;
};

/// For a process that runs as root already: grants the administrator's right
/// without a question and runs tools as its own children.
class DirectBackend final : public Backend {
public:
    Status obtainRight(const std::string& right, AuthorizationFlags flags) override;
    Result<pid_t> execute(const ToolCommand& tool, std::FILE** pipe) override;
    bool isAdministrator() const noexcept override { return true; }
};

/// No rights and nobody to ask: refuses everything at once.
class NoRightsBackend final : public Backend {
public:
    /// `refusal` is the code of every refused right.
    explicit NoRightsBackend(OSStatus refusal) noexcept : refusal_(refusal) { }
    Status obtainRight(const std::string& right, AuthorizationFlags flags) override;
    Result<pid_t> execute(const ToolCommand& tool, std::FILE** pipe) override;
    bool isAdministrator() const noexcept override { return false; }

private:
    OSStatus refusal_;
};

/// The process's back end: the one set with setBackend, else the one that fits
/// the process as it is now (user id, environment). Any thread.
std::shared_ptr<Backend> currentBackend();

/// Replaces the process's back end (null: back to the one that fits) and gives
/// back the one that was set before.
std::shared_ptr<Backend> setBackend(std::shared_ptr<Backend> backend);

} // namespace kf::authorization
