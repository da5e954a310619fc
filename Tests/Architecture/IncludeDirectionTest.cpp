// Who may know whom: every include of every source file is held against one table.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Include {
    std::string name;
    bool quoted;
};

/// A folder, and the folders that its files may include from besides itself.
struct Rule {
    std::string folder;
    std::vector<std::string> mayInclude;
};

// A file obeys the rule of the longest folder that holds it.
const std::vector<Rule> rules = {
    {"Platform/Foundation", {}},
    {"Platform/Security", {"Foundation"}},
    {"Platform/AppKit", {"Foundation", "Security"}},
    {"Host/KFWizard", {"Foundation", "Security", "AppKit"}},
    {"Host/keyfold", {"KFWizard", "Foundation", "Security", "AppKit"}},
    {"Sources/Pane", {"KFWizard", "Keychain", "Certificates", "Shared", "KFRegex", "Foundation", "Security", "AppKit"}},
    {"Sources/Keychain", {"Certificates", "Shared", "KFRegex", "Foundation", "Security"}},
    {"Sources/Certificates", {"Shared", "KFRegex", "Foundation", "Security"}},
    {"Sources/Shared", {"KFRegex", "Foundation"}},
    {"Tools/security", {"Foundation", "Security"}},
    {"Tools/launcher", {"Security"}},
    {"Tools/unpublish", {}},
};

// The folder that a quoted include names by its first component.
const std::vector<std::string> folders = {
    "Foundation",
    "Security",
    "AppKit",
    "KFWizard",
    "Keychain",
    "Certificates",
    "Shared",
    "KFRegex",
    "Pane",
};

enum class Library { none, qt, nss, openssl, icu, bus };

Library libraryOf(const std::string& include)
{
    static const std::vector<std::pair<std::regex, Library>> patterns = {
        {std::regex("^(Q[A-Z].*|Qt[A-Z].*/.*|qt.*/.*|q[a-z]+\\.h)$"), Library::qt},
        {std::regex("^(nss/.*|nspr/"
                    ".*|nss\\.h|pk11.*\\.h|pkcs11.*\\.h|secmod.*\\.h|cert\\.h|keyhi\\.h|prerror\\.h|secerr\\.h)$"),
            Library::nss},
        {std::regex("^openssl/.*"), Library::openssl},
        {std::regex("^unicode/.*"), Library::icu},
        {std::regex("^systemd/.*"), Library::bus},
    };
    for (const auto& [pattern, library] : patterns) {
        if (std::regex_match(include, pattern))
            return library;
    }
    return Library::none;
}

/// Headers that only their own folder's sources include: no contract with anybody.
bool isPublicHeader(const std::string& path)
{
    if (!path.ends_with(".h"))
        return false;
    return !fs::path(path).filename().string().starts_with("Scoped");
}

bool libraryAllowed(Library library, const std::string& path)
{
    const auto below = [&](std::string_view folder) { return path.starts_with(std::string(folder) + "/"); };
    switch (library) {
    case Library::none:
        return true;
    case Library::qt:
        return below("Platform/AppKit") || below("Host") || below("Sources/Pane");
    case Library::nss:
        return below("Platform/Security") && !isPublicHeader(path);
    case Library::openssl:
        return (below("Platform/Security") || below("Sources/Certificates") || below("Tools")) && !isPublicHeader(path);
    case Library::bus:
        return below("Platform/Security/Authorization") && !isPublicHeader(path);
    case Library::icu:
        return (below("Platform/Foundation") || below("Sources/Shared/KFRegex")) && !isPublicHeader(path);
    }
    return false;
}

std::vector<Include> includesOf(const fs::path& file)
{
    static const std::regex pattern("^\\s*#\\s*include\\s*([<\"])([^>\"]+)[>\"]");
    std::vector<Include> includes;
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);) {
        if (std::smatch match; std::regex_search(line, match, pattern))
            includes.push_back({match[2], match[1] == "\""});
    }
    return includes;
}

const Rule* ruleFor(const std::string& path)
{
    const Rule* found = nullptr;
    for (const Rule& rule : rules) {
        if (path.starts_with(rule.folder + "/") && (!found || rule.folder.size() > found->folder.size()))
            found = &rule;
    }
    return found;
}

std::string violation(const std::string& path, const Include& include)
{
    if (!libraryAllowed(libraryOf(include.name), path))
        return path + " may not include " + include.name;
    if (!include.quoted)
        return {};
    const std::string first = include.name.substr(0, include.name.find('/'));
    const bool named = include.name.find('/') != std::string::npos
        && std::find(folders.begin(), folders.end(), first) != folders.end();
    const Rule* rule = ruleFor(path);
    if (!rule)
        return path + " lies in no folder that the table knows";
    if (!named)
        return {}; // a neighbour
    const std::string own = fs::path(rule->folder).filename().string();
    if (first == own || std::find(rule->mayInclude.begin(), rule->mayInclude.end(), first) != rule->mayInclude.end())
        return {};
    return path + " may not include " + include.name;
}

