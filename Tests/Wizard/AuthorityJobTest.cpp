// What the first job shows, logs and leaves behind, row by row.

#include "Keychain/KFUtilities.h"
#include "Security/Keychain/KeychainAccess.h"
#include "Security/Trust/DistributionStore.h"
#include "Tests/Support/ScratchHome.h"
#include "Tests/Wizard/JobCalls.h"
#include "Tests/Wizard/PaneFixture.h"

#include <sys/wait.h>

namespace {

using namespace kf::test;
using kf::authorization::ToolCommand;
using kf::keychain::Operation;
using testing::ElementsAre;

class AuthorityJob : public PaneTest {
protected:
    void addToSystemKeychain(const SecCertificateRef& what)
    {
        EXPECT_EQ(SecCertificateAddToKeychain(what, systemKeychain()), errSecSuccess);
    }
    void expect(NSInteger state, const std::string& message, bool isError)
    {
        EXPECT_EQ(pane_->authorityStatus()->state(), state);
        EXPECT_THAT(shown_, ElementsAre(Shown{"caMessages", message, isError, state, 0}));
        EXPECT_EQ(pane_->caMessages()->text().toStdString(), message);
    }

    SecCertificateRef authority_ = certificate(shippedAuthority());
    LogLines log_;
    ScopedJobCalls calls_;
};

/// The distribution trusts exactly one authority.
class OneAuthorityStore final : public kf::trust::DistributionStore {
public:
    explicit OneAuthorityStore(Bytes der) : der_(std::move(der)) { }
    std::vector<kf::Bytes> certificatesWithSubject(std::span<const std::uint8_t>) const override { return {der_}; }
    std::vector<kf::Bytes> certificates() const override { return {der_}; }

private:
    Bytes der_;
};

TEST_F(AuthorityJob, LeavesAnAuthorityAloneThatIsTrusted)
{
    ASSERT_EQ(SecTrustSettingsSetTrustSettings(authority_, kSecTrustSettingsDomainUser, nullptr), errSecSuccess);
    faults_->disarm(); // counts from here
    runAuthorityJob();
    expect(1, "Certificate authority is valid", false);
    EXPECT_THAT(log_.lines(), ElementsAre("Found 1 certificates"));
    EXPECT_TRUE(authorization_.asked().empty());
    EXPECT_TRUE(authorization_.executed().empty());
    EXPECT_EQ(faults_->calls(Operation::beginWriting), 0);
}

TEST_F(AuthorityJob, WritesUserTrustForAnAuthorityWithoutASetting)
{
    ASSERT_EQ(SecCertificateAddToKeychain(authority_, defaultKeychain()), errSecSuccess);
    runAuthorityJob();
    expect(1, "Certificate authority is valid", false);
    EXPECT_THAT(log_.lines(), ElementsAre("Found 1 certificates", text(errSecSuccess)));
    EXPECT_TRUE(authorization_.asked().empty());
    EXPECT_EQ(userTrust(authority_), errSecSuccess);
    EXPECT_EQ(userTrust(authority_, kSecTrustSettingsDomainAdmin), errSecItemNotFound);
}

TEST_F(AuthorityJob, TheDistributionsTrustAloneIsNotEnough)
{
    ASSERT_EQ(SecCertificateAddToKeychain(authority_, defaultKeychain()), errSecSuccess);
    const auto before = kf::trust::setDistributionStore(std::make_shared<OneAuthorityStore>(shippedAuthority()));
    SecTrustRef trust;
    SecTrustResultType result = kSecTrustResultInvalid;
    ASSERT_EQ(SecTrustCreateWithCertificates(authority_, KFSecPolicyCreateBasicX509(), &trust), errSecSuccess);
    ASSERT_EQ(SecTrustEvaluate(trust, &result), errSecSuccess);
    EXPECT_EQ(result, kSecTrustResultUnspecified);
    runAuthorityJob();
    kf::trust::setDistributionStore(before);
    expect(1, "Certificate authority is valid", false);
    EXPECT_THAT(log_.lines(), ElementsAre("Found 1 certificates", text(errSecSuccess)));
    EXPECT_EQ(userTrust(authority_), errSecSuccess);
}

TEST_F(AuthorityJob, CountsTheSameAuthorityInTwoKeychainsTwice)
{
    ASSERT_EQ(SecCertificateAddToKeychain(authority_, defaultKeychain()), errSecSuccess);
    memory_->create("/Library/Keychains/System.keychain");
    addToSystemKeychain(authority_);
    runAuthorityJob();
    EXPECT_THAT(log_.lines(), ElementsAre("Found 2 certificates", text(errSecSuccess)));
}

TEST_F(AuthorityJob, AnEvaluationThatFailsCountsAsNotTrusted)
{
    ASSERT_EQ(SecCertificateAddToKeychain(authority_, defaultKeychain()), errSecSuccess);
    calls_.evaluateTrust = [](SecTrustResultType*) { return errSecInternalComponent; };
    runAuthorityJob();
    expect(1, "Certificate authority is valid", false);
    EXPECT_THAT(log_.lines(), ElementsAre("Found 1 certificates", text(errSecSuccess)));
    EXPECT_EQ(userTrust(authority_), errSecSuccess);
}

TEST_F(AuthorityJob, EvaluatesAllThatWereFoundBySomePolicy)
{
    ASSERT_EQ(SecCertificateAddToKeychain(authority_, defaultKeychain()), errSecSuccess);
    memory_->create("/Library/Keychains/System.keychain");
    addToSystemKeychain(certificate(institution().root()));
    std::vector<NSUInteger> counts;
    calls_.createTrust = [&](const Ref<NSObject>& certificates, const Ref<NSObject>& policies) {
        counts.push_back(countOf(refCast<NSArray>(certificates)));
        EXPECT_NE(refCast<SecPolicy>(policies), nullptr);
        return std::nullopt;
    };
    SecTrustResultType preset = kSecTrustResultInvalid;
    calls_.evaluateTrust = [&](SecTrustResultType* result) {
        preset = *result;
        return std::nullopt;
    };
    runAuthorityJob();
    EXPECT_THAT(counts, ElementsAre(2U));
    EXPECT_EQ(preset, kSecTrustResultDeny);
    expect(1, "Certificate authority is valid", false);
}

TEST_F(AuthorityJob, WritesTrustForTheFirstOfTheFound)
{
    const SecCertificateRef other = certificate(institution().root());
    ASSERT_EQ(SecCertificateAddToKeychain(other, defaultKeychain()), errSecSuccess);
    memory_->create("/Library/Keychains/System.keychain");
    addToSystemKeychain(authority_);
    runAuthorityJob();
    EXPECT_THAT(log_.lines(), ElementsAre("Found 2 certificates", text(errSecSuccess)));
    EXPECT_EQ(userTrust(other), errSecSuccess);
    EXPECT_EQ(userTrust(authority_), errSecItemNotFound);
}

TEST_F(AuthorityJob, FallsBackToTheDefaultKeychainWithoutRights)
{
    authorization_.refuse(errAuthorizationCanceled);
    runAuthorityJob();
    expect(1, "Certificate authority is valid", false);
    EXPECT_THAT(log_.lines(),
        ElementsAre("Authorization failure: The user canceled the operation (-60006)", "Found 1 certificates",
            text(errSecSuccess)));
    ASSERT_EQ(authorization_.asked().size(), 1U);
    EXPECT_EQ(authorization_.asked()[0].right, "system.privilege.admin");
    EXPECT_EQ(authorization_.asked()[0].flags, 19U);
    EXPECT_TRUE(authorization_.executed().empty());
    EXPECT_EQ(certificates(), 1U);
    EXPECT_EQ(userTrust(authority_), errSecSuccess);
}

TEST_F(AuthorityJob, FailsInRedWhereTheFallbackAddsNothing)
{
    authorization_.refuse(errAuthorizationDenied);
    faults_->arm(Operation::addCertificate, 1, errSecIO, true);
    runAuthorityJob();
    EXPECT_TRUE(faults_->fired());
    expect(0, "Failed to install the certificate authority", true);
    ASSERT_EQ(log_.lines().size(), 1U);
    EXPECT_THAT(log_.lines()[0], testing::StartsWith("Authorization failure: "));
    EXPECT_EQ(certificates(), 0U);
}

TEST_F(AuthorityJob, RunsTheToolWithItsArgumentsInOrderAndTrustsInTheAdminDomain)
{
    authorization_.setAdministrator(true);
    memory_->create("/Library/Keychains/System.keychain");
    authorization_.setTool([this](const ToolCommand&) {
        addToSystemKeychain(authority_);
        return 0;
    });
    runAuthorityJob();
    expect(1, "Certificate authority is valid", false);
    EXPECT_THAT(log_.lines(), ElementsAre("Found 1 certificates", text(errSecSuccess)));
    ASSERT_EQ(authorization_.executed().size(), 1U);
    const ToolCommand& tool = authorization_.executed()[0];
    EXPECT_EQ(tool.path, "/usr/bin/security");
    ASSERT_EQ(tool.arguments.size(), 7U);
    EXPECT_THAT(std::vector<std::string>(tool.arguments.begin(), tool.arguments.end() - 1),
        ElementsAre("add-trusted-cert", "-k", "/Library/Keychains/System.keychain", "-d", "-r", "trustRoot"));
    EXPECT_EQ(readFile(tool.arguments[6]), shippedAuthority());
    EXPECT_EQ(userTrust(authority_, kSecTrustSettingsDomainAdmin), errSecSuccess);
    EXPECT_EQ(userTrust(authority_), errSecItemNotFound);
    EXPECT_EQ(certificates(), 0U);
}

TEST_F(AuthorityJob, WritesNoTrustThatTheToolHasWritten)
{
    authorization_.setAdministrator(true);
    memory_->create("/Library/Keychains/System.keychain");
    authorization_.setTool([this](const ToolCommand&) {
        return SecTrustSettingsSetTrustSettings(authority_, kSecTrustSettingsDomainAdmin, nullptr) == errSecSuccess ? 0
                                                                                                                    : 1;
    });
    runAuthorityJob();
    expect(1, "Certificate authority is valid", false);
    EXPECT_THAT(log_.lines(), ElementsAre("Found 1 certificates"));
}

TEST_F(AuthorityJob, AToolThatCannotBeStartedEndsTheJob)
{
    authorization_.failToLaunch(errAuthorizationToolExecuteFailure);
    runAuthorityJob();
    expect(0, "Failed to install the certificate authority:\nThe tool failed to execute (-60031)", true);
    const Ref<NSError> error = NSError::errorWithDomain(NSOSStatusErrorDomain, errAuthorizationToolExecuteFailure,
        NSDictionary::dictionaryWithObjectsAndKeys(
            {{"The tool failed to execute (-60031)"_ns, NSLocalizedDescriptionKey}}));
    EXPECT_THAT(log_.lines(), ElementsAre("Root install error: " + toUTF8(error->description())));
    EXPECT_EQ(certificates(), 0U);
}

TEST_F(AuthorityJob, TheFailureIsShownBeforeItIsLogged)
{
    authorization_.failToLaunch(errAuthorizationToolExecuteFailure);
    NSInteger state = 7;
    std::vector<Shown> shownBefore;
    const NSLogObserver observer([&](const std::string& line) {
        if (!line.starts_with("Root install error: "))
            return;
        state = pane_->authorityStatus()->state();
        shownBefore = shown_;
    });
    runAuthorityJob();
    EXPECT_EQ(state, 0);
    EXPECT_THAT(shownBefore,
        ElementsAre(Shown{"caMessages",
            "Failed to install the certificate authority:\nThe tool failed to execute (-60031)", true, 0, 0}));
}

/// Runs a shell script in the place of every tool.
class ScriptBackend final : public kf::authorization::Backend {
public:
    ScriptBackend(std::string script, std::string argument) : script_(std::move(script)), argument_(std::move(argument))
    {
    }
    kf::Status obtainRight(const std::string&, AuthorizationFlags) override { return {}; }
    kf::Result<pid_t> execute(const ToolCommand&, std::FILE** pipe) override
    {
        return direct_.execute({"/bin/sh", {"-c", script_, argument_}}, pipe);
    }
    bool isAdministrator() const noexcept override { return false; }

private:
    kf::authorization::DirectBackend direct_;
    std::string script_;
    std::string argument_;
};

TEST_F(AuthorityJob, WaitsForTheToolToEnd)
{
    const ScratchHome home;
    const auto ended = home.path() / "ended";
    const auto before =
        kf::authorization::setBackend(std::make_shared<ScriptBackend>("sleep 0.5; : >\"$0\"", ended.string()));
    runAuthorityJob();
    kf::authorization::setBackend(before);
    EXPECT_TRUE(std::filesystem::exists(ended));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1); // nobody is left to wait for
}

