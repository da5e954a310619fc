// Listing what keychains hold.

#include "Tests/Tools/ToolTest.h"

#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using kf::test::BundleOptions;
using kf::test::mustRun;
using kf::test::ToolTest;
using nlohmann::json;

class FindTest : public ToolTest {
protected:
    /// What find-certificate shows of one of the authority's members.
    std::string shown(const fs::path& keychain, const kf::test::Bundle& bundle, const std::string& name,
        const std::string& email) const
    {
        return "keychain: \"" + keychain.string() + "\"\n    label: " + name + "\n    subject: CN=" + name
            + ",O=Orvane Collegium\n    e-mail: " + email
            + "\n    issuer: CN=Orvane Certification Authority 2,O=Orvane Collegium\n    serial number: "
            + serial(bundle.certFile) + "\n    valid: 2020-01-01T00:00:00Z to 2049-01-01T00:00:00Z\n";
    }
    std::string shownAda(const fs::path& keychain) const
    {
        return shown(keychain, ada(), "Ada Example", "ada@orvane.example");
    }
    std::string shownGrace(const fs::path& keychain) const
    {
        return shown(keychain, grace(), "Grace Example", "grace@orvane.example");
    }
    /// Ada, then Grace.
    fs::path makeKeychainOfTwo(const std::string& name) const
    {
        const fs::path keychain = makeKeychain(name);
        addCertificate(keychain, ada().certFile, "Ada Example");
        addCertificate(keychain, grace().certFile, "Grace Example");
        return keychain;
    }
    static Said notFound(const std::string& output = {})
    {
        return {1, output, "security: find-certificate: The item was not found in the keychain. (-25300)\n"};
    }
};

TEST_F(FindTest, ShowsTheFirstOrAllOfTheDefaultKeychain)
{
    makeKeychainOfTwo(".pki/nssdb");
    const std::string first = shownAda(home_.olderKeychain());
    const std::string second = shownGrace(home_.olderKeychain());
    const Said all = tool({"find-certificate", "-a"});
    EXPECT_THAT(all, ::testing::AnyOf(Said{0, first + second, ""}, Said{0, second + first, ""}));
    const Said one = tool({"find-certificate"});
    EXPECT_EQ(one, (Said{0, all.output.substr(0, one.output.size()), ""}));
    EXPECT_THAT(one.output, ::testing::AnyOf(first, second));
}

TEST_F(FindTest, FindsByNameAndAddress)
{
    const fs::path keychain = makeKeychainOfTwo("k");
    EXPECT_EQ(tool({"find-certificate", "-a", "-c", "Grace Example", keychain}), (Said{0, shownGrace(keychain), ""}));
    EXPECT_EQ(
        tool({"find-certificate", "-a", "-e", "Ada@ORVANE.example", keychain}), (Said{0, shownAda(keychain), ""}));
    EXPECT_EQ(tool({"find-certificate", "-a", "-c", "Ada Example", "-e", "ada@orvane.example", keychain}),
        (Said{0, shownAda(keychain), ""}));
    EXPECT_EQ(tool({"find-certificate", "-c", "Ada Example", "-e", "grace@orvane.example", keychain}), notFound());
    EXPECT_EQ(tool({"find-certificate", "-c", "Ada", keychain}), notFound());
}

TEST_F(FindTest, SearchesTheKeychainsThatAreNamed)
{
    const fs::path first = makeKeychain("first");
    const fs::path second = makeKeychain("second");
    addCertificate(first, ada().certFile, "Ada Example");
    addCertificate(second, ada().certFile, "Ada Example");
    addCertificate(second, grace().certFile, "Grace Example");
    EXPECT_EQ(tool({"find-certificate", "-a", "-c", "Ada Example", second, first}),
        (Said{0, shownAda(second) + shownAda(first), ""}));
    EXPECT_EQ(tool({"find-certificate", "-c", "Ada Example", first, second}), (Said{0, shownAda(first), ""}));
    EXPECT_EQ(tool({"find-certificate", "-c", "Grace Example", first}), notFound());
}

