// Exporting certificates and identities.

#include "Tests/Tools/Terminal.h"
#include "Tests/Tools/ToolTest.h"

namespace {

namespace fs = std::filesystem;
using kf::test::BundleOptions;
using kf::test::KeyKind;
using kf::test::mustRun;
using kf::test::readFile;
using kf::test::Terminal;
using kf::test::ToolTest;
using kf::test::writeFile;
using ::testing::HasSubstr;
using ::testing::Not;

class ExportTest : public ToolTest {
protected:
    fs::path secret(const std::string& content = "new pass phrase \xC3\xA9\n") const
    {
        const fs::path file = home_.path() / "passphrase";
        writeFile(file, content);
        return file;
    }
    fs::path out() const { return home_.path() / "out"; }
    Said exportIdentity(const fs::path& keychain, const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> words = {
            "export", "-t", "identities", "-k", keychain, "-o", out(), "--passphrase-file", secret()};
        words.insert(words.end(), more.begin(), more.end());
        return tool(words);
    }
    Said refused(const std::string& place, const std::string& text) const
    {
        EXPECT_FALSE(fs::exists(out()));
        return {1, "", "security: " + place + ": " + text + "\n"};
    }
    /// What the openssl program finds in the bundle.
    std::string opened(const std::vector<std::string>& options) const
    {
        std::vector<std::string> command = {"openssl", "pkcs12", "-in", out(), "-passin", "file:" + secret().string()};
        command.insert(command.end(), options.begin(), options.end());
        return mustRun(command);
    }
    void expectKey(const kf::test::Bundle& bundle) const
    {
        const fs::path key = scratch_.path() / "key.pem";
        const fs::path pkcs8 = scratch_.path() / "key.p8";
        opened({"-nocerts", "-noenc", "-out", key});
        mustRun({"openssl", "pkcs8", "-topk8", "-nocrypt", "-in", key, "-outform", "DER", "-out", pkcs8});
        EXPECT_EQ(readFile(pkcs8), bundle.privateKey);
    }
};

TEST_F(ExportTest, AnIdentityGoesIntoABundleWithItsChain)
{
    BundleOptions options;
    options.withChain = true;
    const auto bundle = authority().issue(options);
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, bundle);
    addCertificate(keychain, grace().certFile, "Grace Example");
    EXPECT_EQ(exportIdentity(keychain), (Said{0, "", ""}));
    EXPECT_EQ(fs::status(out()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    expectKey(bundle);
    const std::string certificates = opened({"-nokeys"});
    EXPECT_THAT(certificates, HasSubstr(text(bundle.certFile)));
    EXPECT_THAT(certificates, HasSubstr(text(authority().issuerFile())));
    EXPECT_THAT(certificates, HasSubstr(text(authority().rootFile())));
    EXPECT_THAT(certificates, Not(HasSubstr(text(grace().certFile))));
    const std::string info = opened({"-info", "-noout"});
    EXPECT_THAT(info, HasSubstr("MAC: sha256, Iteration 600000"));
    EXPECT_THAT(info, HasSubstr("Shrouded Keybag: PBES2, PBKDF2, AES-256-CBC, Iteration 600000, PRF hmacWithSHA256"));
    EXPECT_THAT(
        info, HasSubstr("PKCS7 Encrypted data: PBES2, PBKDF2, AES-256-CBC, Iteration 600000, PRF hmacWithSHA256"));

    // And back again, by this tool and by NSS's own.
    EXPECT_EQ(tool({"import", "-k", home_.path() / "again", out(), "--passphrase-file", secret()}).status, 0);
    EXPECT_THAT(tool({"find-identity", home_.path() / "again"}).output, HasSubstr(digest(bundle.certFile)));
    const fs::path other = makeKeychain("other");
    mustRun({"timeout", "60", "pk12util", "-i", out(), "-d", "sql:" + other.string(), "-w", secret(), "-K", ""});
    EXPECT_THAT(listed(other), HasSubstr("u,u,u"));
}

TEST_F(ExportTest, RSAKeysLeaveAsTheyCame)
{
    BundleOptions options;
    options.key = KeyKind::rsa2048;
    const auto bundle = authority().issue(options);
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, bundle);
    EXPECT_EQ(exportIdentity(keychain), (Said{0, "", ""}));
    expectKey(bundle);
}

TEST_F(ExportTest, WhatIsThereIsReplacedOnlyOnRequest)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    writeFile(out(), std::string_view("precious"));
    const Said there = exportIdentity(keychain);
    EXPECT_EQ(there, (Said{1, "", "security: " + out().string() + ": is there already; --force replaces it\n"}));
    EXPECT_EQ(text(out()), "precious");
    EXPECT_EQ(tool({"export", "-k", keychain, "-o", out()}).status, 1);
    EXPECT_EQ(text(out()), "precious");
    EXPECT_EQ(exportIdentity(keychain, {"--force"}), (Said{0, "", ""}));
    expectKey(ada());
    EXPECT_EQ(fs::status(out()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    for (const auto& entry : fs::directory_iterator(home_.path()))
        EXPECT_THAT(entry.path().filename().string(), Not(HasSubstr(".security."))) << "nothing is left beside it";
}

TEST_F(ExportTest, ALinkIsNotWrittenThrough)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    const fs::path target = home_.path() / "target";
    writeFile(target, std::string_view("precious"));
    fs::create_symlink(target, out());
    EXPECT_EQ(exportIdentity(keychain).status, 1);
    EXPECT_EQ(exportIdentity(keychain, {"--force"}).status, 0);
    EXPECT_EQ(text(target), "precious");
    EXPECT_FALSE(fs::is_symlink(out()));
}

TEST_F(ExportTest, RefusesToChooseAmongIdentities)
{
    const fs::path keychain = makeKeychain("k");
    EXPECT_EQ(exportIdentity(keychain), refused("export", "The item was not found in the keychain. (-25300)"));
    addBundle(keychain, ada());
    addBundle(keychain, grace());
    const Said said = exportIdentity(keychain);
    EXPECT_EQ(said.status, 1);
    EXPECT_THAT(said.errors, HasSubstr("export: 2 items match, and nothing was done."));
    EXPECT_FALSE(fs::exists(out()));
    EXPECT_EQ(exportIdentity(keychain, {"-c", "Grace Example"}).status, 0);
    expectKey(grace());
    EXPECT_EQ(exportIdentity(keychain, {"--force", "-Z", digest(ada().certFile)}).status, 0);
    expectKey(ada());
}

TEST_F(ExportTest, AKeyThatMayNotLeaveStays)
{
    const fs::path keychain = home_.path() / "k";
    writeFile(home_.path() / "old", std::string_view("correct horse\n"));
    ASSERT_EQ(
        tool({"import", "-x", "-k", keychain, given(ada().file), "--passphrase-file", home_.path() / "old"}).status, 0);
    EXPECT_EQ(exportIdentity(keychain),
        refused(keychain, "The private key may not leave the keychain unprotected. (-25258)"));
}

TEST_F(ExportTest, TellsWhatIsWrongWithKeychainFileOrPassPhrase)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    const fs::path nowhere = home_.path() / "nowhere" / "out";
    EXPECT_EQ(tool({"export", "-t", "identities", "-k", keychain, "-o", nowhere, "--passphrase-file", secret()}),
        refused(nowhere, "cannot write in " + nowhere.parent_path().string() + ": No such file or directory"));
    EXPECT_EQ(tool({"export", "-t", "identities", "-k", keychain, "-o", out(), "--passphrase-file", secret("\n")}),
        refused("export", "the pass phrase is empty"));
    EXPECT_EQ(tool({"export", "-t", "identities", "-k", keychain, "-o", out()}),
        refused("export", "there is no terminal to ask for the pass phrase: use --passphrase-file or --passphrase-fd"));
    lock(keychain, "secret");
    EXPECT_EQ(exportIdentity(keychain),
        refused(keychain, "The keychain is locked, and asking for its pass phrase is not possible here. (-25308)"));
    damage(keychain);
    EXPECT_EQ(exportIdentity(keychain),
        refused(keychain, "The keychain is damaged or incomplete. It was left as it is. (-25295)"));
    EXPECT_EQ(exportIdentity(home_.path() / "missing"),
        refused((home_.path() / "missing").string(), "The keychain does not exist. (-25294)"));
}

