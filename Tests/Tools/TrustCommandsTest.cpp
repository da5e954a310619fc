// Telling what is trusted.

#include "Tests/Tools/ToolTest.h"

#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using kf::test::BundleOptions;
using kf::test::mustRun;
using kf::test::ToolTest;
using kf::test::writeFile;
using nlohmann::json;

class TrustCommandsTest : public ToolTest {
protected:
    /// The user's keychain, with the root under a setting.
    fs::path trustRoot(const std::string& flags = "C,C,") const
    {
        const fs::path keychain = makeKeychain(".pki/nssdb");
        mustRun({"timeout", "20", "certutil", "-A", "-d", "sql:" + keychain.string(), "-n", "root", "-t", flags, "-i",
            authority().rootFile()});
        return keychain;
    }
    static Said refused(const fs::path& file, const std::string& text)
    {
        return {1, "", "security: " + file.string() + ": " + text + "\n"};
    }
};

TEST_F(TrustCommandsTest, VerifiesWithTheHelpOfTheOtherCertificates)
{
    const fs::path leaf = given(ada().certFile);
    const fs::path issuer = given(authority().issuerFile());
    const std::string notTrusted = leaf.string() + ": not trusted: unable to get local issuer certificate";
    EXPECT_EQ(tool({"verify-cert", leaf, issuer}), (Said{1, notTrusted + "\n", ""}));
    trustRoot();
    const std::string trusted = leaf.string() + ": trusted by a setting of the user's or the administrator's\n";
    EXPECT_EQ(tool({"verify-cert", leaf, issuer}), (Said{0, trusted, ""}));
    EXPECT_EQ(tool({"verify-cert", "-c", leaf, "-c", issuer, "-p", "basic"}), (Said{0, trusted, ""}));
    EXPECT_EQ(tool({"verify-cert", issuer, "-c", leaf}), (Said{0, trusted, ""})) << "those with -c come first";
    EXPECT_EQ(tool({"verify-cert", "-q", leaf, issuer}), (Said{0, "", ""}));
    EXPECT_EQ(tool({"verify-cert", "-q", leaf}).status, 1);
    EXPECT_EQ(tool({"verify-cert", "-q", leaf}).output, "");
}

TEST_F(TrustCommandsTest, TellsWhyACertificateIsNotTrusted)
{
    trustRoot();
    BundleOptions options;
    options.notAfter = "20210101000000Z";
    const fs::path expired = given(authority().issue(options).certFile);
    const fs::path issuer = given(authority().issuerFile());
    EXPECT_EQ(tool({"verify-cert", expired, issuer}),
        (Said{1, expired.string() + ": not trusted: certificate has expired\n", ""}));
    const Said said = tool({"verify-cert", "--json", expired, issuer});
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(said.errors, "");
    const json expected = {{"file", expired}, {"sha256", digest(expired)}, {"trusted", false},
        {"result", "recoverableTrustFailure"}, {"reasons", {"certificate has expired"}}};
    EXPECT_EQ(json::parse(said.output), expected);
}

TEST_F(TrustCommandsTest, ADenialIsTold)
{
    trustRoot("p,p,");
    const fs::path root = given(authority().rootFile());
    EXPECT_EQ(tool({"verify-cert", root}), (Said{1, root.string() + ": denied by a trust setting\n", ""}));
    EXPECT_EQ(tool({"dump-trust-settings"}),
        (Said{0,
            "Number of certificates with trust settings: 1\n\"Orvane Certification Authority\"\n    SHA-256: "
                + digest(authority().rootFile()) + "\n    deny, for servers and e-mail\n",
            ""}));
}

TEST_F(TrustCommandsTest, RefusesWhatIsNoCertificate)
{
    const fs::path file = home_.path() / "file";
    writeFile(file, std::string_view("nonsense"));
    EXPECT_EQ(tool({"verify-cert", file}), refused(file, "holds no certificate (neither DER nor PEM)"));
    EXPECT_EQ(tool({"verify-cert", given(ada().certFile), file}),
        refused(file, "holds no certificate (neither DER nor PEM)"));
    EXPECT_EQ(
        tool({"verify-cert", home_.path() / "none"}), refused(home_.path() / "none", "No such file or directory"));
    const std::string usage = "usage: security verify-cert [-c certFile] ... [-p basic] [-q] [--json] [certFile ...]\n";
    EXPECT_EQ(tool({"verify-cert"}), (Said{2, "", "security verify-cert: needs a certificate file\n" + usage}));
    EXPECT_EQ(tool({"verify-cert", "-p", "ssl", file}),
        (Said{2, "", "security verify-cert: unknown policy \"ssl\"\n" + usage}));
}

