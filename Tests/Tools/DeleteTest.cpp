// Deleting certificates and identities.

#include "Tests/Tools/ToolTest.h"

#include <cctype>

namespace {

namespace fs = std::filesystem;
using kf::test::mustRun;
using kf::test::ToolTest;
using ::testing::HasSubstr;
using ::testing::Not;

class DeleteTest : public ToolTest {
protected:
    static std::string keys(const fs::path& keychain)
    {
        const auto ran = kf::test::run({"timeout", "20", "certutil", "-K", "-d", "sql:" + keychain.string()});
        return ran.output;
    }
    static Said notFound(const std::string& command)
    {
        return {1, "", "security: " + command + ": The item was not found in the keychain. (-25300)\n"};
    }
    static std::string named(const std::string& label, const fs::path& certificate)
    {
        return "\"" + label + "\", SHA-256 " + digest(certificate);
    }
    static constexpr const char* bundleLabel = "Ada Example - Orvane Collegium"; // pk12util's
};

TEST_F(DeleteTest, DeletesTheOneThatMatches)
{
    const fs::path keychain = makeKeychain("k");
    addCertificate(keychain, ada().certFile, "Ada Example");
    addCertificate(keychain, grace().certFile, "Grace Example");
    EXPECT_EQ(tool({"delete-certificate", "-c", "Grace Example", keychain}),
        (Said{0, keychain.string() + ": deleted the certificate " + named("Grace Example", grace().certFile) + "\n",
            ""}));
    EXPECT_THAT(listed(keychain), Not(HasSubstr("Grace")));
    EXPECT_THAT(listed(keychain), HasSubstr("Ada"));
    EXPECT_EQ(tool({"delete-certificate", "-c", "Grace Example", keychain}), notFound("delete-certificate"));
}

TEST_F(DeleteTest, RefusesWhereSeveralMatchAndTakesADigest)
{
    const fs::path keychain = makeKeychain("k");
    const fs::path other = makeKeychain("other");
    addCertificate(keychain, ada().certFile, "Ada Example");
    addCertificate(keychain, secondAda().certFile, "Ada Example");
    addCertificate(other, ada().certFile, "Ada Example");
    const Said several = tool({"delete-certificate", "-c", "Ada Example", keychain});
    const std::string head = "security: delete-certificate: 2 items match, and nothing was done. Name one by its "
                             "digest and keychain:\n";
    const std::string first = "security: " + keychain.string() + ": " + named("Ada Example", ada().certFile) + "\n";
    const std::string second =
        "security: " + keychain.string() + ": " + named("Ada Example", secondAda().certFile) + "\n";
    EXPECT_THAT(several, ::testing::AnyOf(Said{1, "", head + first + second}, Said{1, "", head + second + first}));
    const std::string inOther = "security: " + other.string() + ": " + named("Ada Example", ada().certFile) + "\n";
    EXPECT_EQ(tool({"delete-certificate", "-Z", digest(ada().certFile), keychain, other}),
        (Said{1, "", head + first + inOther}));
    EXPECT_THAT(tool({"find-certificate", "-a", "--json", keychain, other}).output, HasSubstr(digest(ada().certFile)));

    std::string spaced = mustRun({"openssl", "x509", "-in", ada().certFile, "-noout", "-fingerprint", "-sha1"});
    spaced = spaced.substr(spaced.find('=') + 1, 59);
    EXPECT_EQ(tool({"delete-certificate", "-Z", spaced, keychain}).status, 0) << "colons do no harm";
    std::string lower = digest(secondAda().certFile);
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
    EXPECT_EQ(tool({"delete-certificate", "-Z", lower, keychain}).status, 0);
    EXPECT_EQ(tool({"find-certificate", "--json", keychain}).output, "[]\n");
}

TEST_F(DeleteTest, DeletesNothingWhereAnotherKeychainMightHoldASecond)
{
    const fs::path keychain = makeKeychain("k");
    const fs::path damaged = makeKeychain("damaged");
    addCertificate(keychain, ada().certFile, "Ada Example");
    damage(damaged);
    EXPECT_EQ(tool({"delete-certificate", "-c", "Ada Example", keychain, damaged}),
        (Said{1, "",
            "security: " + damaged.string()
                + ": The keychain is damaged or incomplete. It was left as it is. (-25295)\n"}));
    EXPECT_THAT(listed(keychain), HasSubstr("Ada"));
}

TEST_F(DeleteTest, TellsThatAKeychainCannotBeWritten)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    const std::string place = "security: " + keychain.string() + ": the certificate "
        + named(bundleLabel, ada().certFile) + " was not deleted: ";
    lock(keychain, "secret");
    EXPECT_EQ(tool({"delete-certificate", "-Z", digest(ada().certFile), keychain}),
        (Said{
            1, "", place + "The keychain is locked, and asking for its pass phrase is not possible here. (-25308)\n"}));
    const fs::path readOnly = makeKeychain("r");
    addBundle(readOnly, ada());
    makeReadOnly(readOnly);
    EXPECT_EQ(tool({"delete-certificate", "-Z", digest(ada().certFile), readOnly}),
        (Said{1, "",
            "security: " + readOnly.string() + ": the certificate " + named(bundleLabel, ada().certFile)
                + " was not deleted: The keychain is read-only. (-25292)\n"}));
    EXPECT_EQ(tool({"delete-identity", "-Z", digest(ada().certFile), readOnly}),
        (Said{1, "",
            "security: " + readOnly.string() + ": the private key of " + named(bundleLabel, ada().certFile)
                + " was not deleted: The keychain is read-only. (-25292)\n"}));
    const fs::path missing = home_.path() / "missing";
    EXPECT_EQ(tool({"delete-identity", "-c", "Ada Example", missing}),
        (Said{1, "", "security: " + missing.string() + ": The keychain does not exist. (-25294)\n"}));
    EXPECT_FALSE(fs::exists(missing));
}

