// The whole wizard, as a person goes through it, down to what is stored.

#include "Security/Keychain/KeptBundle.h"
#include "Tests/Wizard/WalkFixture.h"
#include "keyfold/BatchPresenter.h"

namespace {

using namespace kf::test;

TEST_F(Walk, FromSignInToTheEndTheCertificateIsInTheKeychain)
{
    open();
    EXPECT_EQ(label("titleLabel"), "Sign In");
    signIn(bundle());
    press("nextButton");
    EXPECT_EQ(label("titleLabel"), "Install Your Certificates");
    EXPECT_EQ(state("authorityStatus"), 1);
    EXPECT_EQ(state("personalStatus"), 1);
    EXPECT_EQ(label("caMessages"), "Certificate authority is valid");
    EXPECT_EQ(label("certMessages"), "Personal certificate has been successfully installed");
    EXPECT_EQ(label("messageField"), "Your certificates were successfully installed");
    EXPECT_FALSE(button("previousButton")->isEnabled());
    EXPECT_EQ(window_->fields().valueForField("pkcs12"_ns), nullptr);
    EXPECT_EQ(window_->fields().valueForField("downloadpassword"_ns), nullptr);
    EXPECT_NE(window_->fields().valueForField("UserSecIdentityRef"_ns), nullptr);

    press("nextButton");
    EXPECT_EQ(label("titleLabel"), "What Was Installed");
    EXPECT_FALSE(button("previousButton")->isEnabled());
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Close"));
    press("nextButton");
    EXPECT_FALSE(window_->isVisible());

    kf::keychain::closeAll();
    EXPECT_EQ(keys(), 1);
    const std::string listed = mustRun({"certutil", "-L", "-d", keychain()});
    EXPECT_NE(listed.find("u,u,u"), std::string::npos) << listed;
    EXPECT_NE(listed.find("Orvane Certification Authority"), std::string::npos) << listed;
}

TEST_F(Walk, WhatSignInHasReadIsNotReadAgain)
{
    using kf::keychain::asBytes;
    const Bundle grace = institution().issue({.commonName = "Grace Example"});
    open();
    signIn(bundle());
    kf::keychain::keepBundle(bundle().pkcs12, asBytes(bundle().passphrase),
        kf::keychain::readBundle(grace.pkcs12, asBytes(grace.passphrase)));
    press("nextButton");
    ASSERT_EQ(state("personalStatus"), 1);
    kf::keychain::closeAll();
    const std::string listed = mustRun({"certutil", "-L", "-d", keychain()});
    EXPECT_NE(listed.find("Grace Example"), std::string::npos) << listed;
}

TEST_F(Walk, TheStoredKeyCanBeExportedAgain)
{
    open();
    signIn(bundle());
    press("nextButton");
    ASSERT_EQ(state("personalStatus"), 1);
    kf::keychain::closeAll();

    const auto out = home_.path() / "out.p12";
    const auto password = home_.path() / "password";
    const auto pem = home_.path() / "out.pem";
    const auto key = home_.path() / "out.p8";
    writeFile(password, "export\n");
    mustRun({"timeout", "20", "pk12util", "-o", out, "-n", "Ada Example", "-d", keychain(), "-w", password, "-K", ""});
    mustRun({"openssl", "pkcs12", "-legacy", "-in", out, "-nocerts", "-noenc", "-passin", "file:" + password.string(),
        "-out", pem});
    mustRun({"openssl", "pkcs8", "-topk8", "-nocrypt", "-in", pem, "-outform", "DER", "-out", key});
    EXPECT_EQ(readFile(key), bundle().privateKey);
}

TEST_F(Walk, ABase64FileIsTakenAsItIs)
{
    const auto text = home_.path() / "bundle.txt";
    mustRun({"openssl", "base64", "-in", bundle().file, "-out", text});
    open();
    signIn("ada", text.string(), bundle().passphrase);
    press("nextButton");
    EXPECT_EQ(state("personalStatus"), 1);
}

TEST_F(Walk, AFailedInstallationEndsTheWizardOnThePage)
{
    open();
    signIn(bundle());
    std::filesystem::create_directories(home_.olderKeychain());
    writeFile(home_.olderKeychain() / "cert9.db", std::string_view());
    writeFile(home_.olderKeychain() / "key4.db", std::string_view());
    press("nextButton");
    EXPECT_EQ(state("authorityStatus"), 0);
    EXPECT_EQ(state("personalStatus"), 0);
    EXPECT_EQ(label("certMessages"),
        "Failed to install your personal certificate:\nA file of the keychain is empty. It was left as it is.");
    EXPECT_EQ(label("messageField"), "There was an error while installing your certificates");
    EXPECT_FALSE(button("previousButton")->isEnabled());
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Close"));
    press("nextButton");
    EXPECT_FALSE(window_->isVisible());
}

TEST_F(Walk, QuittingWhileThePageWorksFinishesTheRun)
{
    open();
    signIn(bundle());
    bool working = false;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&] {
        if (working || !isShown("progressIndicator"))
            return;
        working = true;
        QCoreApplication::quit();
    });
    watch.start(1);
    QTimer::singleShot(0, [this] { press("nextButton"); });
    const kf::test::Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_TRUE(working);
    EXPECT_EQ(state("personalStatus"), 1);
    kf::keychain::closeAll();
    EXPECT_EQ(keys(), 1);
}

