// The end: what the stores themselves say was installed.

#include "Security/Trust/DistributionStore.h"
#include "Tests/Wizard/WalkFixture.h"
#include "keyfold/EndPane.h"

#include <gmock/gmock.h>

namespace {

using namespace kf::test;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// Of a machine where nobody has published anything.
class EmptyStore final : public kf::trust::DistributionStore {
public:
    std::vector<kf::Bytes> certificatesWithSubject(std::span<const std::uint8_t>) const override { return {}; }
    std::vector<kf::Bytes> certificates() const override { return {}; }
};

class EndPage : public Walk {
protected:
    EndPage() : storeBefore_(kf::trust::setDistributionStore(std::make_shared<EmptyStore>())) { }
    ~EndPage() override { kf::trust::setDistributionStore(storeBefore_); }

    void install()
    {
        open();
        signIn(bundle());
        press("nextButton");
        ASSERT_EQ(state("personalStatus"), 1);
    }
    void goToEnd()
    {
        press("nextButton");
        EXPECT_EQ(label("titleLabel"), "What Was Installed");
    }
    /// A profile as Firefox makes it, below HOME.
    std::string makeProfile()
    {
        const auto root = home_.path() / ".mozilla/firefox";
        std::filesystem::create_directories(root / "abc.default");
        writeFile(
            root / "profiles.ini", "[General]\nVersion=2\n[Profile0]\nName=default\nIsRelative=1\nPath=abc.default\n");
        const std::string database = "sql:" + (root / "abc.default").string();
        mustRun({"certutil", "-N", "--empty-password", "-d", database});
        return database;
    }

