// The page's life in its wizard.

#include "AppKit/QObjectReference.h"
#include "Foundation/NSNumber.h"
#include "Pane/KFInstallerPane+Private.h"
#include "PaneConfiguration.h"
#include "Tests/Wizard/PaneFixture.h"
#include "Tests/Wizard/URLReceiver.h"

#include <QDialog>
#include <QMessageBox>
#include <QPaintEvent>
#include <QRegularExpression>
#include <QTextBlock>
#include <QTextBrowser>

#include <link.h>
#include <thread>

namespace {

using namespace kf::test;
using testing::ElementsAre;

/// Writes down what the page asks of its wizard; jobs are not run.
class RecordingHost final : public kf::PaneHost {
public:
    explicit RecordingHost(KFInstallerPane* pane) : pane_(pane)
    {
        messageField_.setObjectName(QStringLiteral("messageField"));
    }
    void setNextEnabled(bool enabled) override
    {
        events.push_back(enabled ? "next on" : "next off");
        if (enabled && whenNextIsOn)
            whenNextIsOn();
    }
    void setPreviousEnabled(bool enabled) override { events.push_back(enabled ? "previous on" : "previous off"); }
    QLabel* messageField() override { return &messageField_; }
    QProgressBar* progressIndicator() override { return &progress_; }
    kf::FieldStore& fields() override { return fields_; }
    void runJob(const kf::BackgroundJob& job, const Ref<NSString>& displayMessage) override
    {
        events.push_back("job " + job.selector.name);
        EXPECT_EQ(job.object, nullptr);
        EXPECT_EQ(displayMessage, nullptr);
        EXPECT_EQ(job.progressIndicator, &progress_);
        EXPECT_EQ(job.timeout, -1.0);
        states.push_back({pane_->authorityStatus()->state(), pane_->personalStatus()->state()});
        pane_->showMessage(NSString::stringWithUTF8String("said by " + job.selector.name));
        if (afterJob)
            afterJob(job.selector.name);
    }

    std::vector<std::string> events;
    std::vector<std::pair<NSInteger, NSInteger>> states;
    std::function<void(const std::string& name)> afterJob;
    std::function<void()> whenNextIsOn;

private:
    KFInstallerPane* pane_;
    QLabel messageField_;
    QProgressBar progress_;
    kf::FieldStore fields_;
};

class Pane : public PaneTest {
protected:
    Pane() : host_(pane_) { authorization_.refuse(errAuthorizationDenied); }

    /// Enters the page with a host that runs nothing; the jobs end as told.
    void enterRecorded(NSInteger authority, NSInteger personal)
    {
        pane_->setHost(&host_);
        QObject::connect(pane_->section(), &KFWizardSection::changed,
            [this] { host_.events.push_back(pane_->section()->isFinalSection() ? "final" : "commit"); });
        host_.afterJob = [=, this](const std::string& name) {
            if (name == "installPersonalCertificate") {
                pane_->authorityStatus()->setState(authority);
                pane_->personalStatus()->setState(personal);
            }
        };
        pane_->didEnterPane(KFWizardForward);
        pane_->setHost(&window_);
    }

    void prepareBundle()
    {
        static const Bundle bundle = institution().issue();
        setField("login", "ada"_ns);
        setBundle(bundle.pkcs12, bundle.passphrase);
    }

