#include "AppKit/NSAlert.h"
#include "AppKit/NSWorkspace.h"
#include "AppKit/QtPresenter.h"
#include "Foundation/NSNumber.h"
#include "Tests/Wizard/Support.h"
#include "Tests/Wizard/URLReceiver.h"

#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>

namespace {

using kf::test::find;
using kf::test::WhenDialogOpens;

class CountingDelegate final : public NSAlertDelegate {
public:
    bool alertShowHelp(NSAlert*) override
    {
        ++calls;
        return true;
    }
    int calls = 0;
};

class Alert : public testing::Test {
protected:
    Alert() : before_(kf::Presenter::setCurrent(&presenter_))
    {
        alert_ =
            NSAlert::alertWithMessageText("Delete?"_ns, "No"_ns, "Yes"_ns, nullptr, "%@ and %@", "one"_ns, "two"_ns);
        alert_->setDelegate(&delegate_);
        alert_->setShowsHelp(true);
        alert_->setAlertStyle(NSCriticalAlertStyle);
    }
    ~Alert() override { kf::Presenter::setCurrent(before_); }

    /// Runs the alert while `act` does something to its window.
    NSInteger run(std::function<void(QWidget*)> act)
    {
        const WhenDialogOpens watch("alert", std::move(act));
        const NSInteger code = alert_->runModal();
        EXPECT_EQ(watch.seen(), 1);
        return code;
    }

    kf::QtPresenter presenter_;
    kf::Presenter* before_;
    CountingDelegate delegate_;
    Ref<NSAlert> alert_;
};

TEST_F(Alert, AClickOnYesIsTheOnlyWayToYes)
{
    EXPECT_EQ(run([](QWidget* box) { find<QPushButton>(box, "alternateButton")->click(); }), NSAlertAlternateReturn);
}

TEST_F(Alert, AClickOnNoIsNo)
{
    EXPECT_EQ(run([](QWidget* box) { find<QPushButton>(box, "defaultButton")->click(); }), NSAlertDefaultReturn);
}

TEST_F(Alert, EscapeIsNo)
{
    EXPECT_EQ(run([](QWidget* box) { QTest::keyClick(box, Qt::Key_Escape); }), NSAlertDefaultReturn);
}

TEST_F(Alert, ReturnIsNo)
{
    EXPECT_EQ(run([](QWidget* box) { QTest::keyClick(box, Qt::Key_Return); }), NSAlertDefaultReturn);
}

TEST_F(Alert, ReturnIsNoEvenWhereYesHasTheFocus)
{
    EXPECT_EQ(run([](QWidget* box) {
        find<QPushButton>(box, "alternateButton")->setFocus();
        QTest::keyClick(box->focusWidget(), Qt::Key_Return);
    }),
        NSAlertDefaultReturn);
}

TEST_F(Alert, TheSpaceBarOnYesIsAClickOnYes)
{
    EXPECT_EQ(run([](QWidget* box) {
        auto* yes = find<QPushButton>(box, "alternateButton");
        for (int stops = 0; stops < 5 && box->focusWidget() != yes; ++stops)
            QTest::keyClick(box->focusWidget(), Qt::Key_Tab);
        QTest::keyClick(box->focusWidget(), Qt::Key_Space);
        box->close();
    }),
        NSAlertAlternateReturn);
}

TEST_F(Alert, ClosingIsNo)
{
    EXPECT_EQ(run([](QWidget* box) { box->close(); }), NSAlertDefaultReturn);
}

TEST_F(Alert, QuittingIsNo)
{
    NSInteger code = -7;
    QTimer::singleShot(0, [&] { code = run([](QWidget*) { QCoreApplication::quit(); }); });
    const kf::test::Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_EQ(code, NSAlertDefaultReturn);
}

TEST_F(Alert, AfterGivingUpTheAnswerIsNoWithoutAQuestion)
{
    presenter_.giveUp();
    const WhenDialogOpens watch("alert", [](QWidget* box) { find<QPushButton>(box, "alternateButton")->click(); });
    EXPECT_EQ(alert_->runModal(), NSAlertDefaultReturn);
    EXPECT_FALSE(presenter_.keychainPassphrase({"/home/anna/.pki/nssdb"_ns, 1}));
    EXPECT_FALSE(presenter_.chooseIdentity({"Which?"_ns, "None"_ns, {}}));
    EXPECT_EQ(watch.seen(), 0);
}

TEST_F(Alert, ExitingIsNo)
{
    NSInteger code = -7;
    QTimer::singleShot(0, [&] { code = run([](QWidget*) { QCoreApplication::exit(4); }); });
    EXPECT_EQ(QApplication::exec(), 4);
    EXPECT_EQ(code, NSAlertDefaultReturn);
}

TEST_F(Alert, TheHelpButtonAsksTheDelegateAndLeavesTheAlertOpen)
{
    EXPECT_EQ(run([this](QWidget* box) {
        find<QPushButton>(box, "helpButton")->click();
        EXPECT_EQ(delegate_.calls, 1);
        EXPECT_TRUE(box->isVisible());
        find<QPushButton>(box, "alternateButton")->click();
    }),
        NSAlertAlternateReturn);
}

TEST_F(Alert, ReturnAfterHelpIsNoAndNotHelpAgain)
{
    EXPECT_EQ(run([](QWidget* box) {
        auto* help = find<QPushButton>(box, "helpButton");
        QTest::mouseClick(help, Qt::LeftButton);
        QTest::keyClick(help, Qt::Key_Return);
    }),
        NSAlertDefaultReturn);
    EXPECT_EQ(delegate_.calls, 1);
}

TEST_F(Alert, ShowsItsTextsAsTheyAreAndTheCriticalIcon)
{
    run([](QWidget* widget) {
        auto* box = qobject_cast<QMessageBox*>(widget);
        EXPECT_EQ(box->text(), QStringLiteral("Delete?"));
        EXPECT_EQ(box->informativeText(), QStringLiteral("one and two"));
        EXPECT_EQ(box->icon(), QMessageBox::Critical);
        EXPECT_EQ(box->textFormat(), Qt::PlainText);
        EXPECT_EQ(find<QPushButton>(box, "defaultButton")->text(), QStringLiteral("No"));
        EXPECT_TRUE(find<QPushButton>(box, "defaultButton")->isDefault());
        box->close();
    });
}

// Run at 200 %, too.
TEST_F(Alert, ItsSignIsAsSharpAsTheScreen)
{
    run([](QWidget* box) {
        const QPixmap sign = find<QLabel>(box, "qt_msgboxex_icon_label")->pixmap();
        EXPECT_EQ(sign.devicePixelRatio(), box->devicePixelRatioF());
        EXPECT_EQ(sign.width(), 32 * box->devicePixelRatioF());
        box->close();
    });
}

TEST_F(Alert, WithoutHelpThereIsNoHelpButton)
{
    alert_->setShowsHelp(false);
    run([](QWidget* box) {
        EXPECT_EQ(box->findChild<QPushButton*>(QStringLiteral("helpButton")), nullptr);
        box->close();
    });
}

TEST_F(Alert, WithoutAPresenterTheAnswerIsNo)
{
    kf::Presenter::setCurrent(nullptr);
    EXPECT_EQ(alert_->runModal(), NSAlertDefaultReturn);
}

TEST_F(Alert, AsASheetItReturnsAtOnceAndTellsTheButton)
{
    QWidget window;
    window.show();
    Ref<NSNumber> told;
    alert_->beginSheetModalForWindow(
        &window, {"didEnd", [&](const Ref<NSObject>& code) { told = refCast<NSNumber>(code); }});
    EXPECT_EQ(told, nullptr);
    auto* box = find<QMessageBox>(&window, "alert");
    EXPECT_TRUE(box->isVisible());
    EXPECT_EQ(box->windowModality(), Qt::WindowModal);
    find<QPushButton>(box, "alternateButton")->click();
    ASSERT_NE(told, nullptr);
    EXPECT_EQ(told->intValue(), NSAlertAlternateReturn);
}

TEST_F(Alert, AskedFromAnotherThreadOpensOnTheMainOne)
{
    QThread* opened = nullptr;
    const WhenDialogOpens watch("passphraseBox", [&](QWidget* box) {
        opened = QThread::currentThread();
        find<QLineEdit>(box, "passphraseField")->setText(QStringLiteral("gehörig"));
        find<QPushButton>(box, "unlockButton")->click();
    });
    std::optional<SecretBytes> answer;
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        answer = presenter_.keychainPassphrase({"/home/anna/.pki/nssdb"_ns, 1});
    }));
    thread->start();
    while (!thread->isFinished())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    EXPECT_EQ(opened, qApp->thread());
    ASSERT_TRUE(answer);
    EXPECT_EQ(std::string(answer->begin(), answer->end()), "gehörig");
}

