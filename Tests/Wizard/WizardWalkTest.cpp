// The whole wizard, as a person goes through it, down to what is stored.

#include "AppKit/QtPresenter.h"
#include "KFWizard/KFWizardPane.h"
#include "Security/Keychain/Store.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/ScratchHome.h"
#include "Tests/Wizard/Support.h"
#include "keyfold/Application.h"
#include "keyfold/BatchPresenter.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

#include <fstream>

namespace {

using namespace kf::test;

Authority& institution()
{
    static Authority authority;
    return authority;
}

const Bundle& bundle()
{
    static const Bundle made = institution().issue();
    return made;
}

class Walk : public testing::Test {
protected:
    Walk()
    {
        line_.bundle = KEYFOLD_BUNDLE;
        kf::Presenter::setCurrent(&presenter_);
    }
    ~Walk() override
    {
        kf::Presenter::setCurrent(nullptr);
        window_.reset();
        kf::keychain::closeAll();
    }

    void open()
    {
        window_ = std::make_unique<kf::WizardWindow>();
        EXPECT_EQ(kf::fillWizard(*window_, line_), expectsPage_);
        window_->show();
        window_->goToPane(window_->firstPane());
    }
    void type(const char* field, const std::string& text)
    {
        auto* edit = find<QLineEdit>(window_.get(), field);
        edit->selectAll();
        QTest::keyClicks(edit, QString::fromStdString(text));
    }
    void signIn(const std::string& login, const std::string& file, const std::string& passphrase)
    {
        type("loginField", login);
        type("fileField", file);
        type("passphraseField", passphrase);
    }
    QPushButton* button(const char* name) { return find<QPushButton>(window_.get(), name); }
    void press(const char* name) { QTest::mouseClick(button(name), Qt::LeftButton); }
    std::string label(const char* name) { return find<QLabel>(window_.get(), name)->text().toStdString(); }
    qlonglong state(const char* sphere) { return find<QLabel>(window_.get(), sphere)->property("state").toLongLong(); }
    std::string keychain() const { return "sql:" + home_.defaultKeychain().string(); }
    int keys() const
    {
        const std::string listed = run({"certutil", "-K", "-d", keychain()}).output;
        return static_cast<int>(std::count(listed.begin(), listed.end(), '<'));
    }

    ScratchHome home_;
    kf::QtPresenter presenter_;
    kf::CommandLine line_;
    bool expectsPage_ = true;
    std::unique_ptr<kf::WizardWindow> window_;
};

TEST_F(Walk, FromSignInToTheEndTheCertificateIsInTheKeychain)
{
    open();
    EXPECT_EQ(label("titleLabel"), "Sign In");
    signIn("ada", bundle().file.string(), bundle().passphrase);
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
    EXPECT_EQ(label("titleLabel"), "All Done");
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

TEST_F(Walk, TheStoredKeyCanBeExportedAgain)
{
    open();
    signIn("ada", bundle().file.string(), bundle().passphrase);
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

TEST_F(Walk, NextWaitsForAllThreeFields)
{
    open();
    EXPECT_FALSE(button("nextButton")->isEnabled());
    type("loginField", "ada");
    type("fileField", "/some/file");
    EXPECT_FALSE(button("nextButton")->isEnabled());
    type("passphraseField", "x");
    EXPECT_TRUE(button("nextButton")->isEnabled());
    type("loginField", "   ");
    EXPECT_FALSE(button("nextButton")->isEnabled());
}

TEST_F(Walk, AFileThatCannotBeReadKeepsThePersonOnTheSignInPage)
{
    open();
    signIn("ada", "/nonexistent.p12", "x");
    press("nextButton");
    EXPECT_EQ(label("titleLabel"), "Sign In");
    EXPECT_EQ(label("messageField"), "/nonexistent.p12 cannot be read: No such file or directory");
    EXPECT_EQ(window_->fields().valueForField("downloadpassword"_ns), nullptr);
    EXPECT_TRUE(button("nextButton")->isEnabled());
}

TEST_F(Walk, ThePassphraseFieldIsEmptyAfterwards)
{
    open();
    EXPECT_EQ(find<QLineEdit>(window_.get(), "passphraseField")->echoMode(), QLineEdit::Password);
    signIn("ada", bundle().file.string(), bundle().passphrase);
    auto* field = find<QLineEdit>(window_.get(), "passphraseField");
    press("nextButton");
    EXPECT_TRUE(field->text().isEmpty());
}

TEST_F(Walk, AWrongPassphraseEndsTheWizardOnThePage)
{
    open();
    signIn("ada", bundle().file.string(), "wrong");
    press("nextButton");
    EXPECT_EQ(state("authorityStatus"), 1);
    EXPECT_EQ(state("personalStatus"), 0);
    EXPECT_EQ(label("messageField"), "There was an error while installing your certificates");
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Close"));
    press("nextButton");
    EXPECT_FALSE(window_->isVisible());
    kf::keychain::closeAll();
    EXPECT_EQ(keys(), 0);
}

class WalkWithOldCertificate : public Walk {
protected:
    WalkWithOldCertificate()
    {
        open();
        signIn("ada", bundle().file.string(), bundle().passphrase);
        press("nextButton");
        EXPECT_EQ(state("personalStatus"), 1);
    }
    /// A second visit with another bundle; `act` deals with the question.
    void visitAgain(std::function<void(QWidget*)> act)
    {
        static const Bundle next = institution().issue({.commonName = "Ada Newly"});
        open();
        signIn("ada", next.file.string(), next.passphrase);
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

TEST_F(WalkWithOldCertificate, ClosingTheWindowAtTheQuestionWaitsForTheAnswer)
{
    visitAgain([this](QWidget* box) {
        window_->close();
        EXPECT_TRUE(window_->isVisible());
        find<QPushButton>(box, "defaultButton")->click();
    });
    EXPECT_FALSE(window_->isVisible());
    EXPECT_EQ(keys(), 2);
}

TEST_F(Walk, APageThatCannotBeLoadedIsToldWithItsReason)
{
    line_.bundle = "/nonexistent/KFInstaller.bundle";
    expectsPage_ = false;
    open();
    EXPECT_EQ(label("titleLabel"), "The Installer Cannot Be Loaded");
    EXPECT_NE(label("pageText").find("There is no bundle at /nonexistent/KFInstaller.bundle."), std::string::npos);
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Close"));
}

TEST(BatchPresenter, SaysYesToTheOneQuestionOnly)
{
    kf::BatchPresenter presenter;
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