TEST_F(TrustCommandsTest, ListsTheUsersSettings)
{
    EXPECT_EQ(tool({"dump-trust-settings"}), (Said{1, "", "security: user's trust settings: there are none\n"}));
    EXPECT_EQ(tool({"dump-trust-settings", "--json"}),
        (Said{1, "[]\n", "security: user's trust settings: there are none\n"}));
    const fs::path keychain = trustRoot();
    EXPECT_EQ(tool({"dump-trust-settings"}),
        (Said{0,
            "Number of certificates with trust settings: 1\n\"Orvane Certification Authority\"\n    SHA-256: "
                + digest(authority().rootFile()) + "\n    trustRoot, for servers and e-mail\n",
            ""}));
    const json expected = {{{"name", "Orvane Certification Authority"}, {"sha256", digest(authority().rootFile())},
        {"settings", {{{"policy", "basic"}, {"result", "trustRoot"}}}}}};
    EXPECT_EQ(json::parse(tool({"dump-trust-settings", "--json"}).output), expected);
    lock(keychain, "secret");
    EXPECT_EQ(tool({"dump-trust-settings"}),
        (Said{1, "",
            "security: user's trust settings: The keychain is locked, and asking for its pass phrase is not possible "
            "here. (-25308)\n"}));
    damage(keychain);
    EXPECT_EQ(tool({"dump-trust-settings"}),
        (Said{1, "",
            "security: user's trust settings: The keychain is damaged or incomplete. It was left as it is. "
            "(-25295)\n"}));
}

TEST_F(TrustCommandsTest, SetsEveryKindOfTrustForTheUser)
{
    const fs::path root = given(authority().rootFile());
    const fs::path leaf = given(ada().certFile);
    const auto setting = [&](const fs::path& file) -> std::string {
        const json list = json::parse(tool({"dump-trust-settings", "--json"}).output);
        for (const json& certificate : list)
            if (certificate["sha256"] == digest(file))
                return certificate["settings"][0]["result"];
        return "none";
    };
    EXPECT_EQ(tool({"add-trusted-cert", root}), (Said{0, "default keychain: trusted\n", ""}));
    EXPECT_EQ(setting(root), "trustRoot");
    EXPECT_EQ(tool({"add-trusted-cert", "-r", "trustAsRoot", "-p", "basic", leaf}),
        (Said{0, "default keychain: trusted by itself\n", ""}));
    EXPECT_EQ(setting(leaf), "trustAsRoot");
    EXPECT_EQ(tool({"verify-cert", "-q", leaf}).status, 0);
    EXPECT_EQ(tool({"add-trusted-cert", "-r", "deny", leaf}), (Said{0, "default keychain: denied\n", ""}));
    EXPECT_EQ(tool({"add-trusted-cert", "-r", "deny", leaf}), (Said{0, "default keychain: was denied already\n", ""}));
    EXPECT_EQ(setting(leaf), "deny");
    EXPECT_EQ(tool({"verify-cert", leaf}), (Said{1, leaf.string() + ": denied by a trust setting\n", ""}));
    EXPECT_EQ(tool({"add-trusted-cert", "-r", "unspecified", root}),
        (Said{0, "default keychain: no word on it any more\n", ""}));
    EXPECT_EQ(setting(root), "unspecified");
    EXPECT_EQ(tool({"verify-cert", "-q", root}).status, 1);
}

TEST_F(TrustCommandsTest, RefusesTheWrongKindOfTrust)
{
    const fs::path root = given(authority().rootFile());
    const fs::path leaf = given(ada().certFile);
    EXPECT_EQ(tool({"add-trusted-cert", leaf}), refused(leaf, "is not the certificate of an authority"));
    EXPECT_EQ(tool({"add-trusted-cert", "-r", "trustAsRoot", root}),
        refused(root, "signed itself: a root certificate is trusted with trustRoot"));
    BundleOptions options;
    options.notAfter = "20210101000000Z";
    const fs::path expired = given(authority().issue(options).certFile);
    EXPECT_EQ(tool({"add-trusted-cert", "-r", "trustAsRoot", expired}), refused(expired, "expired on 2021-01-01"));
    EXPECT_FALSE(fs::exists(home_.defaultKeychain()));
    EXPECT_EQ(tool({"add-trusted-cert", "-r", "deny", expired}).status, 0) << "what is old may be denied";
    const Said withoutRights = tool({"add-trusted-cert", "-d", "-r", "deny", leaf});
    EXPECT_EQ(withoutRights.status, 1);
    EXPECT_EQ(withoutRights.output, "");
    EXPECT_EQ(withoutRights.errors,
        "security: System keychain: The Security Server denied authorization for one or more requested rights "
        "(-60005)\n");
}

TEST_F(TrustCommandsTest, ListsTheDistributionsAuthorities)
{
    if (!fs::exists("/etc/ssl/certs/ca-certificates.crt"))
        GTEST_SKIP() << "no distribution's store on this machine";
    const Said said = tool({"dump-trust-settings", "-s", "--json"});
    EXPECT_EQ(said.status, 0);
    const json list = json::parse(said.output);
    ASSERT_GT(list.size(), 20U);
    for (const json& authority : list)
        EXPECT_EQ(authority["settings"], json({{{"policy", "basic"}, {"result", "trustRoot"}}}));
}

TEST_F(TrustCommandsTest, TakesOneDomain)
{
    const Said wrong = {2, "",
        "security dump-trust-settings: takes one domain and no operand\nusage: security dump-trust-settings [-d | -s] "
        "[--json]\n"};
    EXPECT_EQ(tool({"dump-trust-settings", "-ds"}), wrong);
    EXPECT_EQ(tool({"dump-trust-settings", "a"}), wrong);
}

} // namespace
