// The browsers' policy files, in directories of the test's own.

#include "Tests/Support/Fixtures.h"
#include "security/CertificateFile.h"
#include "security/ChromiumPolicy.h"
#include "security/FileTools.h"
#include "security/FirefoxPolicy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using kf::security::ChromiumPolicy;
using kf::security::FirefoxPolicy;
using kf::security::Outcome;
using kf::security::PlaceStatus;
using kf::test::Authority;
using kf::test::mustRun;
using kf::test::writeFile;
using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using OutcomeKind = Outcome::Kind;

class BrowserPolicyTest : public ::testing::Test {
protected:
    BrowserPolicyTest()
    {
        std::string pattern = (fs::temp_directory_path() / "keyfold-browser-XXXXXX").string();
        directory_ = ::mkdtemp(pattern.data());
        writeFile(directory_ / "program", std::string_view());
        fs::create_directory(directory_ / "etc");
    }
    ~BrowserPolicyTest() override { fs::remove_all(directory_); }

    kf::security::PolicyPlace::Files files(const fs::path& policies) const
    {
        return {policies, directory_ / "state/record", directory_ / "lock", std::chrono::seconds(0)};
    }
    static Authority& authority()
    {
        static Authority authority;
        return authority;
    }
    static Authority& other()
    {
        static Authority authority("Somebody", "Other Authority");
        return authority;
    }
    static json read(const fs::path& path)
    {
        const auto bytes = kf::test::readFile(path);
        return json::parse(bytes.begin(), bytes.end());
    }
    static std::string base64(const fs::path& pem)
    {
        std::string text = mustRun({"openssl", "x509", "-in", pem, "-outform", "PEM"});
        text = text.substr(text.find('\n'), text.find("-----END") - text.find('\n'));
        std::erase(text, '\n');
        return text;
    }
    /// Nothing of ours is left: what stood there before, and the lock.
    void expectUntouched(std::size_t files = 0) const
    {
        std::size_t count = 0;
        for (const auto& entry : fs::recursive_directory_iterator(directory_ / "etc"))
            count += entry.is_regular_file();
        EXPECT_EQ(count, files);
        EXPECT_FALSE(fs::exists(directory_ / "state/record"));
    }

    fs::path directory_;
};

class ChromiumPolicyTest : public BrowserPolicyTest {
protected:
    fs::path managed() const { return directory_ / "etc/chromium/policies/managed"; }
    fs::path ours() const { return managed() / ChromiumPolicy::fileName; }
    ChromiumPolicy place() const { return {{"Browser", managed(), {directory_ / "program"}}, files(ours())}; }
};

TEST_F(ChromiumPolicyTest, OneFileHoldsAllCertificates)
{
    const Outcome added = place().add(authority().root());
    EXPECT_EQ(added.kind, OutcomeKind::done) << added.text;
    EXPECT_EQ(added.text, "installed (" + ours().string() + ")");
    EXPECT_EQ(place().add(other().root()).kind, OutcomeKind::done);
    EXPECT_EQ(read(ours()),
        (json{{"CACertificates", {base64(authority().rootFile()), base64(other().rootFile())}},
            {"PolicyListMultipleSourceMergeList", {"CACertificates"}}}));
    EXPECT_EQ(std::distance(fs::directory_iterator(managed()), fs::directory_iterator()), 1);
}

TEST_F(ChromiumPolicyTest, AddingAgainChangesNothing)
{
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    const auto before = fs::last_write_time(ours());
    EXPECT_EQ(place().add(authority().root()).kind, OutcomeKind::unchanged);
    EXPECT_EQ(fs::last_write_time(ours()), before);
}

TEST_F(ChromiumPolicyTest, TheLastRemovalLeavesNothing)
{
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    ASSERT_TRUE(place().add(other().root()).succeeded());
    EXPECT_EQ(place().remove(authority().root()).kind, OutcomeKind::done);
    EXPECT_EQ(read(ours())["CACertificates"], (json{base64(other().rootFile())}));
    EXPECT_EQ(read(ours())["PolicyListMultipleSourceMergeList"], (json{"CACertificates"}));
    EXPECT_EQ(place().remove(authority().root()).kind, OutcomeKind::unchanged);
    EXPECT_EQ(place().remove(other().root()).kind, OutcomeKind::done);
    expectUntouched();
    EXPECT_FALSE(fs::exists(directory_ / "etc/chromium")) << "directories that we made";
}