TEST_F(Walk, QuittingOnTheLastPageIsClean)
{
    open();
    signIn(bundle());
    press("nextButton");
    QTimer::singleShot(0, [this] {
        press("nextButton");
        QCoreApplication::quit();
    });
    const kf::test::Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_EQ(label("titleLabel"), "What Was Installed");
}

class WalkWithOldCertificate : public Walk {
protected:
    WalkWithOldCertificate()
    {
        open();
        signIn(bundle());
        press("nextButton");
        EXPECT_EQ(state("personalStatus"), 1);
    }
    /// A second visit with another bundle; `act` deals with the question.
    void visitAgain(std::function<void(QWidget*)> act)
    {
        static const Bundle next = institution().issue({.commonName = "Ada Newly"});
        open();
        signIn(next);
        const WhenDialogOpens watch("alert", std::move(act));
        press("nextButton");
        EXPECT_EQ(watch.seen(), 1);
        EXPECT_EQ(state("personalStatus"), 1);
        kf::keychain::closeAll();
    }
};

TEST_F(WalkWithOldCertificate, YesDeletesIt)
{
    visitAgain([](QWidget* box) { QTest::mouseClick(find<QPushButton>(box, "alternateButton"), Qt::LeftButton); });
    EXPECT_EQ(keys(), 1);
}

TEST_F(WalkWithOldCertificate, NoKeepsIt)
{
    visitAgain([](QWidget* box) { QTest::mouseClick(find<QPushButton>(box, "defaultButton"), Qt::LeftButton); });
    EXPECT_EQ(keys(), 2);
}

TEST_F(WalkWithOldCertificate, ReturnKeepsIt)
{
    visitAgain([](QWidget* box) { QTest::keyClick(box, Qt::Key_Return); });
    EXPECT_EQ(keys(), 2);
}

TEST_F(WalkWithOldCertificate, EscapeKeepsIt)
{
    visitAgain([](QWidget* box) { QTest::keyClick(box, Qt::Key_Escape); });
    EXPECT_EQ(keys(), 2);
}

TEST_F(WalkWithOldCertificate, ClosingTheQuestionKeepsIt)
{
    visitAgain([](QWidget* box) { box->close(); });
    EXPECT_EQ(keys(), 2);
}

TEST_F(WalkWithOldCertificate, QuittingAtTheQuestionKeepsItAndTheRunIsFinished)
{
    int status = -1;
    QTimer::singleShot(0, [this] { visitAgain([](QWidget*) { QCoreApplication::quit(); }); });
    const kf::test::Deadline deadline;
    status = QApplication::exec();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(keys(), 2);
}

TEST_F(WalkWithOldCertificate, ClosingTheWindowAtTheQuestionKeepsItAndTheRunIsFinished)
{
    visitAgain([this](QWidget*) {
        window_->close();
        EXPECT_TRUE(window_->isVisible());
    });
    EXPECT_FALSE(window_->isVisible());
    EXPECT_EQ(keys(), 2);
}

/// Somebody who leaves before the question comes is not asked any more.
class WalkLeftEarly : public WalkWithOldCertificate, public testing::WithParamInterface<const char*> { };

TEST_P(WalkLeftEarly, IsFinishedWithoutTheQuestion)
{
    static const Bundle next = institution().issue({.commonName = "Ada Early"});
    open();
    signIn(next);
    const WhenDialogOpens watch("alert", [](QWidget* box) { box->close(); });
    bool left = false;
    QTimer leave;
    QObject::connect(&leave, &QTimer::timeout, [&] {
        if (std::exchange(left, left || isShown("progressIndicator")) || !left)
            return;
        if (GetParam() == std::string_view("Quitting"))
            QCoreApplication::quit();
        else
            window_->close();
    });
    leave.start(0);
    const Deadline deadline;
    QTimer::singleShot(0, [this] {
        press("nextButton");
        if (GetParam() == std::string_view("Closing"))
            QCoreApplication::quit();
    });
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_TRUE(left);
    EXPECT_EQ(watch.seen(), 0);
    kf::keychain::closeAll();
    EXPECT_EQ(keys(), 2);
}