    RecordingHost host_;
};

TEST_F(Pane, EntersInItsOrder)
{
    enterRecorded(1, 1);
    EXPECT_THAT(host_.events,
        ElementsAre("next off", "previous off", "commit", "job installCertificateAuthority",
            "job installPersonalCertificate", "next on"));
    EXPECT_THAT(
        host_.states, ElementsAre(std::pair(NSInteger{-1}, NSInteger{-1}), std::pair(NSInteger{-1}, NSInteger{-1})));
    EXPECT_THAT(shown_,
        ElementsAre(Shown{"caMessages", "said by installCertificateAuthority", false, -1, -1},
            Shown{"certMessages", "said by installPersonalCertificate", false, -1, -1},
            Shown{"messageField", "Your certificates were successfully installed", false, 1, 1}));
}

TEST_F(Pane, AFailedPersonalCertificateMakesTheSectionFinalBeforeTheSummary)
{
    QObject::connect(pane_, &KFWizardPane::messageShown, [this](QLabel* field) {
        if (field == host_.messageField())
            host_.events.push_back("summary");
    });
    enterRecorded(1, 0);
    EXPECT_THAT(host_.events,
        ElementsAre("next off", "previous off", "commit", "job installCertificateAuthority",
            "job installPersonalCertificate", "next on", "final", "summary"));
    EXPECT_EQ(
        shown_.back(), (Shown{"messageField", "There was an error while installing your certificates", false, 1, 0}));
}

TEST_F(Pane, TheGeneralMessageFieldIsActiveWhenNextTurnsOn)
{
    host_.whenNextIsOn = [this] { pane_->showMessage("said by the wizard"_ns); };
    enterRecorded(1, 1);
    EXPECT_THAT(shown_, testing::Contains(Shown{"messageField", "said by the wizard", false, 1, 1}));
}

TEST_F(Pane, OnlyTheStateOneIsSuccess)
{
    enterRecorded(1, -1);
    EXPECT_TRUE(pane_->section()->isFinalSection());
}

TEST_F(Pane, AFailedAuthorityPlaysNoPartInTheSummary)
{
    enterRecorded(0, 1);
    EXPECT_FALSE(pane_->section()->isFinalSection());
    EXPECT_EQ(shown_.back().text, "Your certificates were successfully installed");
}

class PaintWatch final : public QObject {
public:
    bool eventFilter(QObject*, QEvent* event) override
    {
        painted = painted || event->type() == QEvent::Paint;
        return false;
    }
    bool painted = false;
};

TEST_F(Pane, ShowsTheDisabledButtonsBeforeItWorks)
{
    window_.show();
    window_.goToPane(pane_); // a real visit; then the page is watched on another one
    QCoreApplication::processEvents();
    PaintWatch watch;
    window_.installEventFilter(&watch);
    pane_->setHost(&host_);
    bool paintedBeforeJobs = false;
    host_.afterJob = [&](const std::string&) { paintedBeforeJobs = watch.painted; };
    pane_->didEnterPane(KFWizardForward);
    pane_->setHost(&window_);
    EXPECT_TRUE(paintedBeforeJobs);
}

TEST_F(Pane, HasItsTitleAndHelp)
{
    EXPECT_EQ(toUTF8(pane_->title()), "Install Your Certificates");
    EXPECT_TRUE(pane_->showsHelp());
}

TEST_F(Pane, EnteredTwiceRunsBothJobsTwice)
{
    prepareBundle();
    window_.goToPane(pane_);
    EXPECT_EQ(pane_->personalStatus()->state(), 1);
    EXPECT_FALSE(pane_->section()->isFinalSection());
    shown_.clear();
    window_.goToPane(pane_);
    ASSERT_EQ(shown_.size(), 4U);
    EXPECT_EQ(shown_[0], (Shown{"caMessages", "Certificate authority is valid", false, 1, -1}));
    EXPECT_EQ(shown_[1].text, "Installing your personal certificate");
    EXPECT_EQ(shown_[2].text, "Failed to install your personal certificate:\n" + text(errSecDataNotAvailable));
    EXPECT_EQ(shown_[3].text, "There was an error while installing your certificates");
    EXPECT_TRUE(pane_->section()->isFinalSection());
}

TEST_F(Pane, LeavingEmptiesTheMessagesAndKeepsTheSpheres)
{
    prepareBundle();
    window_.goToPane(pane_);
    EXPECT_FALSE(pane_->caMessages()->text().isEmpty());
    EXPECT_FALSE(pane_->certMessages()->text().isEmpty());
    EXPECT_FALSE(pane_->messageField()->text().isEmpty());
    pane_->didExitPane(KFWizardForward);
    EXPECT_TRUE(pane_->caMessages()->text().isEmpty());
    EXPECT_TRUE(pane_->certMessages()->text().isEmpty());
    EXPECT_TRUE(pane_->messageField()->text().isEmpty());
    EXPECT_EQ(pane_->authorityStatus()->state(), 1);
    EXPECT_EQ(pane_->personalStatus()->state(), 1);
}

TEST_F(Pane, TheHelpPanelStandsBesideTheWindow)
{
    window_.show();
    window_.goToPane(pane_);
    window_.move(40, 60);
    QCoreApplication::processEvents();
    pane_->showHelp(nullptr);
    QCoreApplication::processEvents();
    ASSERT_TRUE(pane_->helpWindow()->isVisible());
    const QRect window = window_.frameGeometry();
    const QRect panel = pane_->helpWindow()->frameGeometry();
    EXPECT_EQ(panel.x(), window.x() + window.width() + 15);
    EXPECT_EQ(panel.y(), window.y());
    EXPECT_EQ(pane_->helpWindow()->size(), QSize(420, 480));
    EXPECT_EQ(pane_->helpWindow()->windowType(), Qt::Tool);
    EXPECT_EQ(pane_->helpWindow()->parentWidget(), &window_);
}

TEST_F(Pane, AHelpPanelThatIsVisibleIsNotMoved)
{
    window_.show();
    window_.goToPane(pane_);
    pane_->showHelp(nullptr);
    pane_->helpWindow()->move(3, 4);
    pane_->showHelp(nullptr);
    EXPECT_EQ(pane_->helpWindow()->pos(), QPoint(3, 4));
    pane_->helpWindow()->hide();
    pane_->showHelp(nullptr);
    EXPECT_NE(pane_->helpWindow()->pos(), QPoint(3, 4));
}

TEST_F(Pane, TheHelpPanelComesToTheFrontWhenItIsShown)
{
    class Raised final : public QObject {
    public:
        bool eventFilter(QObject*, QEvent* event) override
        {
            count += event->type() == QEvent::ZOrderChange;
            return false;
        }
        int count = 0;
    } raised;
    window_.show();
    window_.goToPane(pane_);
    QWidget* const panel = pane_->helpWindow();
    pane_->showHelp(nullptr); // now it has its parent
    panel->hide();
    panel->installEventFilter(&raised);
    panel->show();
    const int byShowing = std::exchange(raised.count, 0);
    panel->hide();
    pane_->showHelp(nullptr);
    EXPECT_EQ(raised.count, byShowing + 1);
    pane_->showHelp(nullptr);
    EXPECT_EQ(raised.count, byShowing + 1); // visible: left where the person put it
    panel->removeEventFilter(&raised);
}

/// Where the links of a document lead.
std::vector<std::string> links(const QTextDocument& document)
{
    std::vector<std::string> found;
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        for (auto at = block.begin(); !at.atEnd(); ++at) {
            if (const QTextCharFormat format = at.fragment().charFormat(); format.isAnchor())
                found.push_back(format.anchorHref().toStdString());
        }
    }
    return found;
}

