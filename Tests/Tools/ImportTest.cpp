// Importing bundles and certificates.

#include "Tests/Tools/Terminal.h"
#include "Tests/Tools/ToolTest.h"

#include <chrono>
#include <thread>

namespace {

namespace fs = std::filesystem;
using kf::test::BundleOptions;
using kf::test::mustRun;
using kf::test::Terminal;
using kf::test::ToolTest;
using kf::test::writeFile;
using ::testing::HasSubstr;

class ImportTest : public ToolTest {
protected:
    /// A file with a pass phrase for the tool's user to read.
    fs::path secret(const std::string& content) const
    {
        const fs::path file = home_.path() / "passphrase";
        writeFile(file, content);
        return file;
    }
    static std::string holds(
        const fs::path& keychain, const std::string& what, const std::string& label, const fs::path& file)
    {
        return keychain.string() + ": holds the " + what + " \"" + label + "\", SHA-256 " + digest(file) + "\n";
    }
    static Said refused(const fs::path& file, const std::string& text)
    {
        return {1, "", "security: " + file.string() + ": " + text + "\n"};
    }
    std::string holdsAda() const { return holds(home_.defaultKeychain(), "identity", "Ada Example", ada().certFile); }
};

TEST_F(ImportTest, ImportsABundleIntoTheDefaultKeychain)
{
    BundleOptions options;
    options.withChain = true;
    const auto bundle = authority().issue(options);
    const fs::path keychain = home_.defaultKeychain();
    EXPECT_EQ(tool({"import", given(bundle.file), "--passphrase-file", secret("correct horse\n")}),
        (Said{0,
            holds(keychain, "identity", "Ada Example", bundle.certFile)
                + holds(keychain, "certificate", "Orvane Certification Authority 2", authority().issuerFile())
                + holds(keychain, "certificate", "Orvane Certification Authority", authority().rootFile()),
            ""}));
    EXPECT_THAT(tool({"find-identity"}).output, HasSubstr(digest(bundle.certFile)));
    EXPECT_THAT(listed(keychain), HasSubstr("Orvane Certification Authority 2"));
}

TEST_F(ImportTest, TakesThePassPhraseFromAFileOrADescriptor)
{
    const fs::path bundle = given(ada().file);
    for (const char* content : {"correct horse", "correct horse\r\nand more\n",
             "\xEF\xBB\xBF"
             "correct horse\n"})
        EXPECT_EQ(tool({"import", bundle, "--passphrase-file", secret(content)}), (Said{0, holdsAda(), ""})) << content;
    EXPECT_EQ(tool({"import", bundle, "--passphrase-fd", "3"}, "3<" + secret("correct horse\n").string()),
        (Said{0, holdsAda(), ""}));
    EXPECT_EQ(tool({"import", bundle, "--passphrase-fd=0"}, "<" + secret("correct horse").string()),
        (Said{0, holdsAda(), ""}));
}

TEST_F(ImportTest, TellsWhatIsWrongWithAPassPhrase)
{
    const fs::path bundle = given(ada().file);
    const auto withSecret = [&](const std::string& content) {
        return tool({"import", bundle, "--passphrase-file", secret(content)});
    };
    const std::string source = "security: import: " + (home_.path() / "passphrase").string();
    EXPECT_EQ(withSecret("wrong\n"), refused(bundle, "The pass phrase is wrong for this file. (-25264)"));
    EXPECT_EQ(withSecret(""), refused(bundle, "The pass phrase is wrong for this file. (-25264)"));
    EXPECT_EQ(withSecret("a\xFF\n"), (Said{1, "", source + " holds no UTF-8 text\n"}));
    EXPECT_EQ(withSecret(std::string("a\0b\n", 4)), (Said{1, "", source + " holds a zero byte\n"}));
    EXPECT_EQ(withSecret(std::string(4097, 'a')), (Said{1, "", source + " is longer than 4096 bytes\n"}));
    EXPECT_EQ(
        withSecret(std::string(4096, 'a') + "\n"), refused(bundle, "The pass phrase is wrong for this file. (-25264)"));
    EXPECT_EQ(tool({"import", bundle, "--passphrase-file", home_.path() / "none"}),
        (Said{1, "",
            "security: import: " + (home_.path() / "none").string() + " cannot be read: No such file or directory\n"}));
    EXPECT_EQ(tool({"import", bundle, "--passphrase-fd", "9"}),
        (Said{1, "", "security: import: descriptor 9 cannot be read: Bad file descriptor\n"}));
    EXPECT_EQ(tool({"import", bundle}),
        (Said{1, "",
            "security: import: there is no terminal to ask for the pass phrase: use --passphrase-file or "
            "--passphrase-fd\n"}));
    EXPECT_FALSE(fs::exists(home_.defaultKeychain()));
}

TEST_F(ImportTest, APassPhraseOnTheCommandLineIsRefused)
{
    const std::string usage =
        "usage: security import [-k keychain] [-x] [--passphrase-file file | --passphrase-fd number] "
        "file\n";
    EXPECT_EQ(tool({"import", given(ada().file), "-P", "correct horse"}),
        (Said{2, "",
            "security import: a pass phrase on the command line can be read by every user; use --passphrase-file or "
            "--passphrase-fd, or type it at the terminal\n"
                + usage}));
    EXPECT_EQ(tool({"import", "a", "--passphrase-file", "b", "--passphrase-fd", "3"}),
        (Said{2, "", "security import: --passphrase-file and --passphrase-fd exclude each other\n" + usage}));
    for (const char* number : {"-1", "x", "", "3x", "99999999999"})
        EXPECT_EQ(tool({"import", "a", "--passphrase-fd", number}),
            (Said{2, "", "security import: --passphrase-fd needs the number of an open descriptor\n" + usage}));
    EXPECT_EQ(tool({"import"}), (Said{2, "", "security import: needs exactly one file\n" + usage}));
    EXPECT_EQ(tool({"import", "a", "b"}), (Said{2, "", "security import: needs exactly one file\n" + usage}));
    EXPECT_FALSE(fs::exists(home_.defaultKeychain()));
}

TEST_F(ImportTest, AsksAtTheTerminalWithoutEcho)
{
    const fs::path bundle = given(ada().file);
    Terminal terminal(command({"import", bundle}));
    EXPECT_EQ(terminal.readUntil(": "), "Pass phrase of " + bundle.string() + ": ");
    terminal.type("correct horse\n");
    EXPECT_EQ(terminal.readToEnd(), "\r\n" + holdsAda().substr(0, holdsAda().size() - 1) + "\r\n");
    EXPECT_EQ(terminal.wait(), 0);
}

TEST_F(ImportTest, AnInterruptAtThePromptImportsNothing)
{
    Terminal terminal(command({"import", given(ada().file)}));
    terminal.readUntil(": ");
    // OpenSSL does not notice an interrupt between its question and its reading.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    terminal.type("\x03");
    terminal.readToEnd();
    EXPECT_NE(terminal.wait(), 0);
    EXPECT_FALSE(fs::exists(home_.defaultKeychain()));
}

TEST_F(ImportTest, AsksForThePassPhraseOfALockedKeychain)
{
    const fs::path keychain = makeKeychain("k");
    lock(keychain, "secret");
    Terminal terminal(
        command({"import", "-k", keychain, given(ada().file), "--passphrase-file", secret("correct horse\n")}));
    EXPECT_EQ(terminal.readUntil(": "), "Pass phrase of the keychain " + keychain.string() + ": ");
    terminal.type("wrong\n");
    EXPECT_EQ(terminal.readUntil(": "), "\r\nThat is wrong. Pass phrase of the keychain " + keychain.string() + ": ");
    terminal.type("secret\n");
    EXPECT_THAT(terminal.readToEnd(), HasSubstr("holds the identity"));
    EXPECT_EQ(terminal.wait(), 0);
}

TEST_F(ImportTest, TellsThatAKeychainCannotBeWritten)
{
    const fs::path bundle = given(ada().file);
    const fs::path passphrase = secret("correct horse\n");
    const fs::path locked = makeKeychain("locked");
    lock(locked, "secret");
    EXPECT_EQ(tool({"import", "-k", locked, bundle, "--passphrase-file", passphrase}),
        refused(bundle, "The keychain is locked, and asking for its pass phrase is not possible here. (-25308)"));
    const fs::path readOnly = makeKeychain("read-only");
    makeReadOnly(readOnly);
    EXPECT_EQ(tool({"import", "-k", readOnly, bundle, "--passphrase-file", passphrase}),
        refused(bundle, "The keychain is read-only. (-25292)"));
    const fs::path damaged = makeKeychain("damaged");
    damage(damaged);
    EXPECT_EQ(tool({"import", "-k", damaged, bundle, "--passphrase-file", passphrase}),
        refused(bundle, "The keychain is damaged or incomplete. It was left as it is. (-25295)"));
    const fs::path certificate = given(ada().certFile);
    EXPECT_EQ(tool({"import", "-k", damaged, certificate}),
        refused(damaged,
            "the certificate \"Ada Example\", SHA-256 " + digest(ada().certFile)
                + " was not imported: The keychain is damaged or incomplete. It was left as it is. (-25295)"));
    EXPECT_EQ(tool({"import", "-k", "", certificate}),
        refused("", "A parameter that was passed to a security function is not valid. (-50)"));
    EXPECT_EQ(tool({"import", "-k", "/Library/Keychains/System.keychain", certificate}),
        refused("/Library/Keychains/System.keychain",
            "The Security Server denied authorization for one or more requested rights (-60005)"));
}

TEST_F(ImportTest, ImportsCertificates)
{
    const fs::path keychain = home_.path() / "k";
    const std::string place = keychain.string() + ": ";
    const std::string first = "\"Ada Example\", SHA-256 " + digest(ada().certFile) + "\n";
    const std::string second = "\"Grace Example\", SHA-256 " + digest(grace().certFile) + "\n";
    EXPECT_EQ(tool({"import", "-k", keychain, given(ada().certFile)}),
        (Said{0, place + "imported the certificate " + first, ""}));
    const fs::path both = home_.path() / "both.pem";
    writeFile(both, "Two of them.\n" + text(ada().certFile) + text(grace().certFile));
    EXPECT_EQ(tool({"import", "-k", keychain, both}),
        (Said{0, place + "had the certificate already, " + first + place + "imported the certificate " + second, ""}));
    const fs::path der = home_.path() / "root.der";
    writeFile(der, std::span<const std::uint8_t>(authority().root()));
    EXPECT_EQ(tool({"import", "-k", keychain, der}).status, 0);
    EXPECT_THAT(listed(keychain), HasSubstr("Grace Example"));
    EXPECT_THAT(listed(keychain), HasSubstr("Orvane Certification Authority"));
}

TEST_F(ImportTest, RefusesFilesThatItCannotUse)
{
    const std::string keyAlone =
        "holds a private key that is not in a PKCS#12 bundle. Make a bundle of the key and its "
        "certificate, and import that.";
    const fs::path file = home_.path() / "file";
    const auto importing = [&](std::string_view content) {
        writeFile(file, content);
        return tool({"import", file, "--passphrase-file", secret("correct horse\n")});
    };
    EXPECT_EQ(importing(text(ada().keyFile)), refused(file, keyAlone));
    EXPECT_EQ(importing(text(ada().certFile) + text(ada().keyFile)), refused(file, keyAlone));
    EXPECT_EQ(importing({reinterpret_cast<const char*>(ada().privateKey.data()), ada().privateKey.size()}),
        refused(file, keyAlone));
    mustRun(
        {"openssl", "pkcs8", "-topk8", "-in", ada().keyFile, "-passout", "pass:x", "-outform", "DER", "-out", file});
    EXPECT_EQ(importing(text(file)), refused(file, keyAlone));
    EXPECT_EQ(importing("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"),
        refused(file, "holds a damaged certificate"));
    EXPECT_EQ(importing("-----BEGIN CERTIFICATE-----\nAAAA\n"), refused(file, "holds a damaged certificate"));
    EXPECT_EQ(importing(text(ada().certFile) + "-----BEGIN CERTIFICATE-----\nAAAA\n"),
        refused(file, "holds a damaged certificate"));
    EXPECT_EQ(importing("-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n"),
        refused(file, "holds something besides certificates: X509 CRL"));
    EXPECT_EQ(importing(""),
        refused(file, "There is nothing to install: the data holds no private key with a certificate. (-25316)"));
    EXPECT_EQ(importing("nonsense"),
        refused(file, "The format of the data is not known. It is not a certificate or a PKCS#12 file. (-25257)"));
    const std::string bundle(ada().pkcs12.begin(), ada().pkcs12.end());
    EXPECT_EQ(importing(bundle.substr(0, bundle.size() / 2)).status, 1);
    EXPECT_EQ(tool({"import", home_.path() / "none"}), refused(home_.path() / "none", "No such file or directory"));
    EXPECT_EQ(tool({"import", home_.path()}), refused(home_.path(), "is not a regular file"));
    fs::resize_file(file, (std::uintmax_t{16} << 20U) + 1);
    EXPECT_EQ(tool({"import", file}), refused(file, "is larger than 16 MiB"));
    EXPECT_FALSE(fs::exists(home_.defaultKeychain()));
}

} // namespace
