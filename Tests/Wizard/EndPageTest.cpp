// The end: what the stores themselves say was installed.

#include "Tests/Wizard/WalkFixture.h"
#include "keyfold/EndPane.h"

#include <gmock/gmock.h>

namespace {

using namespace kf::test;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class EndPage : public Walk {
protected:
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
    /// A profile as Firefox and Thunderbird make it, below HOME.
    std::string makeProfile(const char* folder = ".mozilla/firefox", const std::string& passphrase = {})
    {
        const auto root = home_.path() / folder;
        std::filesystem::create_directories(root / "abc.default");
        writeFile(
            root / "profiles.ini", "[General]\nVersion=2\n[Profile0]\nName=default\nIsRelative=1\nPath=abc.default\n");
        const std::string database = "sql:" + (root / "abc.default").string();
        const auto file = home_.path() / "passphrase";
        writeFile(file, passphrase + "\n");
        mustRun({"certutil", "-N", "-f", file.string(), "-d", database});
        return database;
    }
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

TEST_F(EndPage, NamesTheAuthoritysFileOnALineOfItsOwn)
{
    install();
    goToEnd();
    EXPECT_THAT(report("notUsedByReport"), HasSubstr("\n" KEYFOLD_BUNDLE "/Contents/Resources/orvane_ca.der\n"));
}

TEST_F(EndPage, TellsAThunderbirdThatDoesNotTrustTheAuthority)
{
    const std::string profile = makeProfile(".thunderbird");
    install();
    goToEnd();
    EXPECT_THAT(report("notUsedByReport"),
        HasSubstr("Thunderbird does not trust the authority’s servers: import the authority there, in the settings "
                  "under Certificates, Authorities."));
}

TEST_F(EndPage, TellsAThunderbirdThatTrustsTheAuthority)
{
    const std::string profile = makeProfile(".thunderbird");
    const std::string authority = KEYFOLD_BUNDLE "/Contents/Resources/orvane_ca.der";
    mustRun({"certutil", "-A", "-n", "authority", "-t", "C,C,", "-i", authority, "-d", profile});
    install();
    goToEnd();
    EXPECT_THAT(report("usedByReport"), HasSubstr("Thunderbird trusts the authority’s servers"));
    EXPECT_THAT(report("notUsedByReport"), Not(HasSubstr("Thunderbird does not trust")));
}

TEST_F(EndPage, DoesNotAskForThunderbirdsPassPhrase)
{
    makeProfile(".thunderbird", "a pass phrase");
    install();
    const WhenDialogOpens watch("passphraseBox", [](QWidget* box) { box->close(); });
    goToEnd();
    EXPECT_EQ(watch.seen(), 0);
    EXPECT_THAT(report("notUsedByReport"), HasSubstr("could not be found out whether Thunderbird trusts"));
}

class Policies : public testing::Test {
protected:
    std::optional<std::vector<kf::BrowserPolicy>> answerOf(const std::string& script)
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
   "fromAnotherSource": false},
  {"place": "Brave", "state": "not readable", "published": false, "fromAnotherSource": false}]}
JSON
exit 1)");
    ASSERT_TRUE(policies);
    ASSERT_EQ(policies->size(), 3);
    EXPECT_EQ(policies->at(0).browser, QStringLiteral("Chromium"));
    EXPECT_EQ(policies->at(0).trustsAuthority, false);
    EXPECT_EQ(policies->at(1).browser, QStringLiteral("Firefox"));
    EXPECT_EQ(policies->at(1).trustsAuthority, true);
    EXPECT_EQ(policies->at(2).browser, QStringLiteral("Brave"));
    EXPECT_EQ(policies->at(2).trustsAuthority, std::nullopt);
}