TEST_F(AuthorityJob, AToolThatFailsIsTakenAsDone)
{
    authorization_.setTool([](const ToolCommand&) { return 1; });
    runAuthorityJob();
    expect(0, "Failed to install the certificate authority", true);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(AuthorityJob, WhatAFailingToolLeftBehindIsTrustedInTheAdminDomain)
{
    authorization_.setAdministrator(true);
    memory_->create("/Library/Keychains/System.keychain");
    authorization_.setTool([this](const ToolCommand&) {
        addToSystemKeychain(authority_);
        return 7;
    });
    runAuthorityJob();
    expect(1, "Certificate authority is valid", false);
    EXPECT_EQ(userTrust(authority_, kSecTrustSettingsDomainAdmin), errSecSuccess);
}

TEST_F(AuthorityJob, TheAdminDomainIsWrittenThroughTheToolAsWell)
{
    memory_->create("/Library/Keychains/System.keychain");
    authorization_.setTool([this](const ToolCommand&) {
        if (authorization_.executed().size() == 1)
            addToSystemKeychain(authority_);
        else
            EXPECT_TRUE(kf::keychain::writeTrust(systemKeychain(), shippedAuthority(),
                {.server = kf::keychain::TrustLevel::trusted, .email = kf::keychain::TrustLevel::trusted}));
        return 1;
    });
    runAuthorityJob();
    expect(1, "Certificate authority is valid", false);
    EXPECT_EQ(authorization_.executed().size(), 2U);
    EXPECT_EQ(userTrust(authority_, kSecTrustSettingsDomainAdmin), errSecSuccess);
    EXPECT_EQ(userTrust(authority_), errSecItemNotFound);
}

TEST_F(AuthorityJob, TheAdminDomainIsRefusedWhereTheRightIsGone)
{
    memory_->create("/Library/Keychains/System.keychain");
    authorization_.setTool([this](const ToolCommand&) {
        addToSystemKeychain(authority_);
        authorization_.refuse(errAuthorizationInteractionNotAllowed);
        return 1;
    });
    runAuthorityJob();
    expect(0, "Failed to install the certificate authority:\n" + text(errAuthorizationDenied), true);
    EXPECT_THAT(log_.lines(), ElementsAre("Found 1 certificates", text(errAuthorizationDenied)));
    EXPECT_EQ(authorization_.executed().size(), 1U);
    EXPECT_EQ(userTrust(authority_), errSecItemNotFound);
}

TEST_F(AuthorityJob, TellsWhyTrustCouldNotBeWritten)
{
    ASSERT_EQ(SecCertificateAddToKeychain(authority_, defaultKeychain()), errSecSuccess);
    faults_->arm(Operation::setTrust, 1, errSecIO);
    runAuthorityJob();
    EXPECT_TRUE(faults_->fired());
    expect(0, "Failed to install the certificate authority:\n" + text(errSecIO), true);
    EXPECT_THAT(log_.lines(), ElementsAre("Found 1 certificates", text(errSecIO)));
    EXPECT_EQ(userTrust(authority_), errSecItemNotFound);
    faults_->disarm();
    runAuthorityJob();
    EXPECT_EQ(pane_->authorityStatus()->state(), 1);
}

TEST_F(AuthorityJob, AnExceptionIsAFailureInRed)
{
    ASSERT_EQ(SecCertificateAddToKeychain(authority_, defaultKeychain()), errSecSuccess);
    {
        const NSLogObserver breaking([](const std::string& line) {
            if (line.starts_with("Found "))
                throw std::bad_alloc();
        });
        runAuthorityJob();
    }
    expect(0, "Failed to install the certificate authority", true);
    EXPECT_EQ(userTrust(authority_), errSecItemNotFound);
}

TEST_F(AuthorityJob, IsGrayWhileItWorks)
{
    pane_->authorityStatus()->setState(1);
    NSInteger seen = 7;
    authorization_.setTool([&](const ToolCommand&) {
        seen = pane_->authorityStatus()->state();
        return 0;
    });
    runAuthorityJob();
    EXPECT_EQ(seen, -1);
}

TEST_F(AuthorityJob, AuthorizeGivesTheErrorWhereThereIsASlot)
{
    authorization_.refuse(errAuthorizationDenied);
    Ref<NSError> error;
    EXPECT_EQ(pane_->authorize(&error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), errAuthorizationDenied);
    EXPECT_EQ(pane_->authorize(nullptr), nullptr);
    EXPECT_EQ(pane_->authorize(), nullptr);
    const std::string line = "Authorization failure: " + toUTF8(error->localizedDescription());
    EXPECT_THAT(log_.lines(), ElementsAre(line, line, line));
}

TEST_F(AuthorityJob, AuthorizeLeavesTheSlotAloneOnSuccess)
{
    Ref<NSError> error;
    EXPECT_NE(pane_->authorize(&error), nullptr);
    EXPECT_EQ(error, nullptr);
    EXPECT_TRUE(log_.lines().empty());
}

} // namespace
