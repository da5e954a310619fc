// A home directory of a test's own.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <system_error>

namespace kf::test {

/// Makes an empty directory (mode 0700), lets HOME and the XDG directories point
/// into it, and puts the environment back and removes the directory when it
/// goes. One at a time in a process; not while other threads read the environment.
class ScratchHome {
public:
    ScratchHome()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "keyfold-home-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        path_ = pattern;
        set("HOME", path_.string());
        set("XDG_DATA_HOME", (path_ / ".local/share").string());
        set("XDG_CONFIG_HOME", (path_ / ".config").string());
        set("XDG_CACHE_HOME", (path_ / ".cache").string());
    }
    ScratchHome(const ScratchHome&) = delete;
    ScratchHome& operator=(const ScratchHome&) = delete;
    ~ScratchHome()
    {
        for (const auto& [name, value] : before_) {
            if (value)
                ::setenv(name.c_str(), value->c_str(), 1);
            else
                ::unsetenv(name.c_str());
        }
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::filesystem::path& path() const noexcept { return path_; }
    /// Where the default keychain of a fresh home is made.
    std::filesystem::path defaultKeychain() const { return path_ / ".local/share/pki/nssdb"; }
    /// The place that is preferred where it exists.
    std::filesystem::path olderKeychain() const { return path_ / ".pki/nssdb"; }

private:
    void set(const char* name, const std::string& value)
    {
        const char* before = std::getenv(name);
        before_.emplace(name, before ? std::optional<std::string>(before) : std::nullopt);
        ::setenv(name, value.c_str(), 1);
    }

    std::filesystem::path path_;
    std::map<std::string, std::optional<std::string>> before_;
};

} // namespace kf::test
