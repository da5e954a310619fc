#include "KFWizard/WizardWindow.h"
#include "KFWizard/KFWizardPane.h"
#include "Security/Authorization/OpenRequest.h"
#include "Tests/Wizard/Support.h"

#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QThread>
#include <QVBoxLayout>

namespace {

using kf::WizardWindow;
using kf::test::find;

class Page final : public KFWizardPane {
public:
    explicit Page(std::string name) : name_(std::move(name))
    {
        auto* view = new QWidget;
        auto* layout = new QVBoxLayout(view);
        layout->addWidget(field = new QLabel);
        layout->addWidget(other = new QLabel);
        setContentView(view);
    }
    Ref<NSString> title() const override { return NSString::stringWithUTF8String(name_); }
    void didEnterPane(NSInteger direction) override
    {
        events.push_back("enter " + std::to_string(direction));
        if (onEnter)
            onEnter();
    }
    void didExitPane(NSInteger direction) override { events.push_back("exit " + std::to_string(direction)); }
    bool shouldExitPane(NSInteger) override { return mayLeave; }
    bool showsHelp() const override { return hasHelp; }
    void showHelp(QObject*) override { events.push_back("help"); }

    void runJob(std::function<void()> work, const Ref<NSString>& message = nullptr)
    {
        performBackgroundSelector({"job", [work = std::move(work)](const Ref<NSObject>&) { work(); }}, nullptr, message,
            progressIndicator(), -1.0);
    }

    std::function<void()> onEnter;
    std::vector<std::string> events;
    bool mayLeave = true;
    bool hasHelp = false;
    QLabel* field;
    QLabel* other;

private:
    std::string name_;
};

class Wizard : public testing::Test {
protected:
    Wizard()
    {
        for (const char* name : {"first", "second", "third"}) {
            KFWizardSection* section = window_.addSection();
            pages_.push_back(static_cast<Page*>(section->addPane(std::make_unique<Page>(name))));
        }
        window_.show();
        window_.goToPane(window_.firstPane());
    }
    Page& page(std::size_t index) { return *pages_[index]; }
    QPushButton* button(const char* name) { return find<QPushButton>(&window_, name); }
    void press(const char* name) { button(name)->click(); }