    std::shared_ptr<const kf::trust::DistributionStore> storeBefore_;
};

TEST_F(EndPage, TellsWhatWasInstalledAndWhere)
{
    install();
    goToEnd();
    EXPECT_EQ(report("personalReport"),
        "Your certificate “Ada Example” and its private key are in your keychain:\n" + home_.defaultKeychain().string()
            + "\n");
    EXPECT_THAT(report("authorityReport"), HasSubstr("“Orvane Certification Authority” is trusted for you alone"));
    EXPECT_THAT(report("usedByReport"),
        AllOf(HasSubstr("Chromium and the browsers made from it sign you in"),
            HasSubstr("Chromium and the browsers made from it trust")));
    EXPECT_THAT(report("notUsedByReport"), AllOf(HasSubstr("curl, wget"), HasSubstr("Firefox and Thunderbird")));
    EXPECT_FALSE(button("previousButton")->isEnabled());
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Close"));
}

TEST_F(EndPage, BelievesTheStoresAndNotThePage)
{
    install();
    mustRun({"certutil", "-F", "-n", "Ada Example", "-d", keychain()});
    goToEnd();
    EXPECT_THAT(report("personalReport"), HasSubstr("is not in your keychain"));
    EXPECT_THAT(report("usedByReport"), Not(HasSubstr("sign you in")));
}

TEST_F(EndPage, TellsAKeychainThatCannotBeReadAnyMore)
{
    install();
    kf::keychain::closeAll();
    writeFile(home_.defaultKeychain() / "cert9.db", std::string_view());
    goToEnd();
    EXPECT_THAT(report("personalReport"), HasSubstr("could not be read: A file of the keychain is empty."));
}

TEST_F(EndPage, TellsAFirefoxProfileThatLacksTheCertificate)
{
    makeProfile();
    install();
    goToEnd();
    EXPECT_THAT(report("notUsedByReport"),
        AllOf(HasSubstr("Firefox does not have your certificate"), Not(HasSubstr("Firefox and Thunderbird"))));
}

TEST_F(EndPage, TellsAFirefoxProfileThatHasTheCertificate)
{
    const std::string profile = makeProfile();
    mustRun({"certutil", "-A", "-n", "mine", "-t", ",,", "-i", bundle().certFile, "-d", profile});
    install();
    goToEnd();
    EXPECT_THAT(report("usedByReport"), HasSubstr("Firefox has your certificate"));
}

class Policies : public testing::Test {
protected:
    std::vector<kf::BrowserPolicy> answerOf(const std::string& script)
    {
        writeFile(tool_, "#!/bin/sh\n" + script);
        std::filesystem::permissions(tool_, std::filesystem::perms::owner_all);
        return kf::browserPolicies(QString::fromStdString(tool_.string()), "/some/authority.der");
    }
    ScratchHome home_;
    std::filesystem::path tool_ = home_.path() / "security";
};

TEST_F(Policies, AreWhatTheToolTells)
{
    const auto policies = answerOf(R"([ "$*" = "trust-status --json /some/authority.der" ] || exit 2
cat <<'JSON'
{"places": [
  {"place": "System keychain", "state": "readable", "published": true, "fromAnotherSource": false},
  {"place": "distribution's trust store", "state": "readable", "published": true, "fromAnotherSource": false},
  {"place": "Chromium", "state": "readable", "published": false, "fromAnotherSource": false},
  {"place": "Chrome", "state": "not present", "published": false, "fromAnotherSource": false},
  {"place": "Firefox", "state": "readable", "follows": "distribution's trust store", "published": false,
   "fromAnotherSource": false}]}
JSON)");
    ASSERT_EQ(policies.size(), 2);
    EXPECT_EQ(policies[0].browser, QStringLiteral("Chromium"));
    EXPECT_FALSE(policies[0].trustsAuthority);
    EXPECT_EQ(policies[1].browser, QStringLiteral("Firefox"));
    EXPECT_TRUE(policies[1].trustsAuthority);
}

TEST_F(Policies, AToolThatIsMissingOrTalksNonsenseTellsNothing)
{
    EXPECT_TRUE(kf::browserPolicies(QStringLiteral("/nonexistent"), "/some/authority.der").empty());
    EXPECT_TRUE(answerOf("echo nonsense\n").empty());
    EXPECT_TRUE(answerOf("kill -9 $$\n").empty());
}

kf::Findings everywhere()
{
    kf::Findings findings;
    findings.personalName = "Ada";
    findings.authorityName = "CA";
    findings.state.defaultKeychain = "/home/ada/.pki/nssdb";
    findings.state.personal = {errSecSuccess, true, true, false};
    findings.state.authorityForUser = {errSecSuccess, true, false, true};
    findings.state.authorityForAll = {errSecSuccess, true, false, true};
    findings.state.authorityInDistributionStore = true;
    findings.policies = {{QStringLiteral("Chromium"), true}, {QStringLiteral("Firefox"), true}};
    findings.programs = {{QStringLiteral("Firefox"), {errSecSuccess, true, false, false}}};
    return findings;
}

TEST(Report, LeavesNothingToDoWhereEverythingIsThere)
{
    const kf::Report report = kf::makeReport(everywhere());
    EXPECT_TRUE(report.notUsedBy.isEmpty()) << report.notUsedBy.join(u'\n').toStdString();
    EXPECT_EQ(report.usedBy.size(), 5);
    EXPECT_THAT(report.authority.join(u'\n').toStdString(), HasSubstr("trusted for everybody on this computer"));
}

TEST(Report, TellsAKeyThatIsMissing)
{
    kf::Findings findings = everywhere();
    findings.state.personal.privateKey = false;
    const kf::Report report = kf::makeReport(findings);
    EXPECT_THAT(report.personal.join(u'\n').toStdString(), HasSubstr("but its private key is not"));
    EXPECT_FALSE(report.usedBy.join(u'\n').contains(u"sign you in"));
}

TEST(Report, TellsAnAuthorityThatNothingTrusts)
{
    kf::Findings findings = everywhere();
    findings.state.authorityForUser.trusted = findings.state.authorityForAll.trusted = false;
    EXPECT_THAT(
        kf::makeReport(findings).authority.join(u'\n').toStdString(), HasSubstr("nothing says that it is trusted"));
    findings.state.authorityForUser = findings.state.authorityForAll = {};
    EXPECT_THAT(kf::makeReport(findings).authority.join(u'\n').toStdString(), HasSubstr("is in no keychain"));
}

TEST(Report, TellsWhatToDoForBrowsersThatDoNotTrustTheAuthority)
{
    kf::Findings findings = everywhere();
    findings.state.authorityForUser.trusted = false;
    findings.state.authorityInDistributionStore = false;
    for (kf::BrowserPolicy& policy : findings.policies)
        policy.trustsAuthority = false;
    const std::string left = kf::makeReport(findings).notUsedBy.join(u'\n').toStdString();
    EXPECT_THAT(left,
        AllOf(HasSubstr("Chromium does not know the authority"), HasSubstr("Firefox does not trust the authority"),
            HasSubstr("curl, wget")));
}

} // namespace
