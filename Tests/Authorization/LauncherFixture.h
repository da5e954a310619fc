// The launcher, a tool and the ways in, in a folder of a test's own.
#pragma once

#include "Security/Authorization/PolkitBackend.h"
#include "Tests/Support/Fixtures.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kf::test {

inline constexpr const char* systemKeychain = "/Library/Keychains/System.keychain";

/// The folder holds: `launcher`; `tool`, a shell script; `authority.der`, whose
/// digest the launcher knows; `other.der`, which it does not; `pkexec` and
/// `sudo`, shell scripts that lead to the launcher and write down their words.
class LauncherTest : public testing::Test {
protected:
    LauncherTest()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "keyfold-launcher-XXXXXX").string();
        directory_ = ::mkdtemp(pattern.data());
        std::filesystem::copy_file(LAUNCHER_PROGRAM, directory_ / "launcher");
        writeFile(path("places"), path("tool") + "\n" + path("authority.sha256") + "\n");
        writeFile(path("authority.der"), std::string_view("the authority's bytes"));
        // openssl dgst -sha256 of those bytes
        writeFile(path("authority.sha256"),
            std::string_view("76c429f6ccf73e0048c9daa3401e1cc8bda822c8027d447dd1f23fc25887c7a9 *authority.der\n"));
        writeFile(path("other.der"), std::string_view("other bytes"));
        script("tool", "exit 0");
        script("pkexec", "echo \"$*\" >> " + path("ways") + "\nshift\nexec \"$@\"");
    }
    ~LauncherTest() override
    {
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
        std::filesystem::remove_all(directory_);
    }

    std::string path(const std::string& name) const { return directory_ / name; }
    std::string content(const std::string& name) const
    {
        const auto bytes = readFile(directory_ / name);
        return std::string(bytes.begin(), bytes.end());
    }
    bool exists(const std::string& name) const { return std::filesystem::exists(directory_ / name); }
    void script(const std::string& name, const std::string& lines) const
    {
        writeFile(path(name), "#!/bin/sh\n" + lines + "\n");
        ::chmod(path(name).c_str(), 0755);
    }
    /// The lines of a file.
    std::vector<std::string> lines(const std::string& name) const
    {
        std::vector<std::string> all;
        std::istringstream text(content(name));
        for (std::string line; std::getline(text, line);)
            all.push_back(line);
        return all;
    }

    static kf::authorization::ToolCommand add(const std::string& file)
    {
        return {"/usr/bin/security", {"add-trusted-cert", "-k", systemKeychain, "-d", "-r", "trustRoot", file}};
    }
    static kf::authorization::ToolCommand remove(const std::string& file)
    {
        return {"/usr/bin/security", {"remove-trusted-cert", "-d", file}};
    }

    /// The wait status of the one child that there must be.
    static int waitForTheOnlyChild()
    {
        int status = -1;
        EXPECT_GT(::waitpid(-1, &status, 0), 0);
        return status;
    }

    std::filesystem::path directory_;
};

} // namespace kf::test