TEST_F(ChromiumPolicyTest, RemovingAllLeavesNothing)
{
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    ASSERT_TRUE(place().add(other().root()).succeeded());
    const Outcome removed = place().removeAll();
    EXPECT_EQ(removed.kind, OutcomeKind::done) << removed.text;
    expectUntouched();
    EXPECT_FALSE(fs::exists(directory_ / "etc/chromium")) << "directories that we made";
    EXPECT_EQ(place().removeAll().kind, OutcomeKind::unchanged);
}

TEST_F(ChromiumPolicyTest, RemovingAllFindsWhatSomebodyTookOutHalf)
{
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    writeFile(
        ours(), R"({"PolicyListMultipleSourceMergeList": ["CACertificates"], "HomepageLocation": "about:blank"})");
    EXPECT_EQ(place().removeAll().kind, OutcomeKind::done);
    EXPECT_EQ(read(ours()), (json{{"HomepageLocation", "about:blank"}})) << "somebody else's stays";
}

TEST_F(ChromiumPolicyTest, ABrowserThatIsNotThereIsLeftOut)
{
    fs::remove(directory_ / "program");
    EXPECT_EQ(place().add(authority().root()).kind, OutcomeKind::notPresent);
    EXPECT_EQ(place().remove(authority().root()).kind, OutcomeKind::notPresent);
    EXPECT_EQ(place().status().kind, PlaceStatus::Kind::notPresent);
    expectUntouched();
    fs::create_directories(managed());
    EXPECT_EQ(place().add(authority().root()).kind, OutcomeKind::done) << "an administrator waits for it";
}

TEST_F(ChromiumPolicyTest, TellsOfAnAdministratorsFileWithTheSameKey)
{
    fs::create_directories(managed());
    writeFile(managed() / "theirs.json", std::string_view("{\"CACertificates\": [\"AAAA\"]} // by hand"));
    writeFile(managed() / "broken.json", std::string_view("{"));
    const Outcome added = place().add(authority().root());
    EXPECT_EQ(added.kind, OutcomeKind::done);
    EXPECT_THAT(added.text, HasSubstr((managed() / "theirs.json").string() + " sets CACertificates too, and both"));
    EXPECT_THAT(added.text, HasSubstr((managed() / "broken.json").string() + " cannot be read"));
    EXPECT_THAT(place().add(authority().root()).text, HasSubstr("theirs.json")) << "also the second time";
}

TEST_F(ChromiumPolicyTest, TellsWhereAnAdministratorsFilesMakeItVain)
{
    fs::create_directories(managed());
    writeFile(managed() / "a.json", std::string_view("{\"CACertificates\": []}"));
    writeFile(managed() / "b.json", std::string_view("{\"PolicyListMultipleSourceMergeList\": [\"Other\"]}"));
    const Outcome added = place().add(authority().root());
    EXPECT_EQ(added.kind, OutcomeKind::failed);
    EXPECT_THAT(added.text, HasSubstr("a.json sets CACertificates too, and " + (managed() / "b.json").string()));
    writeFile(managed() / "c.json", std::string_view("{\"PolicyListMultipleSourceMergeList\": [\"*\"]}"));
    EXPECT_TRUE(place().add(authority().root()).succeeded());
}

TEST_F(ChromiumPolicyTest, AFileOfOursThatSomebodySpoiltIsLeftAndTold)
{
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    writeFile(ours(), std::string_view("{ // edited\n}"));
    for (const Outcome& outcome : {place().add(other().root()), place().remove(authority().root())}) {
        EXPECT_EQ(outcome.kind, OutcomeKind::failed);
        EXPECT_THAT(outcome.text, HasSubstr("is not strict JSON"));
    }
    EXPECT_EQ(place().status().kind, PlaceStatus::Kind::failed);
    EXPECT_EQ(kf::test::readFile(ours()).size(), 13U);
}

TEST_F(ChromiumPolicyTest, StatusTellsWhatIsThere)
{
    EXPECT_TRUE(place().status().certificates.empty());
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    const PlaceStatus status = place().status();
    ASSERT_EQ(status.certificates.size(), 1U);
    EXPECT_EQ(status.certificates[0].label, "Orvane Certification Authority");
    EXPECT_EQ(status.certificates[0].digest, kf::security::digestText(authority().root()));
}