    WizardWindow window_;
    std::vector<Page*> pages_;
};

TEST_F(Wizard, LeadsThroughTheSectionsInOrder)
{
    EXPECT_EQ(window_.currentPane(), &page(0));
    EXPECT_EQ(find<QLabel>(&window_, "titleLabel")->text(), QStringLiteral("first"));
    press("nextButton");
    EXPECT_EQ(window_.currentPane(), &page(1));
    EXPECT_EQ(page(0).events, (std::vector<std::string>{"enter 1", "exit 1"}));
    press("previousButton");
    EXPECT_EQ(window_.currentPane(), &page(0));
    EXPECT_EQ(page(1).events, (std::vector<std::string>{"enter 1", "exit -1"}));
    EXPECT_TRUE(page(0).contentView()->isVisible());
    EXPECT_FALSE(page(1).contentView()->isVisible());
}

TEST_F(Wizard, StaysWhereAPageSaysSo)
{
    page(0).mayLeave = false;
    press("nextButton");
    EXPECT_EQ(window_.currentPane(), &page(0));
}

TEST_F(Wizard, HasNoWayBackFromTheFirstPage)
{
    EXPECT_FALSE(button("previousButton")->isEnabled());
    press("nextButton");
    EXPECT_TRUE(button("previousButton")->isEnabled());
}

TEST_F(Wizard, NobodyGoesBackBehindOrIntoACommittedSection)
{
    press("nextButton");
    page(1).section()->setCommitSection(true);
    EXPECT_FALSE(button("previousButton")->isEnabled());
    window_.goPrevious();
    EXPECT_EQ(window_.currentPane(), &page(1));
    press("nextButton");
    EXPECT_FALSE(button("previousButton")->isEnabled());
    window_.goPrevious();
    EXPECT_EQ(window_.currentPane(), &page(2));
}

TEST_F(Wizard, EndsAfterAFinalSection)
{
    press("nextButton");
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Next"));
    page(1).section()->setFinalSection(true);
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Close"));
    press("nextButton");
    EXPECT_FALSE(window_.isVisible());
    EXPECT_EQ(page(1).events.back(), "exit 1");
    EXPECT_TRUE(page(2).events.empty());
}

TEST_F(Wizard, ClosesAfterTheLastPage)
{
    press("nextButton");
    press("nextButton");
    EXPECT_EQ(button("nextButton")->text(), QStringLiteral("Close"));
    press("nextButton");
    EXPECT_FALSE(window_.isVisible());
}

TEST_F(Wizard, APageEnablesAndDisablesTheButtons)
{
    press("nextButton");
    page(1).setNextEnabled(false);
    page(1).setPreviousEnabled(false);
    EXPECT_FALSE(button("nextButton")->isEnabled());
    EXPECT_FALSE(button("previousButton")->isEnabled());
    page(1).setNextEnabled(true);
    EXPECT_TRUE(button("nextButton")->isEnabled());
}

TEST_F(Wizard, TheHelpButtonIsThereForPagesWithHelp)
{
    EXPECT_FALSE(button("helpButton")->isVisible());
    page(1).hasHelp = true;
    press("nextButton");
    EXPECT_TRUE(button("helpButton")->isVisible());
    press("helpButton");
    EXPECT_EQ(page(1).events.back(), "help");
}

TEST_F(Wizard, AMessageGoesToTheFieldThatIsActiveWhenItIsShown)
{
    page(0).setActiveMessageField(page(0).field);
    page(0).runJob([this] { page(0).showMessage("from the job"_ns); });
    EXPECT_EQ(page(0).field->text(), QStringLiteral("from the job"));
    page(0).setActiveMessageField(page(0).other);
    page(0).runJob([this] { page(0).showError("an error <b>"_ns); });
    EXPECT_EQ(page(0).field->text(), QStringLiteral("from the job"));
    EXPECT_EQ(page(0).other->text(), QStringLiteral("an error <b>"));
    EXPECT_EQ(page(0).other->textFormat(), Qt::PlainText);
}

TEST_F(Wizard, AnErrorIsColouredAndAMessageAfterItIsNot)
{
    const QColor plain = page(0).field->palette().color(QPalette::WindowText);
    page(0).setActiveMessageField(page(0).field);
    page(0).showError("no"_ns);
    EXPECT_NE(page(0).field->palette().color(QPalette::WindowText), plain);
    page(0).showMessage("yes"_ns);
    EXPECT_EQ(page(0).field->palette().color(QPalette::WindowText), plain);
}

TEST_F(Wizard, TheSummaryOfOnePageIsNotSeenOnTheNext)
{
    page(0).setActiveMessageField(page(0).messageField());
    page(0).showMessage("done"_ns);
    EXPECT_EQ(find<QLabel>(&window_, "messageField")->text(), QStringLiteral("done"));
    press("nextButton");
    EXPECT_TRUE(find<QLabel>(&window_, "messageField")->text().isEmpty());
}

TEST_F(Wizard, JobsReachTheFieldStore)
{
    window_.fields().setValue("anna"_ns, "login"_ns);
    Ref<NSObject> seen;
    page(0).runJob([&] {
        seen = page(0).valueForField("login"_ns);
        page(0).setValue(nullptr, "login"_ns);
    });
    EXPECT_TRUE(CFEqual(seen, "anna"_ns));
    EXPECT_EQ(window_.fields().valueForField("login"_ns), nullptr);
}

TEST_F(Wizard, ADisplayMessageIsShownWhileTheJobRuns)
{
    auto* activity = find<QLabel>(&window_, "activityLabel");
    QString shown;
    QTimer::singleShot(20, [&] { shown = activity->isVisible() ? activity->text() : QString(); });
    page(0).runJob([] { QThread::msleep(60); }, "Looking around"_ns);
    EXPECT_EQ(shown, QStringLiteral("Looking around"));
    EXPECT_FALSE(activity->isVisible());
}

TEST_F(Wizard, ClosingWaitsUntilThePageIsDone)
{
    bool visibleBetweenJobs = false;
    bool secondJobRan = false;
    page(1).onEnter = [&] {
        QTimer::singleShot(10, [this] { window_.close(); });
        page(1).runJob([] { QThread::msleep(50); });
        visibleBetweenJobs = window_.isVisible();
        page(1).runJob([&] { secondJobRan = true; });
    };
    press("nextButton");
    EXPECT_TRUE(visibleBetweenJobs);
    EXPECT_TRUE(secondJobRan);
    EXPECT_FALSE(window_.isVisible());
}

TEST_F(Wizard, ClosingGivesUpAQuestionForAdministratorRights)
{
    bool isAnswered = true;
    page(1).onEnter = [&] {
        QTimer::singleShot(30, [this] { window_.close(); });
        page(1).runJob([&] {
            const kf::authorization::OpenRequest request;
            isAnswered = request.waitFor(-1);
        });
    };
    press("nextButton");
    EXPECT_FALSE(isAnswered);
    EXPECT_FALSE(window_.isVisible());
}

TEST_F(Wizard, ButtonsDoNothingWhileAPageIsBeingEntered)
{
    page(1).onEnter = [&] {
        QTimer::singleShot(5, [this] {
            window_.goNext();
            window_.goPrevious();
            window_.goToPane(&page(0));
        });
        page(1).runJob([] { QThread::msleep(40); });
    };
    press("nextButton");
    EXPECT_EQ(window_.currentPane(), &page(1));
    EXPECT_EQ(page(1).events, std::vector<std::string>{"enter 1"});
}

TEST_F(Wizard, GrowsForAPageThatNeedsMoreRoom)
{
    const int before = window_.height();
    page(0).field->setWordWrap(true);
    page(0).field->setText(QStringLiteral("A long text. ").repeated(200));
    EXPECT_TRUE(QTest::qWaitFor([&] { return window_.height() > before; }));
    auto* area = window_.findChild<QScrollArea*>(QStringLiteral("pageArea"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return area->verticalScrollBar()->maximum() == 0; }));
    EXPECT_EQ(area->focusPolicy(), Qt::NoFocus);
}