TEST_F(Alert, APassphraseQuestionNamesTheKeychainAndTellsAWrongAnswer)
{
    for (const int attempt : {1, 2}) {
        const WhenDialogOpens watch("passphraseBox", [&](QWidget* box) {
            EXPECT_TRUE(find<QLabel>(box, "questionLabel")->text().contains(QStringLiteral("/home/anna/.pki/nssdb")));
            EXPECT_EQ(box->findChild<QLabel*>(QStringLiteral("retryLabel")) != nullptr, attempt == 2);
            EXPECT_EQ(find<QLineEdit>(box, "passphraseField")->echoMode(), QLineEdit::Password);
            find<QPushButton>(box, "cancelButton")->click();
        });
        EXPECT_FALSE(presenter_.keychainPassphrase({"/home/anna/.pki/nssdb"_ns, attempt}));
        EXPECT_EQ(watch.seen(), 1);
    }
}

TEST(Workspace, OpensWebAddressesAndNothingElse)
{
    kf::test::URLReceiver receiver;
    NSWorkspace& workspace = NSWorkspace::sharedWorkspace();
    EXPECT_TRUE(workspace.openURL("https://help.orvane.example/certificates"_ns));
    EXPECT_EQ(receiver.opened, QList<QUrl>{QUrl(QStringLiteral("https://help.orvane.example/certificates"))});
    for (const char* other : {"file:///etc/passwd", "javascript:alert(1)", "help", "", "https://["})
        EXPECT_FALSE(workspace.openURL(NSString::stringWithUTF8String(other))) << other;
    EXPECT_FALSE(workspace.openURL(nullptr));
}

} // namespace
