// What the second job shows, logs and leaves behind, row by row.

#include "PaneConfiguration.h"
#include "Tests/Wizard/JobCalls.h"
#include "Tests/Wizard/PaneFixture.h"
#include "Tests/Wizard/URLReceiver.h"

namespace {

using namespace kf::test;
using kf::keychain::Operation;
using testing::ElementsAre;

const std::string address = "ada@orvane.example";

const Bundle& oldOwn()
{
    static const Bundle bundle = institution().issue();
    return bundle;
}
const Bundle& oldForeign()
{
    static const Bundle bundle = stranger().issue();
    return bundle;
}
const Bundle& fresh()
{
    static const Bundle bundle = institution().issue({.commonName = "Ada Newly"});
    return bundle;
}

class PersonalJob : public PaneTest {
protected:
    PersonalJob()
    {
        setField("login", "ada"_ns);
        setBundle(fresh().pkcs12, fresh().passphrase);
    }
    static bool holds(const Bundle& bundle)
    {
        Ref<NSArray> list;
        const SecCertificateRef loose = certificate(bundle.leaf);
        SecKeychainSearchRef search;
        SecKeychainSearchCreateFromAttributes(defaultKeychain(), kSecCertificateItemClass, nullptr, &search);
        for (SecKeychainItemRef item; SecKeychainSearchCopyNext(search, &item) == errSecSuccess;) {
            if (item->digest() == loose->digest())
                return true;
        }
        return false;
    }
    void expectSuccess()
    {
        EXPECT_EQ(pane_->personalStatus()->state(), 1);
        EXPECT_EQ(
            pane_->certMessages()->text(), QStringLiteral("Personal certificate has been successfully installed"));
        EXPECT_EQ(field("pkcs12"), nullptr);
        EXPECT_EQ(field("downloadpassword"), nullptr);
        EXPECT_NE(field("UserSecIdentityRef"), nullptr);
    }
    void expectFailure(OSStatus status)
    {
        EXPECT_EQ(pane_->personalStatus()->state(), 0);
        const std::string message = "Failed to install your personal certificate:\n" + text(status);
        EXPECT_EQ(pane_->certMessages()->text().toStdString(), message);
        ASSERT_FALSE(shown_.empty());
        EXPECT_FALSE(shown_.back().isError);
        EXPECT_EQ(field("pkcs12"), nullptr);
        EXPECT_EQ(field("downloadpassword"), nullptr);
        EXPECT_EQ(field("UserSecIdentityRef"), nullptr);
        EXPECT_EQ(
            log_.lines().back(), "Error loading certificate: " + text(status) + " (" + std::to_string(status) + ")");
    }