TEST_F(DeleteTest, AnIdentityGoesWithItsKey)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    addCertificate(keychain, grace().certFile, "Grace Example");
    ASSERT_THAT(keys(keychain), HasSubstr("< 0>"));
    EXPECT_EQ(tool({"delete-identity", "-c", "Grace Example", keychain}), notFound("delete-identity"));
    EXPECT_EQ(tool({"delete-identity", "-c", "Ada Example", keychain}),
        (Said{0,
            keychain.string() + ": deleted the private key of " + named(bundleLabel, ada().certFile) + "\n"
                + keychain.string() + ": deleted the certificate " + named(bundleLabel, ada().certFile) + "\n",
            ""}));
    EXPECT_THAT(keys(keychain), Not(HasSubstr("< 0>")));
    EXPECT_THAT(listed(keychain), Not(HasSubstr("Ada")));
    EXPECT_THAT(listed(keychain), HasSubstr("Grace"));
}

TEST_F(DeleteTest, AKeyThatAnotherCertificateNeedsIsKept)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    // The same key, another certificate.
    const fs::path renewed = scratch_.path() / "renewed.pem";
    mustRun({"openssl", "req", "-x509", "-new", "-key", ada().keyFile, "-subj", "/CN=Ada Renewed", "-days", "30",
        "-out", renewed});
    addCertificate(keychain, renewed, "Ada Renewed");
    EXPECT_EQ(tool({"delete-identity", "-c", "Ada Example", keychain}),
        (Said{0,
            keychain.string() + ": kept the private key, which another certificate needs\n" + keychain.string()
                + ": deleted the certificate " + named(bundleLabel, ada().certFile) + "\n",
            ""}));
    EXPECT_THAT(keys(keychain), HasSubstr("< 0>"));
    EXPECT_EQ(tool({"delete-identity", "-c", "Ada Renewed", keychain}).status, 0);
    EXPECT_THAT(keys(keychain), Not(HasSubstr("< 0>")));
}

TEST_F(DeleteTest, AnIdentityIsNotChosenByChance)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    addBundle(keychain, secondAda());
    const Said said = tool({"delete-identity", "-c", "Ada Example", keychain});
    EXPECT_EQ(said.status, 1);
    EXPECT_EQ(said.output, "");
    EXPECT_THAT(said.errors, HasSubstr("delete-identity: 2 items match, and nothing was done."));
    EXPECT_THAT(said.errors, HasSubstr(digest(ada().certFile)));
    EXPECT_THAT(said.errors, HasSubstr(digest(secondAda().certFile)));
    EXPECT_THAT(tool({"find-identity", keychain}).output, HasSubstr("2 identities found"));
    EXPECT_EQ(tool({"delete-identity", "-Z", digest(secondAda().certFile), keychain}).status, 0);
    EXPECT_THAT(tool({"find-identity", keychain}).output, HasSubstr(digest(ada().certFile)));
}

TEST_F(DeleteTest, WithoutNameOrDigestNothingIsMeant)
{
    const std::string complaint = ": needs -c with a name or -Z with a SHA-256 or SHA-1 digest\nusage: security ";
    for (const std::string command : {"delete-certificate", "delete-identity"}) {
        const std::vector<std::vector<std::string>> wrong = {{command}, {command, "Ada Example"}, {command, "-c", ""},
            {command, "-Z", ""}, {command, "-Z", "0123"}, {command, "-Z", std::string(64, 'G')}};
        for (const auto& words : wrong)
            EXPECT_EQ(tool(words),
                (Said{2, "", "security " + command + complaint + command + " -c name | -Z digest [keychain ...]\n"}));
    }
}

} // namespace
