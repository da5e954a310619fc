#include "Security/Keychain/Locations.h"

#include "Security/Keychain/Backend.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace kf::keychain {

namespace {

/// The older place, then the newer one; empty without a home directory.
std::vector<std::string> userPaths()
{
    const char* home = std::getenv("HOME");
    if (!home || home[0] != '/')
        return {};
    return {normalizedPath(std::string(home) + "/.pki/nssdb"),
        normalizedPath(std::string(home) + "/.local/share/pki/nssdb")};
}

/// The browsers take the older place where the directory itself is there, with or without a database in it.
bool isPresent(const std::string& path, Backend& backend)
{
    std::error_code ignored;
    return backend.exists(path) || std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

} // namespace

std::string normalizedPath(const std::string& path)
{
    std::error_code ignored;
    std::string normal = std::filesystem::absolute(path, ignored).lexically_normal().string();
    while (normal.size() > 1 && normal.back() == '/')
        normal.pop_back();
    return normal;
}

std::optional<std::string> defaultKeychainPath(Backend& backend)
{
    const auto paths = userPaths();
    if (paths.empty())
        return std::nullopt;
    return isPresent(paths[0], backend) ? paths[0] : paths[1];
}

std::vector<std::string> searchListPaths(Backend& backend)
{
    auto paths = userPaths();
    paths.emplace_back(systemKeychainPath);
    std::erase_if(paths, [&](const std::string& path) { return !backend.exists(path); });
    return paths;
}

bool mayBeMissing(const std::string& path)
{
    const auto paths = userPaths();
    return path == systemKeychainPath || std::ranges::find(paths, path) != paths.end();
}

} // namespace kf::keychain