TEST_F(ChromiumPolicyTest, WaitsForItsTurnOnlySoLong)
{
    const kf::security::FileLock lock(directory_ / "lock", std::chrono::seconds(0));
    EXPECT_THAT(place().add(authority().root()).text, HasSubstr("keeps it locked"));
    EXPECT_THAT(place().remove(authority().root()).text, HasSubstr("keeps it locked"));
    expectUntouched();
}

TEST_F(ChromiumPolicyTest, AnAdditionThatFailsLeavesNothing)
{
    fs::create_directories(managed());
    fs::create_directory(managed() / (std::string(".") + ChromiumPolicy::fileName + ".keyfold-new"));
    const Outcome added = place().add(authority().root());
    EXPECT_EQ(added.kind, OutcomeKind::failed);
    EXPECT_THAT(added.text, HasSubstr("cannot write in " + managed().string()));
    expectUntouched();
}

TEST(ChromiumPolicyTable, NamesEachBrowsersDirectory)
{
    std::vector<std::string> directories;
    for (const auto& browser : ChromiumPolicy::browsers())
        directories.push_back(browser.directory);
    EXPECT_THAT(directories,
        ElementsAre("/etc/chromium/policies/managed", "/etc/chromium-browser/policies/managed",
            "/etc/opt/chrome/policies/managed", "/etc/opt/edge/policies/managed", "/etc/brave/policies/managed"));
}

class FirefoxPolicyTest : public BrowserPolicyTest {
protected:
    FirefoxPolicyTest()
    {
        places_.files = files(policies());
        places_.certificates = directory_ / "etc/firefox/certificates";
        places_.programs = {directory_ / "program"};
        places_.module = "/usr/lib/pkcs11/p11-kit-trust.so";
    }
    fs::path policies() const { return directory_ / "etc/firefox/policies/policies.json"; }
    void setPolicies(const std::string& text) const
    {
        fs::create_directories(policies().parent_path());
        writeFile(policies(), text);
    }
    FirefoxPolicy place() const { return FirefoxPolicy(places_); }
    fs::path certificate() const
    {
        return fs::path(places_.certificates) / (kf::security::publishedName(authority().root()) + ".pem");
    }

    FirefoxPolicy::Places places_;
};

TEST_F(FirefoxPolicyTest, FollowsTheTrustStoreWhereTheModuleIsThere)
{
    const Outcome added = place().add(authority().root());
    EXPECT_EQ(added.kind, OutcomeKind::done);
    EXPECT_THAT(added.text, HasSubstr("follows the distribution's trust store"));
    EXPECT_EQ(read(policies()),
        (json{{"policies", {{"SecurityDevices", {{"Add", {{FirefoxPolicy::deviceName, places_.module}}}}}}}}));
    EXPECT_EQ(place().status().follows, "distribution's trust store");
    EXPECT_EQ(place().add(authority().root()).kind, OutcomeKind::unchanged);
    EXPECT_EQ(place().add(other().root()).kind, OutcomeKind::unchanged);

    EXPECT_EQ(place().remove(authority().root()).kind, OutcomeKind::done);
    EXPECT_EQ(place().status().follows, "distribution's trust store") << "the other one needs it";
    const Outcome removed = place().remove(other().root());
    EXPECT_EQ(removed.kind, OutcomeKind::done);
    EXPECT_THAT(removed.text, Not(HasSubstr("profiles")));
    expectUntouched();
    EXPECT_FALSE(fs::exists(directory_ / "etc/firefox"));
    EXPECT_EQ(place().remove(other().root()).kind, OutcomeKind::unchanged);
}

TEST_F(FirefoxPolicyTest, TakesTheFormOfThePolicyThatIsThere)
{
    const std::string oldForm = "{\"policies\":{\"SecurityDevices\":{\"Card\":\"/card.so\"}}}";
    setPolicies(oldForm);
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    EXPECT_EQ(read(policies())["policies"]["SecurityDevices"],
        (json{{"Card", "/card.so"}, {FirefoxPolicy::deviceName, places_.module}}));
    ASSERT_TRUE(place().remove(authority().root()).succeeded());
    EXPECT_EQ(read(policies()), json::parse(oldForm));

    const std::string newForm = "{\"policies\":{\"SecurityDevices\":{\"Delete\":[\"Card\"]}}}";
    setPolicies(newForm);
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    EXPECT_EQ(
        read(policies())["policies"]["SecurityDevices"]["Add"], (json{{FirefoxPolicy::deviceName, places_.module}}));
    ASSERT_TRUE(place().remove(authority().root()).succeeded());
    EXPECT_EQ(read(policies()), json::parse(newForm));
}