    LogLines log_;
    ScopedJobCalls calls_;
};

std::string found(int count) { return "Found " + std::to_string(count) + " identities for address '" + address + "'"; }

TEST_F(PersonalJob, ImportsTheBundleAndLeavesTheIdentity)
{
    runPersonalJob();
    expectSuccess();
    EXPECT_THAT(log_.lines(), ElementsAre(found(0), "Imported 1 items"));
    EXPECT_THAT(shown_,
        ElementsAre(Shown{"certMessages", "Installing your personal certificate", false, 0, 0},
            Shown{"certMessages", "Personal certificate has been successfully installed", false, 0, -1}));
    EXPECT_TRUE(presenter_.questions.empty());
    EXPECT_TRUE(holds(fresh()));
    EXPECT_EQ(keys(), 1U);
    const auto identity = refCast<SecIdentity>(field("UserSecIdentityRef"));
    ASSERT_NE(identity, nullptr);
    EXPECT_EQ(identity->certificate()->digest(), certificate(fresh().leaf)->digest());
}

TEST_F(PersonalJob, BundleAndPassphraseAreGoneBeforeTheSuccessIsTold)
{
    std::vector<std::string> told;
    const auto tell = [&](const std::string& what) {
        if (field("pkcs12") || field("downloadpassword"))
            told.push_back("too early: " + what);
        else
            told.push_back(what);
    };
    QObject::connect(pane_, &KFWizardPane::messageShown, [&](QLabel*, const QString& message, bool) {
        if (message.startsWith(QStringLiteral("Personal certificate")))
            tell("message");
    });
    const NSLogObserver observer([&](const std::string& line) {
        if (line.starts_with("Imported "))
            tell("log");
    });
    runPersonalJob();
    EXPECT_THAT(told, ElementsAre("log", "message"));
}

TEST_F(PersonalJob, CountsTheChainToo)
{
    const Bundle bundle = institution().issue({.commonName = "Ada Chained", .withChain = true});
    setBundle(bundle.pkcs12, bundle.passphrase);
    runPersonalJob();
    expectSuccess();
    EXPECT_EQ(log_.lines().back(), "Imported 3 items");
}

TEST_F(PersonalJob, AsksAboutOldCertificatesOnTheMainThread)
{
    install(oldOwn());
    runPersonalJob();
    expectSuccess();
    ASSERT_EQ(presenter_.questions.size(), 1U);
    EXPECT_TRUE(presenter_.onMainThread);
    const kf::AlertQuestion& question = presenter_.questions[0];
    EXPECT_EQ(toUTF8(question.messageText), "Existing certificates found");
    EXPECT_EQ(toUTF8(question.informativeText),
        "You appear to have one or more old certificates installed. Would you like to delete them?\n\n"
        "WARNING: If you have used S/MIME for email encryption, do not delete your certificates\n\n"
        "For more information, see "
            + std::string(kf::configuration::helpURL));
    EXPECT_EQ(toUTF8(question.defaultButton), "No");
    EXPECT_EQ(toUTF8(question.alternateButton), "Yes");
    EXPECT_EQ(question.otherButton, nullptr);
    EXPECT_TRUE(question.critical);
    EXPECT_TRUE(question.help);
}

TEST_F(PersonalJob, NoDeletesNothing)
{
    install(oldOwn());
    install(oldForeign());
    runPersonalJob();
    expectSuccess();
    EXPECT_THAT(log_.lines(), ElementsAre(found(2), "Imported 1 items"));
    EXPECT_TRUE(holds(oldOwn()));
    EXPECT_TRUE(holds(oldForeign()));
    EXPECT_EQ(keys(), 3U);
}

TEST_F(PersonalJob, WithoutAPresenterNothingIsDeleted)
{
    install(oldOwn());
    kf::Presenter::setCurrent(nullptr);
    runPersonalJob();
    kf::Presenter::setCurrent(&presenter_);
    expectSuccess();
    EXPECT_TRUE(holds(oldOwn()));
    EXPECT_EQ(keys(), 2U);
}

TEST_F(PersonalJob, AnAnswerThatIsNeitherButtonDeletesNothing)
{
    install(oldOwn());
    presenter_.answer = kf::alertOtherReturn;
    runPersonalJob();
    expectSuccess();
    EXPECT_EQ(keys(), 2U);
}

class ThrowingPresenter final : public kf::Presenter {
public:
    NSInteger runAlert(const kf::AlertQuestion&) override { throw std::runtime_error("the window broke"); }
    std::optional<SecretBytes> keychainPassphrase(const kf::PassphraseQuestion&) override { return std::nullopt; }
};

TEST_F(PersonalJob, AnAlertThatBreaksDeletesNothing)
{
    install(oldOwn());
    presenter_.answer = kf::alertAlternateReturn;
    runPersonalJob(); // leaves a "Yes" behind from an earlier visit
    install(oldOwn());
    setBundle(fresh().pkcs12, fresh().passphrase);
    ThrowingPresenter broken;
    kf::Presenter::setCurrent(&broken);
    runPersonalJob();
    kf::Presenter::setCurrent(&presenter_);
    expectSuccess();
    EXPECT_TRUE(holds(oldOwn()));
    EXPECT_EQ(keys(), 2U);
}

TEST_F(PersonalJob, YesDeletesTheInstitutionsKeyAndCertificate)
{
    install(oldOwn());
    presenter_.answer = kf::alertAlternateReturn;
    runPersonalJob();
    expectSuccess();
    EXPECT_THAT(log_.lines(), ElementsAre(found(1), "Imported 1 items"));
    EXPECT_FALSE(holds(oldOwn()));
    EXPECT_EQ(keys(), 1U);
}

TEST_F(PersonalJob, YesDeletesAStrangersCertificateAndKeepsItsKey)
{
    install(oldForeign());
    presenter_.answer = kf::alertAlternateReturn;
    runPersonalJob();
    expectSuccess();
    EXPECT_THAT(log_.lines(), ElementsAre(found(1), "Imported 1 items"));
    EXPECT_FALSE(holds(oldForeign()));
    EXPECT_EQ(keys(), 2U);
}

TEST_F(PersonalJob, YesLeavesOtherPeoplesCertificates)
{
    const Bundle other = institution().issue({.commonName = "Bob", .email = "bob@orvane.example"});
    install(other);
    install(oldOwn());
    presenter_.answer = kf::alertAlternateReturn;
    runPersonalJob();
    expectSuccess();
    EXPECT_TRUE(holds(other));
    EXPECT_EQ(keys(), 2U);
}

TEST_F(PersonalJob, AKeyThatCannotBeDeletedKeepsItsCertificateInTheFirstPass)
{
    install(oldOwn());
    presenter_.answer = kf::alertAlternateReturn;
    faults_->arm(Operation::removePrivateKey, 1, errSecWrPerm);
    runPersonalJob();
    EXPECT_TRUE(faults_->fired());
    EXPECT_EQ(faults_->calls(Operation::removeCertificate), 1); // the second pass alone
    expectSuccess();
    EXPECT_THAT(log_.lines(),
        ElementsAre(found(1), "\tError deleting key for '" + address + ": " + text(errSecWrPerm), "Imported 1 items"));
    EXPECT_EQ(keys(), 2U);
}

TEST_F(PersonalJob, AKeyThatCannotBeDeletedDoesNotKeepTheNextIdentity)
{
    install(oldOwn());
    install(institution().issue({.commonName = "Ada Older"}));
    presenter_.answer = kf::alertAlternateReturn;
    faults_->arm(Operation::removePrivateKey, 1, errSecWrPerm);
    runPersonalJob();
    EXPECT_TRUE(faults_->fired());
    expectSuccess();
    EXPECT_THAT(log_.lines(),
        ElementsAre(found(2), "\tError deleting key for '" + address + ": " + text(errSecWrPerm), "Imported 1 items"));
    EXPECT_EQ(faults_->calls(Operation::removePrivateKey), 2);
    EXPECT_EQ(keys(), 2U); // the one that could not be deleted and the new one
    EXPECT_EQ(certificates(), 1U);
}

TEST_F(PersonalJob, ACertificateThatCannotBeDeletedDoesNotKeepTheNext)
{
    install(oldForeign());
    install(stranger().issue({.commonName = "Ada Elsewhere"}));
    presenter_.answer = kf::alertAlternateReturn;
    faults_->arm(Operation::removeCertificate, 1, errSecWrPerm);
    runPersonalJob();
    EXPECT_TRUE(faults_->fired());
    expectSuccess();
    EXPECT_THAT(log_.lines(),
        ElementsAre(
            found(2), "\tError deleting certificate for '" + address + "': " + text(errSecWrPerm), "Imported 1 items"));
    EXPECT_EQ(faults_->calls(Operation::removeCertificate), 2);
    EXPECT_EQ(certificates(), 2U); // the one that could not be deleted and the new one
}

TEST_F(PersonalJob, ACertificateThatCannotBeDeletedIsLoggedInEachPass)
{
    install(oldOwn());
    presenter_.answer = kf::alertAlternateReturn;
    faults_->arm(Operation::removeCertificate, 1, errSecWrPerm, true);
    runPersonalJob();
    expectSuccess();
    EXPECT_THAT(log_.lines(),
        ElementsAre(found(1), "\tError deleting cert for '" + address + "': " + text(errSecWrPerm),
            "\tError deleting certificate for '" + address + "': " + text(errSecWrPerm), "Imported 1 items"));
    EXPECT_TRUE(holds(oldOwn()));
    EXPECT_EQ(keys(), 1U);
}

TEST_F(PersonalJob, AnIdentityThatBearsTheAddressTwiceIsDeletedOnceAndLoggedOnce)
{
    install(institution().issue({.emailPlace = EmailPlace::both}));
    presenter_.answer = kf::alertAlternateReturn;
    runPersonalJob();
    expectSuccess();
    EXPECT_THAT(log_.lines(),
        ElementsAre(
            found(2), "\tError deleting key for '" + address + ": " + text(errSecInvalidItemRef), "Imported 1 items"));
    EXPECT_EQ(keys(), 1U);
}

TEST_F(PersonalJob, FindsTheAddressInCapitals)
{
    install(institution().issue({.email = "ADA@Orvane.Example"}));
    runPersonalJob();
    EXPECT_EQ(log_.lines().front(), found(1));
    EXPECT_EQ(presenter_.questions.size(), 1U);
}

class PersonalJobWithoutLogin : public PersonalJob, public testing::WithParamInterface<bool> { };

TEST_P(PersonalJobWithoutLogin, DeletesNothingThoughYesIsArmed)
{
    const bool empty = GetParam();
    install(oldOwn());
    install(institution().issue({.emailPlace = EmailPlace::none}));
    install(institution().issue({.email = "@orvane.example"}));
    presenter_.answer = kf::alertAlternateReturn;
    setField("login", empty ? Ref<NSObject>(NSString::string()) : nullptr);
    runPersonalJob();
    expectSuccess();
    EXPECT_EQ(log_.lines().front(),
        std::string("Found 0 identities for address '") + (empty ? "@orvane.example" : "(null)") + "'");
    EXPECT_TRUE(presenter_.questions.empty());
    EXPECT_EQ(keys(), 4U);
}

INSTANTIATE_TEST_SUITE_P(EmptyOrMissing, PersonalJobWithoutLogin, testing::Bool());

TEST_F(PersonalJob, ALoginThatIsNoTextCountsAsMissing)
{
    install(oldOwn());
    presenter_.answer = kf::alertAlternateReturn;
    setField("login", NSArray::array());
    runPersonalJob();
    EXPECT_EQ(keys(), 2U);
}

TEST_F(PersonalJob, TellsAWrongPassphrase)
{
    setBundle(fresh().pkcs12, "wrong");
    runPersonalJob();
    expectFailure(errSecPkcs12VerifyFailure);
    EXPECT_EQ(keys(), 0U);
    EXPECT_EQ(certificates(), 0U);
}

TEST_F(PersonalJob, TellsADamagedBundle)
{
    Bytes cut = fresh().pkcs12;
    cut.resize(cut.size() / 2);
    setBundle(cut, fresh().passphrase);
    runPersonalJob();
    expectFailure(errSecDecode);
    EXPECT_EQ(keys(), 0U);
}

TEST_F(PersonalJob, TellsWhatIsNoBundle)
{
    setBundle(Bytes{'n', 'o', ' ', 'b', 'u', 'n', 'd', 'l', 'e'}, "x");
    runPersonalJob();
    expectFailure(errSecUnknownFormat);
}

TEST_F(PersonalJob, TellsAMissingBundle)
{
    setField("pkcs12", nullptr);
    runPersonalJob();
    expectFailure(errSecDataNotAvailable);
}

TEST_F(PersonalJob, TellsAMissingPassphrase)
{
    setField("downloadpassword", nullptr);
    runPersonalJob();
    expectFailure(errSecPassphraseRequired);
}

TEST_F(PersonalJob, ASecondRunHasNoBundleAndFailsLikeAnyOther)
{
    runPersonalJob();
    expectSuccess();
    setField("UserSecIdentityRef", nullptr);
    runPersonalJob();
    expectFailure(errSecDataNotAvailable);
    EXPECT_TRUE(holds(fresh()));
    EXPECT_EQ(keys(), 1U);
}

TEST_F(PersonalJob, AKeychainThatRefusesLeavesNothingBehind)
{
    faults_->arm(Operation::addCertificate, 1, errSecWrPerm);
    runPersonalJob();
    EXPECT_TRUE(faults_->fired());
    expectFailure(errSecWrPerm);
    faults_->disarm();
    EXPECT_EQ(keys(), 0U);
    EXPECT_EQ(certificates(), 0U);
}

TEST_F(PersonalJob, AsksForKeysThatMayBeExportedAgainAndOnlyWrapped)
{
    calls_.import = [&](const SecKeyImportExportParameters& parameters, Ref<NSArray>*) {
        EXPECT_EQ(parameters.version, 0U);
        EXPECT_EQ(parameters.flags, 0U);
        EXPECT_EQ(toUTF8(parameters.passphrase), fresh().passphrase);
        EXPECT_EQ(parameters.alertTitle, nullptr);
        EXPECT_EQ(parameters.alertPrompt, nullptr);
        EXPECT_EQ(parameters.accessRef, nullptr);
        EXPECT_EQ(parameters.keyUsage, 0x80000000U);
        EXPECT_EQ(parameters.keyAttributes, 0x28U);
        return errSecWrPerm;
    };
    runPersonalJob();
    expectFailure(errSecWrPerm); // the call was seen
}

TEST_F(PersonalJob, SuccessWithoutItemsIsAFailure)
{
    calls_.import = [](const SecKeyImportExportParameters&, Ref<NSArray>* items) {
        *items = nullptr;
        return errSecSuccess;
    };
    runPersonalJob();
    expectFailure(errSecSuccess);
}

TEST_F(PersonalJob, ZeroItemsAreASuccessThatHandsNothingOn)
{
    calls_.import = [](const SecKeyImportExportParameters&, Ref<NSArray>* items) {
        *items = NSArray::array();
        return errSecSuccess;
    };
    runPersonalJob();
    EXPECT_EQ(pane_->personalStatus()->state(), 1);
    EXPECT_EQ(log_.lines().back(), "Imported 0 items");
    EXPECT_EQ(field("UserSecIdentityRef"), nullptr);
}

TEST_F(PersonalJob, WhatAFailedImportLeftBehindIsDeleted)
{
    install(oldForeign());
    ASSERT_EQ(SecCertificateAddToKeychain(certificate(institution().root()), defaultKeychain()), errSecSuccess);
    SecIdentitySearchRef search;
    SecIdentityRef identity;
    ASSERT_EQ(SecIdentitySearchCreate(defaultKeychain(), 0, &search), errSecSuccess);
    ASSERT_EQ(SecIdentitySearchCopyNext(search, &identity), errSecSuccess);
    calls_.import = [&](const SecKeyImportExportParameters&, Ref<NSArray>* items) {
        SecKeychainSearchRef rest;
        SecKeychainSearchCreateFromAttributes(defaultKeychain(), kSecCertificateItemClass, nullptr, &rest);
        Ref<NSMutableArray> left = NSMutableArray::array();
        left->addObject(identity);
        for (SecKeychainItemRef item; SecKeychainSearchCopyNext(rest, &item) == errSecSuccess;)
            left->addObject(item);
        *items = left;
        return errSecWrPerm;
    };
    runPersonalJob();
    expectFailure(errSecWrPerm);
    EXPECT_EQ(keys(), 0U);
    EXPECT_EQ(certificates(), 0U);
}

TEST_F(PersonalJob, AnExceptionIsAFailureThatClearsTheFields)
{
    {
        const NSLogObserver breaking([](const std::string& line) {
            if (line.starts_with("Found "))
                throw std::bad_alloc();
        });
        runPersonalJob();
    }
    expectFailure(errSecInternalComponent);
    EXPECT_EQ(certificates(), 0U);
    setBundle(fresh().pkcs12, fresh().passphrase);
    runPersonalJob();
    expectSuccess();
}

TEST_F(PersonalJob, WhateverIsThrownWhereverItLogsTheFieldsAreClearedAndTheSphereIsRed)
{
    {
        const NSLogObserver breaking([](const std::string&) { throw 7; });
        runPersonalJob();
    }
    EXPECT_EQ(pane_->personalStatus()->state(), 0);
    EXPECT_EQ(field("pkcs12"), nullptr);
    EXPECT_EQ(field("downloadpassword"), nullptr);
    EXPECT_EQ(field("UserSecIdentityRef"), nullptr);
    EXPECT_EQ(certificates(), 0U);
}

TEST_F(PersonalJob, ImportsAfterAFailedDeletionAllTheSame)
{
    install(oldOwn());
    presenter_.answer = kf::alertAlternateReturn;
    faults_->arm(Operation::removePrivateKey, 1, errSecIO);
    runPersonalJob();
    expectSuccess();
}

TEST_F(PersonalJob, TheAlertsHelpOpensTheArticle)
{
    install(oldOwn());
    runPersonalJob();
    ASSERT_EQ(presenter_.questions.size(), 1U);
    const QUrl article(QString::fromUtf8(kf::configuration::helpURL));
    URLReceiver receiver;
    presenter_.questions[0].help();
    EXPECT_EQ(receiver.opened, QList<QUrl>{article});
    EXPECT_TRUE(pane_->alertShowHelp(nullptr));
}

// No browser can be started from the offscreen platform.
TEST_F(PersonalJob, TheAlertsHelpSaysWhereNothingOpensTheArticle)
{
    ASSERT_EQ(QGuiApplication::platformName(), QStringLiteral("offscreen"));
    EXPECT_FALSE(pane_->alertShowHelp(nullptr));
}

} // namespace