TEST_F(FindTest, PrintsPEMAndDigests)
{
    const fs::path keychain = makeKeychainOfTwo("k");
    const std::string pem = mustRun({"openssl", "x509", "-in", ada().certFile});
    const std::string digests =
        "SHA-256 hash: " + digest(ada().certFile) + "\nSHA-1 hash: " + digest(ada().certFile, "sha1") + "\n";
    EXPECT_EQ(tool({"find-certificate", "-p", "-c", "Ada Example", keychain}), (Said{0, pem, ""}));
    EXPECT_EQ(tool({"find-certificate", "-pZ", "-c", "Ada Example", keychain}), (Said{0, digests + pem, ""}));
    EXPECT_EQ(
        tool({"find-certificate", "-Z", "-c", "Ada Example", keychain}), (Said{0, digests + shownAda(keychain), ""}));
}

TEST_F(FindTest, PrintsJSON)
{
    const fs::path keychain = makeKeychainOfTwo("k");
    const Said said = tool({"find-certificate", "-p", "--json", "-c", "Ada Example", keychain});
    EXPECT_EQ(said.status, 0);
    EXPECT_EQ(said.errors, "");
    const json expected = {{{"keychain", keychain}, {"label", "Ada Example"}, {"commonName", "Ada Example"},
        {"emailAddresses", {"ada@orvane.example"}}, {"subject", "CN=Ada Example,O=Orvane Collegium"},
        {"issuer", "CN=Orvane Certification Authority 2,O=Orvane Collegium"}, {"serialNumber", serial(ada().certFile)},
        {"notBefore", "2020-01-01T00:00:00Z"}, {"notAfter", "2049-01-01T00:00:00Z"}, {"isAuthority", false},
        {"sha256", digest(ada().certFile)}, {"sha1", digest(ada().certFile, "sha1")},
        {"pem", mustRun({"openssl", "x509", "-in", ada().certFile})}}};
    EXPECT_EQ(json::parse(said.output), expected);
    EXPECT_EQ(json::parse(tool({"find-certificate", "-a", "--json", keychain}).output).size(), 2U);
    EXPECT_EQ(tool({"find-certificate", "--json", "-c", "Nobody", keychain}), notFound("[]\n"));
}

TEST_F(FindTest, TellsWhichKeychainCannotBeReadAndShowsTheOthers)
{
    const fs::path good = makeKeychainOfTwo("good");
    const fs::path damaged = makeKeychain("damaged");
    damage(damaged);
    const fs::path missing = home_.path() / "missing";
    const std::string complaint =
        "security: " + damaged.string() + ": The keychain is damaged or incomplete. It was left as it is. (-25295)\n";
    EXPECT_EQ(
        tool({"find-certificate", "-a", "-c", "Ada Example", damaged, good}), (Said{1, shownAda(good), complaint}));
    EXPECT_EQ(tool({"find-certificate", "-c", "Ada Example", damaged}), (Said{1, "", complaint}));
    EXPECT_EQ(tool({"find-certificate", missing}),
        (Said{1, "", "security: " + missing.string() + ": The keychain does not exist. (-25294)\n"}));
    EXPECT_FALSE(fs::exists(missing));
}

TEST_F(FindTest, ReadsCertificatesOfALockedOrReadOnlyKeychain)
{
    const fs::path keychain = makeKeychainOfTwo("k");
    lock(keychain, "secret");
    EXPECT_EQ(tool({"find-certificate", "-c", "Ada Example", keychain}), (Said{0, shownAda(keychain), ""}));
    makeReadOnly(keychain);
    EXPECT_EQ(tool({"find-certificate", "-c", "Ada Example", keychain}), (Said{0, shownAda(keychain), ""}));
}

TEST_F(FindTest, AMissingDefaultKeychainIsEmpty)
{
    EXPECT_EQ(tool({"find-certificate"}), notFound());
    EXPECT_EQ(tool({"find-identity"}), (Said{1, "     0 identities found\n", ""}));
    EXPECT_FALSE(fs::exists(home_.defaultKeychain()));
}

