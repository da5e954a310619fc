// The sign-in page: what it takes, what it refuses, what it warns of.

#include "Tests/Wizard/WalkFixture.h"

#include <gmock/gmock.h>

#include <QDragEnterEvent>
#include <QFileDialog>
#include <QMimeData>
#include <QProgressBar>
#include <QUrl>

namespace {

using namespace kf::test;
using testing::HasSubstr;

class SignIn : public Walk {
protected:
    SignIn() { open(); }
    bool isOnPage() { return label("titleLabel") == "Sign In"; }
    /// Neither this page nor the field store keeps anything of a bundle that was refused.
    void expectStopped(const char* message, const char* text)
    {
        press("nextButton");
        waitFor(message);
        EXPECT_THAT(label(message), HasSubstr(text));
        EXPECT_FALSE(isShown("certificateCard"));
        press("nextButton");
        EXPECT_TRUE(isOnPage());
        EXPECT_EQ(field("pkcs12"), nullptr);
        EXPECT_EQ(field("downloadpassword"), nullptr);
        EXPECT_FALSE(std::filesystem::exists(home_.defaultKeychain())) << "nothing may be written";
    }
    void expectWarning(const char* text)
    {
        EXPECT_TRUE(isShown("certificateWarnings"));
        EXPECT_THAT(label("certificateWarnings"), HasSubstr(text));
        press("nextButton");
        EXPECT_EQ(label("titleLabel"), "Install Your Certificates");
        EXPECT_EQ(state("personalStatus"), 1);
    }
    Bundle issue(const BundleOptions& options) { return institution().issue(options); }
    std::string writeBase64(const Bundle& of)
    {
        const auto file = home_.path() / "bundle.txt";
        mustRun({"openssl", "base64", "-in", of.file, "-out", file});
        return file.string();
    }
};

TEST_F(SignIn, ShowsTheCertificateByItselfOnceTheFileOpens)
{
    signIn(bundle());
    EXPECT_EQ(label("certificateName"), "Ada Example");
    EXPECT_EQ(label("certificateDetails"),
        "For ada@orvane.example\nIssued by Orvane Certification Authority 2\n"
        "Valid from 1 January 2020 until 1 January 2049");
    EXPECT_FALSE(isShown("certificateWarnings"));
    EXPECT_FALSE(isShown("checkingLabel"));
    EXPECT_TRUE(isOnPage());
    EXPECT_FALSE(std::filesystem::exists(home_.defaultKeychain()));
}

TEST_F(SignIn, ReturnChecksAndASecondReturnGoesOn)
{
    fillIn("ada", bundle().file.string(), bundle().passphrase);
    auto* field = find<QLineEdit>(window_.get(), "passphraseField");
    QTest::keyClick(field, Qt::Key_Return);
    EXPECT_TRUE(isShown("checkingLabel"));
    EXPECT_TRUE(find<QProgressBar>(window_.get(), "progressIndicator")->isVisible());
    EXPECT_TRUE(isOnPage());
    waitFor("certificateCard");
    EXPECT_FALSE(find<QProgressBar>(window_.get(), "progressIndicator")->isVisible());
    QTest::keyClick(field, Qt::Key_Return);
    EXPECT_EQ(label("titleLabel"), "Install Your Certificates");
}

TEST_F(SignIn, LeavesWhatWasCheckedInTheFieldStoreAndWipesTheField)
{
    signIn("  ada ", bundle().file.string(), bundle().passphrase);
    kf::FieldStore& store = window_->fields();
    auto* pane = window_->currentPane();
    ASSERT_TRUE(pane->shouldExitPane(KFWizardForward));
    EXPECT_TRUE(CFEqual(store.valueForField("login"_ns), "ada"_ns));
    const QByteArray base64 = QByteArray::fromRawData(
        reinterpret_cast<const char*>(bundle().pkcs12.data()), static_cast<qsizetype>(bundle().pkcs12.size()))
                                  .toBase64();
    EXPECT_EQ(toUTF8(refCast<NSString>(store.valueForField("pkcs12"_ns))), base64.toStdString());
    EXPECT_EQ(toUTF8(refCast<NSString>(store.valueForField("downloadpassword"_ns))), bundle().passphrase);
    pane->didExitPane(KFWizardForward);
    EXPECT_TRUE(find<QLineEdit>(window_.get(), "passphraseField")->text().isEmpty());
}

TEST_F(SignIn, NextNeedsALoginAndAFile)
{
    EXPECT_FALSE(button("nextButton")->isEnabled());
    type("loginField", "ada");
    EXPECT_FALSE(button("nextButton")->isEnabled());
    type("fileField", "/some/file");
    EXPECT_TRUE(button("nextButton")->isEnabled());
    type("loginField", "   ");
    EXPECT_FALSE(button("nextButton")->isEnabled());
}

TEST_F(SignIn, ALoginNameWithADomainOrWhiteSpaceStops)
{
    signIn("ada@orvane.example", bundle().file.string(), bundle().passphrase);
    for (const char* login : {"ada@orvane.example", "ada example"}) {
        type("loginField", login);
        press("nextButton");
        EXPECT_THAT(label("loginMessage"), HasSubstr("Enter the login name alone")) << login;
        EXPECT_TRUE(isShown("loginMessage"));
        EXPECT_TRUE(isOnPage());
    }
    EXPECT_EQ(field("login"), nullptr);
}

TEST_F(SignIn, AWrongPassphraseStopsBesideItsField)
{
    fillIn("ada", bundle().file.string(), "wrong");
    expectStopped("passphraseMessage", "This pass phrase does not open the file.");
    EXPECT_FALSE(isShown("fileMessage"));
}

TEST_F(SignIn, AWrongPassphraseIsNotToldWhileItIsTyped)
{
    fillIn("ada", bundle().file.string(), "correct ho");
    waitFor("checkingLabel");
    EXPECT_TRUE(QTest::qWaitFor([this] { return !isShown("checkingLabel"); }, 20000));
    EXPECT_FALSE(isShown("passphraseMessage"));
    QTest::keyClicks(find<QLineEdit>(window_.get(), "passphraseField"), QStringLiteral("rse"));
    waitFor("certificateCard");
}

TEST_F(SignIn, ARightPassphraseAfterAWrongOneGoesOn)
{
    fillIn("ada", bundle().file.string(), "wrong");
    press("nextButton");
    waitFor("passphraseMessage");
    type("passphraseField", bundle().passphrase);
    EXPECT_FALSE(isShown("passphraseMessage"));
    waitFor("certificateCard");
    press("nextButton");
    EXPECT_EQ(state("personalStatus"), 1);
}

TEST_F(SignIn, AnEmptyPassphraseIsAPassphrase)
{
    const Bundle open = issue({.passphrase = ""});
    signIn("ada", open.file.string(), "");
    EXPECT_EQ(label("certificateName"), "Ada Example");
    press("nextButton");
    EXPECT_EQ(state("personalStatus"), 1);
}

TEST_F(SignIn, AMissingPassphraseIsAskedFor)
{
    fillIn("ada", bundle().file.string(), "");
    expectStopped("passphraseMessage", "The file is protected: enter its pass phrase.");
}

TEST_F(SignIn, ADamagedFileStops)
{
    Bytes damaged = bundle().pkcs12;
    damaged.resize(damaged.size() / 2);
    writeFile(home_.path() / "damaged.p12", damaged);
    fillIn("ada", (home_.path() / "damaged.p12").string(), bundle().passphrase);
    expectStopped("fileMessage", "The file is damaged.");
}

TEST_F(SignIn, AFileThatIsNoBundleStops)
{
    writeFile(home_.path() / "letter.txt", std::string_view("Dear Ada,\n"));
    fillIn("ada", (home_.path() / "letter.txt").string(), bundle().passphrase);
    expectStopped("fileMessage", "This is no certificate file.");
}

TEST_F(SignIn, AMissingKeyStops)
{
    const Bundle keyless = issue({.withoutKey = true});
    fillIn("ada", keyless.file.string(), keyless.passphrase);
    expectStopped("fileMessage", "The file holds no private key with a certificate");
}

TEST_F(SignIn, AMissingCertificateStops)
{
    const Bundle bare = issue({.withoutCertificate = true});
    fillIn("ada", bare.file.string(), bare.passphrase);
    press("nextButton");
    waitFor("fileMessage");
    EXPECT_TRUE(isOnPage());
}

TEST_F(SignIn, AFileThatIsNotThereStops)
{
    fillIn("ada", "/nonexistent.p12", "x");
    expectStopped("fileMessage", "/nonexistent.p12 cannot be read: No such file or directory");
}

TEST_F(SignIn, AKindOfKeyThatIsNotSupportedStops)
{
    const Bundle unsupported = issue({.key = KeyKind::ed25519});
    fillIn("ada", unsupported.file.string(), unsupported.passphrase);
    expectStopped("fileMessage", "a kind of key that this system does not support");
}

TEST_F(SignIn, AnExpiredCertificateWarns)
{
    const Bundle expired = issue({.notAfter = "20210101000000Z"});
    signIn(expired);
    expectWarning("The certificate expired on 1 January 2021.");
}

TEST_F(SignIn, ACertificateThatIsNotValidYetWarns)
{
    const Bundle early = issue({.notBefore = "20480101000000Z"});
    signIn(early);
    expectWarning("The certificate is not valid before 1 January 2048.");
}

TEST_F(SignIn, AnotherPersonsAddressWarns)
{
    signIn("grace", bundle().file.string(), bundle().passphrase);
    expectWarning("The certificate is issued for ada@orvane.example, not for grace@orvane.example.");
}

TEST_F(SignIn, TheSameAddressInCapitalsIsTheSamePersons)
{
    signIn("ADA", bundle().file.string(), bundle().passphrase);
    EXPECT_FALSE(isShown("certificateWarnings"));
}

TEST_F(SignIn, AnotherAuthorityOfTheNameInTheBundleWarns)
{
    // The test's own authority goes by the name of the one that the page brings along.
    const Bundle chained = issue({.withChain = true});
    signIn(chained);
    expectWarning("The file also holds an authority that calls itself “Orvane Certification Authority”");
}

TEST_F(SignIn, AnotherAuthorityOfTheNameInAKeychainWarns)
{
    const auto directory = home_.olderKeychain();
    std::filesystem::create_directories(directory);
    mustRun({"certutil", "-N", "--empty-password", "-d", "sql:" + directory.string()});
    mustRun({"certutil", "-A", "-n", "impostor", "-t", ",,", "-i", institution().rootFile(), "-d",
        "sql:" + directory.string()});
    signIn(bundle());
    EXPECT_THAT(label("certificateWarnings"), HasSubstr("A keychain holds an authority that calls itself"));
    EXPECT_THAT(label("certificateWarnings"), HasSubstr(directory.string()));
}

TEST_F(SignIn, TheInstitutionsOwnAuthorityIsNoImpostor)
{
    const auto directory = home_.olderKeychain();
    std::filesystem::create_directories(directory);
    mustRun({"certutil", "-N", "--empty-password", "-d", "sql:" + directory.string()});
    const std::string authority = KEYFOLD_BUNDLE "/Contents/Resources/orvane_ca.der";
    mustRun({"certutil", "-A", "-n", "institution", "-t", ",,", "-i", authority, "-d", "sql:" + directory.string()});
    signIn(bundle());
    EXPECT_FALSE(isShown("certificateWarnings"));
}

TEST_F(SignIn, EditingMakesTheCertificateGoAndLeavesACheckUnheard)
{
    signIn(bundle());
    type("passphraseField", "wrong");
    EXPECT_FALSE(isShown("certificateCard"));
    press("nextButton");
    EXPECT_TRUE(isShown("checkingLabel"));
    // What the check under way finds is about another pass phrase.
    type("passphraseField", bundle().passphrase);
    EXPECT_FALSE(isShown("checkingLabel"));
    waitFor("certificateCard");
    EXPECT_FALSE(isShown("passphraseMessage"));
}

TEST_F(SignIn, ManyIterationsLeaveThePageAlive)
{
    const Bundle slow = issue({.iterations = 600'000});
    fillIn("ada", slow.file.string(), slow.passphrase);
    press("nextButton");
    int turns = 0;
    QTimer clock;
    QObject::connect(&clock, &QTimer::timeout, [&] { ++turns; });
    clock.start(10);
    waitFor("certificateCard");
    EXPECT_GT(turns, 10);
}

TEST_F(SignIn, ClosingWhileAFileIsOpenedIsSafe)
{
    const Bundle slow = issue({.iterations = 600'000});
    fillIn("ada", slow.file.string(), slow.passphrase);
    press("nextButton");
    EXPECT_TRUE(isShown("checkingLabel"));
    window_->close();
    EXPECT_FALSE(window_->isVisible());
    window_.reset();
}

TEST_F(SignIn, QuittingWhileAFileIsOpenedIsSafe)
{
    const Bundle slow = issue({.iterations = 600'000});
    fillIn("ada", slow.file.string(), slow.passphrase);
    press("nextButton");
    QTimer::singleShot(0, [] { QCoreApplication::quit(); });
    const Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    window_.reset();
}

TEST_F(SignIn, ThePassphraseCanBeShownAndHidden)
{
    auto* field = find<QLineEdit>(window_.get(), "passphraseField");
    EXPECT_EQ(field->echoMode(), QLineEdit::Password);
    press("showButton");
    EXPECT_EQ(field->echoMode(), QLineEdit::Normal);
    EXPECT_EQ(button("showButton")->text(), QStringLiteral("Hide"));
    press("showButton");
    EXPECT_EQ(field->echoMode(), QLineEdit::Password);
    press("showButton");
    signIn(bundle());
    press("nextButton");
    EXPECT_EQ(field->echoMode(), QLineEdit::Password);
}

TEST_F(SignIn, Base64TextIsABundleToo)
{
    signIn("ada", writeBase64(bundle()), bundle().passphrase);
    EXPECT_EQ(label("certificateName"), "Ada Example");
}

/// Deals with the file dialog as soon as it is open.
class FileDialogAnswer {
public:
    explicit FileDialogAnswer(std::function<void(QFileDialog*)> act) : act_(std::move(act))
    {
        QObject::connect(&timer_, &QTimer::timeout, [this] {
            auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
            if (!dialog)
                return;
            timer_.stop();
            ++seen_;
            act_(dialog);
        });
        timer_.start(10);
    }
    int seen() const noexcept { return seen_; }

private:
    std::function<void(QFileDialog*)> act_;
    QTimer timer_;
    int seen_ = 0;
};

TEST_F(SignIn, AFileCanBeChosenInADialog)
{
    const QString file = QString::fromStdString(bundle().file.string());
    const FileDialogAnswer answer([&](QFileDialog* dialog) {
        EXPECT_EQ(dialog->nameFilters().value(0), QStringLiteral("Certificate files (*.p12 *.pfx)"));
        // As a person types it: selecting needs the folder's listing, which another thread reads.
        auto* name = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        ASSERT_TRUE(name);
        name->setText(file);
        QMetaObject::invokeMethod(dialog, "accept");
    });
    press("chooseButton");
    EXPECT_EQ(answer.seen(), 1);
    EXPECT_EQ(find<QLineEdit>(window_.get(), "fileField")->text(), file);
}

TEST_F(SignIn, LeavingTheFileDialogLeavesTheField)
{
    type("fileField", "/some/file");
    const FileDialogAnswer answer([](QFileDialog* dialog) { dialog->reject(); });
    press("chooseButton");
    EXPECT_EQ(answer.seen(), 1);
    EXPECT_EQ(find<QLineEdit>(window_.get(), "fileField")->text(), QStringLiteral("/some/file"));
}

TEST_F(SignIn, QuittingOnAnUntouchedPageIsClean)
{
    QTimer::singleShot(0, [] { QCoreApplication::quit(); });
    const Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_FALSE(std::filesystem::exists(home_.defaultKeychain()));
}

/// Drops `urls` onto the page; whether it took them.
bool drop(QWidget* view, const QList<QUrl>& urls)
{
    QMimeData data;
    data.setUrls(urls);
    QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    enter.ignore();
    QApplication::sendEvent(view, &enter);
    if (!enter.isAccepted())
        return false;
    QDropEvent dropped(QPointF(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(view, &dropped);
    return dropped.isAccepted();
}

TEST_F(SignIn, AFileCanBeDropped)
{
    auto* view = find(window_.get(), "signInView");
    const QString file = QString::fromStdString(bundle().file.string());
    EXPECT_TRUE(drop(view, {QUrl::fromLocalFile(file)}));
    EXPECT_EQ(find<QLineEdit>(window_.get(), "fileField")->text(), file);
    EXPECT_FALSE(find<QLineEdit>(window_.get(), "fileField")->acceptDrops());
}

TEST_F(SignIn, NothingElseCanBeDropped)
{
    auto* view = find(window_.get(), "signInView");
    const QUrl file = QUrl::fromLocalFile(QString::fromStdString(bundle().file.string()));
    EXPECT_FALSE(drop(view, {}));
    EXPECT_FALSE(drop(view, {file, file}));
    EXPECT_FALSE(drop(view, {QUrl::fromLocalFile(QStringLiteral("/tmp"))}));
    EXPECT_FALSE(drop(view, {QUrl(QStringLiteral("https://orvane.example/a.p12"))}));
    EXPECT_TRUE(find<QLineEdit>(window_.get(), "fileField")->text().isEmpty());
}

} // namespace
