// What tests of the tool as a process of its own share.
#pragma once

#include "Tests/Support/Fixtures.h"
#include "Tests/Support/ScratchHome.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace kf::test {

namespace fs = std::filesystem;

/// An empty directory that goes with the object.
class ScratchDirectory {
public:
    ScratchDirectory()
    {
        std::string pattern = (fs::temp_directory_path() / "keyfold-tool-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        path_ = pattern;
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const fs::path& path() const noexcept { return path_; }

private:
    fs::path path_;
};

/// The tool in a home of its own. It has no administrator rights, and no terminal unless a test gives it one. Run by
/// root, it becomes nobody: root's home is not to be chosen.
class ToolTest : public ::testing::Test {
protected:
    /// What the tool said, to be compared as whole texts.
    struct Said {
        int status;
        std::string output;
        std::string errors;
        friend bool operator==(const Said&, const Said&) = default;
        friend void PrintTo(const Said& said, std::ostream* stream)
        {
            *stream << "status " << said.status << "\n--- output\n" << said.output << "--- errors\n" << said.errors;
        }
    };

    /// The words that start the tool: what is in the home is its user's.
    std::vector<std::string> command(const std::vector<std::string>& words) const
    {
        std::vector<std::string> command;
        if (::geteuid() == 0) {
            mustRun({"chown", "-R", "-h", "nobody:", home_.path()});
            command = {"setpriv", "--reuid", "nobody", "--regid", "nogroup", "--clear-groups"};
        }
        command.emplace_back(SECURITY_TOOL);
        command.insert(command.end(), words.begin(), words.end());
        return command;
    }

    /// `redirection` is the shell's, such as "3<file".
    Said tool(const std::vector<std::string>& words, const std::string& redirection = {}) const
    {
        const fs::path output = scratch_.path() / "stdout";
        const fs::path errors = scratch_.path() / "stderr";
        std::vector<std::string> all = {"timeout", "60", "setsid", "-w", "sh", "-c",
            "out=$1 err=$2; shift 2; exec \"$@\" >\"$out\" 2>\"$err\" " + redirection, "sh", output, errors};
        for (std::string& word : command(words))
            all.push_back(std::move(word));
        const int status = run(all).status;
        return {status, text(output), text(errors)};
    }

    /// A copy of a file that the tool's user may read.
    fs::path given(const fs::path& file) const
    {
        fs::copy_file(file, home_.path() / file.filename(), fs::copy_options::overwrite_existing);
        return home_.path() / file.filename();
    }

    static std::string text(const fs::path& file)
    {
        const Bytes bytes = readFile(file);
        return std::string(bytes.begin(), bytes.end());
    }

    /// An empty keychain of NSS's own tool's making.
    fs::path makeKeychain(const std::string& name) const
    {
        const fs::path path = home_.path() / name;
        fs::create_directories(path);
        ::chmod(path.c_str(), 0700);
        mustRun({"timeout", "20", "certutil", "-N", "-d", "sql:" + path.string(), "--empty-password"});
        return path;
    }
    static void addCertificate(const fs::path& keychain, const fs::path& file, const std::string& label)
    {
        mustRun(
            {"timeout", "20", "certutil", "-A", "-d", "sql:" + keychain.string(), "-n", label, "-t", ",,", "-i", file});
    }
    void addBundle(const fs::path& keychain, const Bundle& bundle) const
    {
        const fs::path secret = scratch_.path() / "bundle-secret";
        writeFile(secret, bundle.passphrase + "\n");
        mustRun(
            {"timeout", "20", "pk12util", "-i", bundle.file, "-d", "sql:" + keychain.string(), "-w", secret, "-K", ""});
    }
    /// What NSS's own tool lists.
    static std::string listed(const fs::path& keychain)
    {
        return mustRun({"timeout", "20", "certutil", "-L", "-d", "sql:" + keychain.string()});
    }
    /// Gives a keychain a pass phrase, which locks it.
    void lock(const fs::path& keychain, const std::string& passphrase) const
    {
        const fs::path before = scratch_.path() / "empty-secret";
        const fs::path after = scratch_.path() / "new-secret";
        writeFile(before, std::string_view("\n"));
        writeFile(after, passphrase + "\n");
        mustRun({"timeout", "20", "certutil", "-W", "-d", "sql:" + keychain.string(), "-f", before, "-@", after});
    }
    static void makeReadOnly(const fs::path& keychain)
    {
        for (const char* file : {"cert9.db", "key4.db", "pkcs11.txt"})
            ASSERT_EQ(::chmod((keychain / file).c_str(), 0400), 0);
        ASSERT_EQ(::chmod(keychain.c_str(), 0500), 0);
    }
    static void damage(const fs::path& keychain)
    {
        writeFile(keychain / "cert9.db", std::string_view("no database at all\n"));
    }

    /// A digest as the openssl program tells it, in capitals without colons.
    static std::string digest(const fs::path& certificate, const std::string& algorithm = "sha256")
    {
        std::string text = mustRun({"openssl", "x509", "-in", certificate, "-noout", "-fingerprint", "-" + algorithm});
        text = text.substr(text.find('=') + 1);
        std::erase_if(text, [](char character) { return character == ':' || character == '\n'; });
        return text;
    }
    static std::string serial(const fs::path& certificate)
    {
        std::string text = mustRun({"openssl", "x509", "-in", certificate, "-noout", "-serial"});
        return text.substr(text.find('=') + 1, text.size() - text.find('=') - 2);
    }

    static Authority& authority()
    {
        static Authority authority;
        return authority;
    }
    static const Bundle& ada()
    {
        static const Bundle bundle = authority().issue();
        return bundle;
    }
    static const Bundle& grace()
    {
        static const Bundle bundle = [] {
            BundleOptions options;
            options.commonName = "Grace Example";
            options.email = "grace@orvane.example";
            return authority().issue(options);
        }();
        return bundle;
    }
    /// Another certificate of Ada's name, with a key of its own.
    static const Bundle& secondAda()
    {
        static const Bundle bundle = authority().issue();
        return bundle;
    }

    ScratchHome home_;
    ScratchDirectory scratch_; ///< for what is none of the tool's business
};

} // namespace kf::test