TEST_F(Wizard, APageHigherThanTheScreenIsScrolledByKeyboard)
{
    page(0).field->setWordWrap(true);
    page(0).field->setText(QStringLiteral("A long text. ").repeated(3000));
    auto* area = window_.findChild<QScrollArea*>(QStringLiteral("pageArea"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return area->verticalScrollBar()->maximum() > 0; }));
    EXPECT_LE(window_.height(), window_.screen()->availableSize().height());
    EXPECT_EQ(area->focusPolicy(), Qt::StrongFocus);
    QTest::keyClick(area, Qt::Key_PageDown);
    EXPECT_GT(area->verticalScrollBar()->value(), 0);
}

TEST_F(Wizard, EscapeDoesNotCloseIt)
{
    QTest::keyClick(&window_, Qt::Key_Escape);
    EXPECT_TRUE(window_.isVisible());
}

TEST_F(Wizard, ReturnPressesNext)
{
    QTest::keyClick(&window_, Qt::Key_Return);
    EXPECT_EQ(window_.currentPane(), &page(1));
}

TEST(PaneWithoutWizard, AsksNobodyAndGetsNil)
{
    Page page("alone");
    page.setNextEnabled(true);
    page.setActiveMessageField(page.messageField());
    page.showMessage("nobody reads this"_ns);
    page.setValue("x"_ns, "key"_ns);
    EXPECT_EQ(page.valueForField("key"_ns), nullptr);
    EXPECT_EQ(page.progressIndicator(), nullptr);
    bool ran = false;
    page.runJob([&] { ran = true; });
    EXPECT_FALSE(ran);
}

} // namespace