INSTANTIATE_TEST_SUITE_P(
    By, WalkLeftEarly, testing::Values("Quitting", "Closing"), [](const auto& by) { return std::string(by.param); });

TEST_F(Walk, APageThatCannotBeLoadedIsToldWithItsReason)
{
    line_.bundle = "/nonexistent/KFInstaller.bundle";
    expectsPage_ = false;
    open();
    EXPECT_EQ(label("titleLabel"), "The Installer Cannot Be Loaded");
    EXPECT_NE(label("pageText").find("There is no bundle at /nonexistent/KFInstaller.bundle."), std::string::npos);
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Close"));
}

struct BadBundle {
    const char* name;
    const char* reason;
};

class WalkWithBadBundle : public Walk, public testing::WithParamInterface<BadBundle> { };

TEST_P(WalkWithBadBundle, TellsTheReasonAndOffersNothingElse)
{
    line_.bundle = std::string(TEST_BUNDLES "/") + GetParam().name + ".bundle";
    expectsPage_ = false;
    open();
    EXPECT_EQ(label("titleLabel"), "The Installer Cannot Be Loaded");
    EXPECT_NE(label("pageText").find("Nothing was installed. "), std::string::npos);
    EXPECT_NE(label("pageText").find(GetParam().reason), std::string::npos) << label("pageText");
    EXPECT_FALSE(button("previousButton")->isEnabled());
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Close"));
    press("nextButton");
    EXPECT_FALSE(window_->isVisible());
}

INSTANTIATE_TEST_SUITE_P(Rows, WalkWithBadBundle,
    testing::Values(BadBundle{"Broken", "The code cannot be loaded: "}, BadBundle{"NoCode", "holds no code"},
        BadBundle{"NoPage", "offers no page"},
        BadBundle{"OtherVersion", "It was built for version 99 of the wizard, not 1."},
        BadBundle{"NoInterface", "The interface file TestPage.ui is missing."}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Walk, ALongMessageWrapsAndTheWindowKeepsItsWidth)
{
    open();
    signIn(bundle());
    press("nextButton");
    const int width = window_->width();
    for (const char* name : {"caMessages", "certMessages"}) {
        auto* messages = find<QLabel>(window_.get(), name);
        const int line = messages->fontMetrics().lineSpacing();
        messages->setText(QStringLiteral("A message of many words, as some reasons are. ").repeated(6));
        EXPECT_TRUE(QTest::qWaitFor([&] { return messages->height() >= 3 * line; })) << name;
        EXPECT_LT(messages->width(), width) << name;
    }
    EXPECT_EQ(window_->width(), width);
}

TEST_F(Walk, QuittingAfterTheRunIsClean)
{
    open();
    signIn(bundle());
    QTimer::singleShot(0, [this] {
        press("nextButton");
        QCoreApplication::quit();
    });
    const Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_EQ(label("messageField"), "Your certificates were successfully installed");
}

TEST_F(Walk, QuittingWhileTheStoresAreReadIsClean)
{
    open();
    signIn(bundle());
    press("nextButton");
    bool working = false;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&] {
        if (!working && isShown("activityLabel")) {
            working = true;
            QCoreApplication::quit();
        }
    });
    watch.start(0);
    QTimer::singleShot(0, [this] { press("nextButton"); });
    const Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_TRUE(working);
    EXPECT_NE(report("personalReport").find("and its private key are in your keychain"), std::string::npos);
}

TEST(BatchPresenter, SaysYesToTheOneQuestionOnly)
{
    kf::BatchReport report(kf::CommandLine::Output::json);
    kf::BatchPresenter presenter(report, true, std::nullopt);
    kf::AlertQuestion question;
    question.messageText = "Existing certificates found"_ns;
    question.defaultButton = "No"_ns;
    question.alternateButton = "Yes"_ns;
    EXPECT_EQ(presenter.runAlert(question), kf::alertAlternateReturn);
    question.messageText = "Anything else"_ns;
    EXPECT_EQ(presenter.runAlert(question), kf::alertDefaultReturn);
    EXPECT_FALSE(presenter.keychainPassphrase({"/some/keychain"_ns, 1}));
}

} // namespace