TEST_F(FindTest, ANameCannotSpeakToTheTerminal)
{
    BundleOptions options;
    options.commonName = "Eve\x1b[2J\nkeychain: \xE2\x80\xAEgpj\xC2\x9B\x7F \xC3\xA9";
    const auto eve = authority().issue(options);
    const fs::path keychain = makeKeychain("k");
    addCertificate(keychain, eve.certFile, "Eve\x1b[2J");
    const Said said = tool({"find-certificate", keychain});
    EXPECT_EQ(said.output.find_first_of("\x1b\x7f\r\b"), std::string::npos) << said.output;
    EXPECT_EQ(said.output.find("\xE2\x80\xAE"), std::string::npos);
    EXPECT_EQ(said.output.find("\xC2\x9B"), std::string::npos);
    EXPECT_THAT(
        said.output, ::testing::StartsWith("keychain: \"" + keychain.string() + "\"\n    label: Eve\xEF\xBF\xBD[2J\n"));
    EXPECT_EQ(said.output.find("\nkeychain: "), std::string::npos) << "a newline in a name begins no line";

    const Said listing = tool({"find-certificate", "--json", keychain});
    EXPECT_EQ(listing.output.find_first_not_of("\n !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`"
                                               "abcdefghijklmnopqrstuvwxyz{|}~"),
        std::string::npos);
    EXPECT_EQ(json::parse(listing.output)[0]["commonName"], options.commonName) << "nothing of it is lost";
}

TEST_F(FindTest, AKeychainsPathCannotSpeakToTheTerminalEither)
{
    const fs::path strange = home_.path() / "\x1b[31m";
    const std::string shown = home_.path().string() + "/\xEF\xBF\xBD[31m";
    EXPECT_EQ(tool({"find-certificate", strange}),
        (Said{1, "", "security: " + shown + ": The keychain does not exist. (-25294)\n"}));
    const fs::path latin1 = home_.path() / "\xE9";
    EXPECT_EQ(tool({"find-certificate", latin1}),
        (Said{1, "",
            "security: \"" + home_.path().string()
                + "/\xEF\xBF\xBD\": A parameter that was passed to a security function is not valid. (-50)\n"}));
}

TEST_F(FindTest, ListsIdentities)
{
    const fs::path keychain = makeKeychain("k");
    addCertificate(keychain, grace().certFile, "Grace Example");
    EXPECT_EQ(tool({"find-identity", keychain}), (Said{1, "     0 identities found\n", ""}));
    EXPECT_EQ(tool({"find-identity", "--json", keychain}), (Said{1, "[]\n", ""}));
    addBundle(keychain, ada());
    const std::string label = "Ada Example - Orvane Collegium"; // pk12util's
    EXPECT_EQ(tool({"find-identity", keychain}),
        (Said{0, "  1) " + digest(ada().certFile) + " \"" + label + "\"\n     1 identity found\n", ""}));
    const json expected = {{{"keychain", keychain}, {"label", label}, {"commonName", "Ada Example"},
        {"emailAddresses", {"ada@orvane.example"}}, {"notAfter", "2049-01-01T00:00:00Z"},
        {"sha256", digest(ada().certFile)}, {"sha1", digest(ada().certFile, "sha1")}}};
    EXPECT_EQ(json::parse(tool({"find-identity", "--json", keychain}).output), expected);
}

TEST_F(FindTest, LeavesOutIdentitiesThatAreNotTrusted)
{
    const fs::path keychain = makeKeychain(".pki/nssdb");
    addBundle(keychain, ada());
    addCertificate(keychain, authority().issuerFile(), "issuer");
    EXPECT_EQ(tool({"find-identity", "-v"}), (Said{1, "     0 identities found\n", ""}));
    mustRun({"timeout", "20", "certutil", "-A", "-d", "sql:" + keychain.string(), "-n", "root", "-t", "C,C,", "-i",
        authority().rootFile()});
    EXPECT_THAT(tool({"find-identity", "-v"}).output, ::testing::HasSubstr("1 identity found"));
}

TEST_F(FindTest, TellsThatAKeychainIsLockedOrDamaged)
{
    const fs::path keychain = makeKeychain("k");
    addBundle(keychain, ada());
    lock(keychain, "secret");
    EXPECT_EQ(tool({"find-identity", keychain}),
        (Said{1, "     0 identities found\n",
            "security: " + keychain.string()
                + ": The keychain is locked, and asking for its pass phrase is not possible here. (-25308)\n"}));
    damage(keychain);
    EXPECT_EQ(tool({"find-identity", "--json", keychain}),
        (Said{1, "[]\n",
            "security: " + keychain.string()
                + ": The keychain is damaged or incomplete. It was left as it is. (-25295)\n"}));
}