std::vector<std::string> sourceFiles()
{
    const fs::path top = KEYFOLD_SOURCE_DIR;
    std::vector<std::string> files;
    for (const char* part : {"Platform", "Host", "Sources", "Tools"}) {
        for (const auto& entry : fs::recursive_directory_iterator(top / part)) {
            const std::string extension = entry.path().extension().string();
            if (entry.is_regular_file() && (extension == ".h" || extension == ".cpp"))
                files.push_back(fs::relative(entry.path(), top).string());
        }
    }
    return files;
}

TEST(IncludeDirection, EveryIncludeIsAllowed)
{
    const std::vector<std::string> files = sourceFiles();
    ASSERT_GT(files.size(), 50U) << "the sources were not found";
    for (const std::string& file : files) {
        for (const Include& include : includesOf(fs::path(KEYFOLD_SOURCE_DIR) / file)) {
            const std::string text = violation(file, include);
            EXPECT_TRUE(text.empty()) << text;
        }
    }
}

struct Row {
    const char* path;
    Include include;
    bool allowed;
};

class IncludeDirectionTable : public testing::TestWithParam<Row> { };

TEST_P(IncludeDirectionTable, IsDecidedAsDrawn)
{
    const Row& row = GetParam();
    EXPECT_EQ(violation(row.path, row.include).empty(), row.allowed) << row.path << " -> " << row.include.name;
}

INSTANTIATE_TEST_SUITE_P(Rows, IncludeDirectionTable,
    testing::Values(Row{"Host/keyfold/Main.cpp", {"KFWizard/KFWizardPane.h", true}, true},
        Row{"Host/keyfold/Main.cpp", {"Pane/KFInstallerPane.h", true}, false},
        Row{"Host/keyfold/Main.cpp", {"Keychain/KeychainTools.h", true}, false},
        Row{"Host/KFWizard/KFWizardPane.cpp", {"Keychain/KeychainTools.h", true}, false},
        Row{"Sources/Pane/KFInstallerPane.cpp", {"Keychain/KeychainTools.h", true}, true},
        Row{"Sources/Keychain/KeychainTools.cpp", {"KFWizard/KFWizardPane.h", true}, false},
        Row{"Sources/Keychain/KeychainTools.cpp", {"QString", false}, false},
        Row{"Sources/Certificates/X509Certificate.cpp", {"openssl/bio.h", false}, true},
        Row{"Sources/Keychain/KFUtilities.cpp", {"openssl/evp.h", false}, false},
        Row{"Sources/Certificates/X509Certificate.cpp", {"nss/pk11pub.h", false}, false},
        Row{"Sources/Shared/KFRegex/KFRegex.cpp", {"unicode/uregex.h", false}, true},
        Row{"Sources/Shared/KFRegex/KFRegex.h", {"unicode/uregex.h", false}, false},
        Row{"Platform/Security/SecTrust.h", {"openssl/x509.h", false}, false},
        Row{"Platform/Security/ScopedOpenSSL.h", {"openssl/x509.h", false}, true},
        Row{"Platform/Security/Keychain/NSSBackend.cpp", {"pk11pub.h", false}, true},
        Row{"Platform/Security/SecTrust.cpp", {"QtCore/QString", false}, false},
        Row{"Platform/Foundation/NSString.cpp", {"Security/SecBase.h", true}, false},
        Row{"Platform/Security/SecTrust.cpp", {"AppKit/NSAlert.h", true}, false},
        Row{"Tools/security/Main.cpp", {"Keychain/KeychainTools.h", true}, false},
        Row{"Tools/security/Main.cpp", {"QCoreApplication", false}, false},
        Row{"Tools/launcher/Launcher.cpp", {"Security/Authorization/LaunchReply.h", true}, true},
        Row{"Tools/launcher/Launcher.cpp", {"Foundation/NSString.h", true}, false},
        Row{"Tools/unpublish/main.cpp", {"Security/SecTrust.h", true}, false},
        Row{"Platform/Security/Authorization/PolkitModule.cpp", {"systemd/sd-bus.h", false}, true},
        Row{"Platform/Security/Authorization/PolkitModule.h", {"systemd/sd-bus.h", false}, false},
        Row{"Tools/launcher/Launcher.cpp", {"systemd/sd-bus.h", false}, false}));

} // namespace