TEST_F(Pane, TheHelpDocumentIsReadWithItsLinks)
{
    const QString text = pane_->helpText()->toPlainText();
    EXPECT_TRUE(text.startsWith(QStringLiteral("Installing your certificates"))) << text.left(60).toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("What the spheres mean")));
    EXPECT_TRUE(text.contains(QStringLiteral("help@orvane.example")));
    EXPECT_FALSE(text.contains(u'\\'));
    EXPECT_FALSE(text.contains(u'@') && text.contains(QStringLiteral("KEYFOLD_")));
    EXPECT_THAT(
        links(*pane_->helpText()->document()), ElementsAre(kf::configuration::helpURL, "mailto:help@orvane.example"));
}

TEST_F(Pane, TheHelpTellsWhatToDoForEveryMessage)
{
    const QString help = pane_->helpText()->toPlainText();
    for (const char* message : {"Certificate authority is valid", "Failed to install the certificate authority",
             "Installing your personal certificate", "Personal certificate has been successfully installed",
             "Failed to install your personal certificate", "Your certificates were successfully installed",
             "There was an error while installing your certificates", "Existing certificates found",
             "Unlock the Keychain"})
        EXPECT_TRUE(help.contains(QStringLiteral("“%1”\u2028").arg(QLatin1String(message)))
            || help.contains(QStringLiteral("“%1”\n").arg(QLatin1String(message))))
            << message;
}