TEST_F(Policies, AToolThatIsMissingOrTalksNonsenseTellsNothing)
{
    EXPECT_FALSE(kf::browserPolicies(QStringLiteral("/nonexistent"), "/some/authority.der"));
    EXPECT_FALSE(answerOf("echo nonsense\n"));
    EXPECT_FALSE(answerOf("kill -9 $$\n"));
    const auto noBrowsers = answerOf("echo '{\"places\": []}'\n");
    ASSERT_TRUE(noBrowsers);
    EXPECT_TRUE(noBrowsers->empty());
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
    findings.authorityFile = "/lib/ca.der";
    findings.policies = {{{QStringLiteral("Chromium"), true}, {QStringLiteral("Firefox"), true}}};
    findings.programs = {{QStringLiteral("Firefox"), {errSecSuccess, true, false, false}, false}};
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
    findings.policies = {{{QStringLiteral("Chromium"), false}, {QStringLiteral("Firefox"), false}}};
    EXPECT_THAT(kf::makeReport(findings).notUsedBy,
        ElementsAre(QStringLiteral("curl, wget and other programs that follow the system’s trust store do not trust "
                                   "the authority’s servers: an administrator has to run this program."),
            QStringLiteral("Chromium does not trust the authority’s servers: import the authority there, in the "
                           "settings under Privacy and security, Security, Manage certificates."),
            QStringLiteral("Firefox does not trust the authority’s servers: import the authority there, in the "
                           "settings under Certificates, Authorities."),
            QStringLiteral("The authority is imported from this file:\n/lib/ca.der")));
}

TEST(Report, OneBrowsersPolicySaysNothingOfAnother)
{
    kf::Findings findings = everywhere();
    findings.state.authorityForUser.trusted = false;
    findings.policies = {{{QStringLiteral("Chromium"), false}, {QStringLiteral("Brave"), true}}};
    const kf::Report report = kf::makeReport(findings);
    const std::string used = report.usedBy.join(u'\n').toStdString();
    EXPECT_THAT(used, HasSubstr("Brave trusts the authority’s servers"));
    EXPECT_THAT(used, Not(HasSubstr("made from it trust")));
    EXPECT_THAT(report.notUsedBy.join(u'\n').toStdString(), HasSubstr("Chromium does not trust the authority"));
}

TEST(Report, SaysWhatCouldNotBeFoundOut)
{
    kf::Findings findings = everywhere();
    findings.state.authorityForUser.trusted = false;
    findings.policies = std::nullopt;
    EXPECT_THAT(kf::makeReport(findings).notUsedBy,
        ElementsAre(QStringLiteral("It could not be found out whether Chromium trusts the authority’s servers. If it "
                                   "warns you of them, import the authority there, in the settings under Privacy and "
                                   "security, Security, Manage certificates."),
            QStringLiteral("It could not be found out whether Firefox trusts the authority’s servers. If it warns you "
                           "of them, import the authority there, in the settings under Certificates, Authorities."),
            QStringLiteral("The authority is imported from this file:\n/lib/ca.der")));
    findings.policies = {{{QStringLiteral("Brave"), std::nullopt}}};
    EXPECT_THAT(kf::makeReport(findings).notUsedBy.join(u'\n').toStdString(),
        HasSubstr("It could not be found out whether Brave trusts"));
}

TEST(Report, TheKeychainSpeaksForChromiumWhateverItsPolicy)
{
    kf::Findings findings = everywhere();
    findings.policies = {{{QStringLiteral("Chromium"), false}}};
    const kf::Report report = kf::makeReport(findings);
    EXPECT_TRUE(report.usedBy.join(u'\n').contains(u"Chromium and the browsers made from it trust"));
    EXPECT_TRUE(report.notUsedBy.isEmpty()) << report.notUsedBy.join(u'\n').toStdString();
}

TEST(Report, DoesNotSpeakOfABrowserThatIsNotThere)
{
    kf::Findings findings = everywhere();
    findings.policies = {{{QStringLiteral("Firefox"), true}}};
    for (const bool forUser : {true, false}) {
        findings.state.authorityForUser.trusted = forUser;
        const kf::Report report = kf::makeReport(findings);
        EXPECT_FALSE((report.usedBy + report.notUsedBy).join(u'\n').contains(u"Chromium"));
    }
}

TEST(Report, AFirefoxThatTrustsByItselfNeedsNoPolicy)
{
    kf::Findings findings = everywhere();
    findings.policies = {{{QStringLiteral("Firefox"), false}}};
    findings.programs[0].trustsAuthority = true;
    const kf::Report report = kf::makeReport(findings);
    EXPECT_TRUE(report.usedBy.join(u'\n').contains(u"Firefox trusts the authority’s servers"));
    EXPECT_TRUE(report.notUsedBy.isEmpty()) << report.notUsedBy.join(u'\n').toStdString();
}

} // namespace