TEST_F(FirefoxPolicyTest, AnAdministratorsOwnEntryForTheModuleStays)
{
    const std::string theirs = "{\"policies\":{\"SecurityDevices\":{\"Add\":{\"p11\":\"/opt/p11-kit-trust.so\"}}}}";
    setPolicies(theirs);
    EXPECT_EQ(place().add(authority().root()).kind, OutcomeKind::unchanged);
    EXPECT_EQ(read(policies()), json::parse(theirs));
    EXPECT_TRUE(place().remove(authority().root()).succeeded());
    EXPECT_EQ(read(policies()), json::parse(theirs));
    EXPECT_FALSE(fs::exists(directory_ / "state"));
}

TEST_F(FirefoxPolicyTest, InstallsTheCertificateWhereTheModuleIsNotThere)
{
    places_.module.clear();
    ASSERT_EQ(place().add(authority().root()).kind, OutcomeKind::done);
    EXPECT_EQ(read(policies()), (json{{"policies", {{"Certificates", {{"Install", {certificate()}}}}}}}));
    EXPECT_EQ(kf::security::readCertificateFile(certificate()).der, authority().root());
    ASSERT_EQ(place().status().certificates.size(), 1U);
    EXPECT_EQ(place().status().certificates[0].digest, kf::security::digestText(authority().root()));

    const Outcome removed = place().remove(authority().root());
    EXPECT_EQ(removed.kind, OutcomeKind::done);
    EXPECT_THAT(removed.text, HasSubstr("profiles that have started with it may keep it"));
    expectUntouched();
    EXPECT_FALSE(fs::exists(directory_ / "etc/firefox"));
}

TEST_F(FirefoxPolicyTest, TakesBackWhatWasPublishedTheOtherWay)
{
    setPolicies("{}");
    const std::string module = std::exchange(places_.module, {});
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    places_.module = module;
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    ASSERT_TRUE(place().add(other().root()).succeeded());
    places_.module.clear();
    EXPECT_THAT(place().remove(authority().root()).text, HasSubstr("profiles"));
    EXPECT_TRUE(place().remove(other().root()).succeeded());
    EXPECT_EQ(read(policies()), json::object());
    expectUntouched(1);
}

TEST_F(FirefoxPolicyTest, RemovingAllLeavesWhatOthersMade)
{
    const std::string theirs =
        R"({"policies": {"Certificates": {"Install": ["/etc/firefox/certificates/theirs.pem"]}}})";
    setPolicies(theirs);
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    places_.module.clear();
    ASSERT_TRUE(place().add(other().root()).succeeded());
    ASSERT_TRUE(fs::exists(places_.certificates));
    const Outcome removed = place().removeAll();
    EXPECT_EQ(removed.kind, OutcomeKind::done) << removed.text;
    EXPECT_THAT(removed.text, HasSubstr("profiles that have started with it may keep it"));
    EXPECT_EQ(read(policies()), json::parse(theirs));
    expectUntouched(1);
    EXPECT_FALSE(fs::exists(places_.certificates)) << "a directory that we made";
    EXPECT_EQ(place().removeAll().kind, OutcomeKind::unchanged);
}

TEST_F(FirefoxPolicyTest, RemovingAllFindsAFileWithoutItsEntry)
{
    places_.module.clear();
    ASSERT_TRUE(place().add(authority().root()).succeeded());
    setPolicies("{}");
    ASSERT_TRUE(fs::exists(certificate()));
    EXPECT_TRUE(place().removeAll().succeeded());
    EXPECT_FALSE(fs::exists(certificate()));
}

TEST_F(FirefoxPolicyTest, LeavesAndTellsWhatIsNotStrictJSON)
{
    setPolicies("{ // comment\n}");
    const Outcome added = place().add(authority().root());
    EXPECT_EQ(added.kind, OutcomeKind::failed);
    EXPECT_THAT(added.text, HasSubstr("is not strict JSON"));
    EXPECT_THAT(place().removeAll().text, HasSubstr("is not strict JSON"));
    expectUntouched(1);
}

} // namespace
