#include "Security/Trust/AdminDomain.h"

#include "Security/Authorization/Backend.h"
#include "Security/Authorization/ChildProcess.h"
#include "Security/Keychain/Locations.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>

namespace kf::trust {

namespace {

using authorization::Backend;
using keychain::Trust;
using keychain::TrustLevel;

constexpr const char* toolPath = "/usr/bin/security";
constexpr Trust anchor{.server = TrustLevel::trusted, .email = TrustLevel::trusted};

/// A certificate in a file of the user's own, for the launcher takes it from one; gone with the object.
class TemporaryFile {
public:
    explicit TemporaryFile(std::span<const std::uint8_t> content)
    {
        constexpr const char* pattern = "keyfold-XXXXXX.der";
        constexpr int suffixLength = 4;
        std::error_code error;
        std::string path = (std::filesystem::temp_directory_path(error) / pattern).string();
        const ScopedDescriptor file(error ? -1 : ::mkostemps(path.data(), suffixLength, O_CLOEXEC));
        if (file.get() < 0)
            return;
        path_ = std::move(path);
        isWhole_ = ::write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile()
    {
        if (!path_.empty())
            ::unlink(path_.c_str());
    }

    explicit operator bool() const noexcept { return isWhole_; }
    const std::string& path() const noexcept { return path_; }

private:
    std::string path_;
    bool isWhole_ = false;
};

/// The back end that holds the right now; nothing where somebody would have to be asked for it.
std::shared_ptr<Backend> backendWithTheRight()
{
    auto backend = authorization::currentBackend();
    return backend->obtainRight(authorization::administratorRight, kAuthorizationFlagExtendRights) ? backend : nullptr;
}

/// What the tool's exit status says is left aside: what counts is what stands in the keychain afterwards.
Status runTool(Backend& backend, std::vector<std::string> words, std::span<const std::uint8_t> certificate)
{
    const TemporaryFile file(certificate);
    if (!file)
        return Failure{errAuthorizationToolExecuteFailure};
    words.push_back(file.path());
    const auto tool = backend.execute({toolPath, std::move(words)}, nullptr);
    if (!tool)
        return tool.failure();
    authorization::waitForChild(*tool);
    return {};
}

Result<Trust> trustOf(std::span<const std::uint8_t> certificate)
{
    return keychain::readTrust(keychain::systemKeychain(), certificate);
}

} // namespace

Status writeAdminTrust(std::span<const std::uint8_t> certificate, const Trust& trust)
{
    const auto backend = backendWithTheRight();
    if (!backend || trust != anchor)
        return Failure{errAuthorizationDenied};
    const Status ran = runTool(
        *backend, {"add-trusted-cert", "-k", keychain::systemKeychainPath, "-d", "-r", "trustRoot"}, certificate);
    if (!ran)
        return ran;
    const auto now = trustOf(certificate);
    return now && *now == trust ? Status() : Status(Failure{errAuthorizationToolEnvironmentError});
}

Status removeAdminTrust(std::span<const std::uint8_t> certificate)
{
    const auto backend = backendWithTheRight();
    if (!backend)
        return Failure{errAuthorizationDenied};
    if (const auto before = trustOf(certificate); !before)
        return before.failure();
    if (const Status ran = runTool(*backend, {"remove-trusted-cert", "-d"}, certificate); !ran)
        return ran;
    const OSStatus now = trustOf(certificate).status();
    return now == errSecItemNotFound ? Status() : Status(Failure{errAuthorizationToolEnvironmentError});
}

} // namespace kf::trust