TEST_F(ExportTest, AReadOnlyKeychainCanBeExported)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    makeReadOnly(keychain);
    EXPECT_EQ(exportIdentity(keychain), (Said{0, "", ""}));
    expectKey(ada());
}

TEST_F(ExportTest, TheNewPassPhraseIsTypedTwice)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    const std::vector<std::string> words = {"export", "-t", "identities", "-k", keychain, "-o", out()};
    {
        Terminal terminal(command(words));
        EXPECT_EQ(terminal.readUntil(": "), "New pass phrase for the bundle: ");
        terminal.type("one\n");
        EXPECT_EQ(terminal.readUntil(": "), "\r\nVerifying - New pass phrase for the bundle: ");
        terminal.type("other\n");
        EXPECT_THAT(terminal.readToEnd(), HasSubstr("no pass phrase was given, or two that differ"));
        EXPECT_EQ(terminal.wait(), 1);
        EXPECT_FALSE(fs::exists(out()));
    }
    Terminal terminal(command(words));
    terminal.readUntil(": ");
    terminal.type("new pass phrase \xC3\xA9\n");
    terminal.readUntil(": ");
    terminal.type("new pass phrase \xC3\xA9\n");
    EXPECT_EQ(terminal.readToEnd(), "\r\n");
    EXPECT_EQ(terminal.wait(), 0);
    expectKey(ada());
}

TEST_F(ExportTest, CertificatesArePEM)
{
    const fs::path keychain = makeKeychain("k");
    EXPECT_EQ(tool({"export", "-k", keychain}), refused("export", "The item was not found in the keychain. (-25300)"));
    addCertificate(keychain, ada().certFile, "Ada Example");
    EXPECT_EQ(tool({"export", "-k", keychain}), (Said{0, text(ada().certFile), ""}));
    addCertificate(keychain, grace().certFile, "Grace Example");
    EXPECT_EQ(tool({"export", "-k", keychain, "-c", "Grace Example", "-o", out()}), (Said{0, "", ""}));
    EXPECT_EQ(text(out()), text(grace().certFile));
    EXPECT_EQ(fs::status(out()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_THAT(tool({"export", "-k", keychain}).output, HasSubstr(text(ada().certFile)));
}

TEST_F(ExportTest, WrongUseIsTold)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> wrong = {
        {{"a"}, "takes no operand"},
        {{"-t", "keys"}, "-t is certs or identities"},
        {{"-t", "identities"}, "a bundle needs a file: -o"},
        {{"-Z", "12"}, "-c needs a name, -Z a SHA-256 or SHA-1 digest"},
        {{"-P", "secret"},
            "a pass phrase on the command line can be read by every user; use --passphrase-file or --passphrase-fd, or "
            "type it at the terminal"},
    };
    for (const auto& [words, complaint] : wrong) {
        std::vector<std::string> all = {"export"};
        all.insert(all.end(), words.begin(), words.end());
        const Said said = tool(all);
        EXPECT_EQ(said.status, 2);
        EXPECT_EQ(said.output, "");
        EXPECT_THAT(said.errors, ::testing::StartsWith("security export: " + complaint + "\nusage: security export "));
    }
}

} // namespace