TEST_F(FindTest, TellsTheKeychains)
{
    const std::string newer = home_.defaultKeychain();
    const std::string older = home_.olderKeychain();
    EXPECT_EQ(tool({"default-keychain"}), (Said{0, "    \"" + newer + "\"\n", ""}));
    EXPECT_THAT(tool({"list-keychains"}).output, ::testing::Not(::testing::HasSubstr(home_.path().string())));
    makeKeychain(".local/share/pki/nssdb");
    makeKeychain(".pki/nssdb");
    EXPECT_EQ(tool({"default-keychain"}), (Said{0, "    \"" + older + "\"\n", ""}));
    EXPECT_EQ(tool({"default-keychain", "--json"}), (Said{0, "\"" + older + "\"\n", ""}));
    const std::string plain = "    \"" + older + "\"\n    \"" + newer + "\"\n";
    const json list = {older, newer};
    EXPECT_EQ(tool({"list-keychains"}), (Said{0, plain, ""}));
    EXPECT_EQ(json::parse(tool({"list-keychains", "--json"}).output), list);
}

TEST_F(FindTest, WithoutAHomeThereIsNoDefaultKeychain)
{
    ::unsetenv("HOME");
    EXPECT_EQ(tool({"default-keychain"}),
        (Said{1, "",
            "security: default-keychain: There is no default keychain, because no home folder is known. (-25307)\n"}));
}

TEST_F(FindTest, TellsTheTextOfAStatus)
{
    EXPECT_EQ(tool({"error", "-25300", "0xFFFF9D2C", "4294941996", "0"}),
        (Said{0,
            "Error: 0xFFFF9D2C -25300 The item was not found in the keychain.\n"
            "Error: 0xFFFF9D2C -25300 The item was not found in the keychain.\n"
            "Error: 0xFFFF9D2C -25300 The item was not found in the keychain.\n"
            "Error: 0x00000000 0 No error.\n",
            ""}));
    EXPECT_EQ(tool({"error", "123456"}), (Said{1, "Error: 0x0001E240 123456 There is no text for this status.\n", ""}));
    const Said said = tool({"error", "--json", "-128", "123456"});
    EXPECT_EQ(said.status, 1);
    const json expected = {{{"status", -128}, {"hex", "0xFFFFFF80"}, {"text", "The operation was canceled."}},
        {{"status", 123456}, {"hex", "0x0001E240"}, {"text", nullptr}}};
    EXPECT_EQ(json::parse(said.output), expected);
    for (const char* wrong : {"4294967296", "-2147483649", "0x", "0x100000000", "0x-1", "12a", "", "1 2"}) {
        const Said refused = tool({"error", wrong});
        EXPECT_EQ(refused,
            (Said{2, "",
                "security error: \"" + std::string(wrong)
                    + "\" is no status\nusage: security error [--json] status ...\n"}));
    }
}

TEST_F(FindTest, WrongUseHasAStatusOfItsOwn)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> wrong = {
        {{"find-certificate", "-x"}, "unknown option -x"},
        {{"find-certificate", "-c"}, "option -c needs a value"},
        {{"find-certificate", "-c", ""}, "-c and -e need a name"},
        {{"find-identity", "--jason"}, "unknown option --jason"},
        {{"list-keychains", "a"}, "takes no operand: which keychains are searched cannot be set"},
        {{"default-keychain", "a"}, "takes no operand: the default keychain cannot be set"},
        {{"error"}, "needs a status"},
    };
    for (const auto& [words, complaint] : wrong) {
        const Said said = tool(words);
        EXPECT_EQ(said.status, 2);
        EXPECT_EQ(said.output, "");
        EXPECT_THAT(said.errors,
            ::testing::StartsWith("security " + words[0] + ": " + complaint + "\nusage: security " + words[0] + " "));
    }
}

} // namespace