// What an import can end with; the texts are the platform's.
TEST_F(Pane, TheHelpTellsWhatToDoForEveryReason)
{
    const QString help = pane_->helpText()->toPlainText();
    for (const OSStatus status :
        {errSecPkcs12VerifyFailure, errSecDecode, errSecUnknownFormat, errSecDataNotAvailable, errSecNoCertificate,
            errSecMultiplePrivKeys, errSecDataTooLarge, errSecUnsupportedKeyFormat, errSecUnsupportedKeySize,
            errSecAuthFailed, errSecUserCanceled, errSecInteractionNotAllowed, errSecKeychainBusy, errSecIO,
            errSecAllocate, errSecInvalidKeychain, errSecKeychainEmpty, errSecKeychainWrongType,
            errSecKeychainUnreadable, errSecWrPerm, errSecReadOnly, errSecIssuerAndSerialTaken}) {
        // Up to where the text says more: "The file is too large" of "The file is too large, holds too many ...".
        static const QRegularExpression end(QStringLiteral("[.,:]| It is not | and does not | with the same "));
        const QString reason = QString::fromStdString(text(status)).section(end, 0, 0);
        EXPECT_TRUE(help.contains(reason, Qt::CaseInsensitive)) << reason.toStdString();
    }
}

// Whoever reads this part alone must know what is lost, and for how long.
TEST_F(Pane, TheHelpWarnsOfDeletingWhatOldMailIsReadWith)
{
    const QString help = pane_->helpText()->toPlainText();
    const QString part = help.mid(help.indexOf(QStringLiteral("\nOld certificates and encrypted mail\n")));
    EXPECT_TRUE(part.contains(QStringLiteral("Do not delete old certificates if you have ever received encrypted "
                                             "mail (S/MIME).")));
    EXPECT_TRUE(part.contains(QStringLiteral("nobody can ever read those messages again")));
}

TEST_F(Pane, TheHelpIsAsLargeAsTheDesktopsLetters)
{
    const QFont before = QApplication::font();
    QFont large = before;
    large.setPointSizeF(21);
    QApplication::setFont(large);
    const std::unique_ptr<KFWizardPane> made = kf::PlugIn(QStringLiteral(KEYFOLD_BUNDLE)).createPane();
    QApplication::setFont(before);
    ASSERT_NE(made, nullptr);
    auto* pane = dynamic_cast<KFInstallerPane*>(made.get());
    const auto sizes = [](const QTextDocument* document) {
        std::vector<double> all;
        for (QTextBlock block = document->begin(); block.isValid(); block = block.next()) {
            for (auto at = block.begin(); !at.atEnd(); ++at)
                all.push_back(at.fragment().charFormat().fontPointSize());
        }
        return all;
    };
    std::vector<double> expected = sizes(pane_->helpText()->document());
    EXPECT_GT(expected.size(), 50U);
    for (double& size : expected)
        size *= 2;
    EXPECT_THAT(sizes(pane->helpText()->document()), testing::Pointwise(testing::DoubleNear(0.01), expected));
    EXPECT_EQ(pane->helpWindow()->size(), 2 * pane_->helpWindow()->size());
}

TEST_F(Pane, ALinkInTheHelpOpensInTheBrowserAndLeavesTheText)
{
    URLReceiver receiver;
    const QString before = pane_->helpText()->toPlainText();
    Q_EMIT pane_->helpText()->anchorClicked(QUrl(QStringLiteral("https://orvane.example/x")));
    EXPECT_EQ(receiver.opened, QList<QUrl>{QUrl(QStringLiteral("https://orvane.example/x"))});
    EXPECT_EQ(pane_->helpText()->toPlainText(), before);
}

TEST_F(Pane, ShowsAnAlertOfTheWizardAsASheet)
{
    window_.show();
    window_.goToPane(pane_);
    pane_->showAlertOnMainThread(
        NSAlert::alertWithMessageText("From the wizard"_ns, nullptr, nullptr, nullptr, "%@", "text"_ns));
    auto* box = find<QMessageBox>(&window_, "alert");
    ASSERT_NE(box, nullptr);
    EXPECT_TRUE(box->isVisible());
    EXPECT_EQ(box->windowModality(), Qt::WindowModal);
    box->close();
}

TEST_F(Pane, AStatusIsSetOnTheMainThreadBeforeTheCallReturns)
{
    NSInteger seen = 7;
    pane_->performBackgroundSelector({"probe",
                                         [&](const Ref<NSObject>&) {
                                             Private::setState(pane_, -1, pane_->personalStatus());
                                             seen = pane_->personalStatus()->state();
                                         }},
        nullptr, nullptr, nullptr, -1.0);
    EXPECT_EQ(seen, -1);
}

TEST_F(Pane, TheMainThreadsHalfTakesViewAndSignedNumber)
{
    const auto view = kf::QObjectReference::referenceTo(pane_->personalStatus());
    Private::setStateForStatusView(pane_, NSArray::arrayWithObjects({view, NSNumber::numberWithInt(-1)}));
    EXPECT_EQ(pane_->personalStatus()->state(), -1);
    Private::setStateForStatusView(pane_, NSArray::arrayWithObjects({view, NSNumber::numberWithLong(0xFFFFFFFFLL)}));
    EXPECT_EQ(pane_->personalStatus()->state(), -1);
    Private::setStateForStatusView(pane_, nullptr);
    Private::setStateForStatusView(pane_, NSArray::array());
    EXPECT_EQ(pane_->personalStatus()->state(), -1);
}

TEST_F(Pane, QuittingWhileAJobRunsWaitsForBothJobs)
{
    prepareBundle();
    authorization_.refuse(errSecSuccess);
    bool quitAsked = false;
    authorization_.setTool([&](const kf::authorization::ToolCommand&) {
        QMetaObject::invokeMethod(
            qApp,
            [&] {
                quitAsked = true;
                QCoreApplication::quit();
            },
            Qt::QueuedConnection);
        QThread::msleep(50);
        return 0;
    });
    window_.show();
    QTimer::singleShot(0, [this] { window_.goToPane(pane_); });
    const kf::test::Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_TRUE(quitAsked);
    EXPECT_EQ(pane_->personalStatus()->state(), 1);
    EXPECT_EQ(keys(), 1U);
}

// One instance: the page's import waits for the lock that this program holds.
TEST_F(Pane, BundleAndProgramShareTheWriterLock)
{
    prepareBundle();
    std::unique_lock<std::mutex> held(kf::keychain::writerLock());
    NSInteger stateWhileHeld = 7;
    QTimer::singleShot(300, [&] {
        stateWhileHeld = pane_->personalStatus()->state();
        held.unlock();
    });
    runPersonalJob();
    EXPECT_EQ(stateWhileHeld, -1);
    EXPECT_EQ(pane_->personalStatus()->state(), 1);
}

int countLibrary(dl_phdr_info* information, std::size_t, void* counts)
{
    const std::string path = information->dlpi_name;
    for (const char* name :
        {"libKeyfoldFoundation.so", "libKeyfoldSecurity.so", "libKeyfoldAppKit.so", "libKFWizard.so"}) {
        if (path.ends_with(name))
            ++(*static_cast<std::map<std::string, int>*>(counts))[name];
    }
    return 0;
}

TEST_F(Pane, EachPlatformLibraryIsLoadedOnce)
{
    std::map<std::string, int> counts;
    dl_iterate_phdr(countLibrary, &counts);
    EXPECT_EQ(counts.size(), 4U);
    for (const auto& [name, number] : counts)
        EXPECT_EQ(number, 1) << name;
}

} // namespace
