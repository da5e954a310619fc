// The identity chooser's window.

#include "AppKit/IdentityBox.h"
#include "AppKit/QtPresenter.h"
#include "Tests/Wizard/Support.h"

#include <gmock/gmock.h>

#include <QAccessible>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QScreen>
#include <QScrollBar>

#include <thread>

namespace {

using kf::IdentityChoice;
using kf::IdentityQuestion;
using kf::test::find;
using kf::test::WhenDialogOpens;
using Choice = std::optional<std::size_t>;

constexpr std::int64_t y2021 = 1609459200;
constexpr std::int64_t y2049 = 2493072000;
constexpr std::int64_t y2050 = 2524608000;

IdentityChoice choice(const Ref<NSString>& name, std::int64_t notBefore = y2021, std::int64_t notAfter = y2049)
{
    return {name, "Orvane Certification Authority 2"_ns, "ada@orvane.example"_ns, notBefore, notAfter};
}

IdentityQuestion question(std::vector<IdentityChoice> choices)
{
    return {"Which one?"_ns, "Cancel"_ns, std::move(choices)};
}

QString toText(const char16_t* text) { return QString::fromUtf16(text); }

class IdentityBox : public testing::Test {
protected:
    /// Asks through the presenter while `act` does something to the window.
    Choice ask(const IdentityQuestion& asked, std::function<void(QWidget*)> act)
    {
        const WhenDialogOpens watch("identityBox", std::move(act));
        const Choice chosen = presenter_.chooseIdentity(asked);
        EXPECT_EQ(watch.seen(), 1);
        return chosen;
    }
    Choice askForThree(std::function<void(QWidget*)> act)
    {
        return ask(question({choice("One"_ns), choice("Two"_ns), choice("Three"_ns)}), std::move(act));
    }
    static QListWidget* listOf(QWidget* box) { return find<QListWidget>(box, "identityList"); }
    static void press(QWidget* box, Qt::Key key) { QTest::keyClick(box->focusWidget(), key); }

    kf::QtPresenter presenter_;
};

TEST_F(IdentityBox, ReturnConfirmsTheSelectedOne)
{
    EXPECT_EQ(askForThree([](QWidget* box) { press(box, Qt::Key_Return); }), Choice(0));
}

TEST_F(IdentityBox, ArrowsSelect)
{
    EXPECT_EQ(askForThree([](QWidget* box) {
        press(box, Qt::Key_Down);
        press(box, Qt::Key_Down);
        press(box, Qt::Key_Up);
        press(box, Qt::Key_Return);
    }),
        Choice(1));
    EXPECT_EQ(askForThree([](QWidget* box) {
        press(box, Qt::Key_End);
        press(box, Qt::Key_Enter);
    }),
        Choice(2));
}

TEST_F(IdentityBox, TypingANameSelectsIt)
{
    EXPECT_EQ(askForThree([](QWidget* box) {
        QTest::keyClicks(box->focusWidget(), QStringLiteral("Th"));
        press(box, Qt::Key_Return);
    }),
        Choice(2));
}

TEST_F(IdentityBox, TheButtonConfirms)
{
    EXPECT_EQ(askForThree([](QWidget* box) {
        listOf(box)->setCurrentRow(2);
        QTest::mouseClick(find<QPushButton>(box, "chooseButton"), Qt::LeftButton);
    }),
        Choice(2));
}

TEST_F(IdentityBox, ADoubleClickConfirms)
{
    EXPECT_EQ(askForThree([](QWidget* box) {
        auto* list = listOf(box);
        const QPoint second = list->visualItemRect(list->item(1)).center();
        QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, second);
        QTest::mouseDClick(list->viewport(), Qt::LeftButton, {}, second);
    }),
        Choice(1));
}

TEST_F(IdentityBox, EscapeTheAlternateButtonAndClosingChooseNothing)
{
    EXPECT_EQ(askForThree([](QWidget* box) { press(box, Qt::Key_Escape); }), Choice());
    EXPECT_EQ(askForThree([](QWidget* box) { find<QPushButton>(box, "alternateButton")->click(); }), Choice());
    EXPECT_EQ(askForThree([](QWidget* box) { box->close(); }), Choice());
}

TEST_F(IdentityBox, QuittingChoosesNothing)
{
    Choice chosen = 7;
    QTimer::singleShot(0, [&] { chosen = askForThree([](QWidget*) { QCoreApplication::quit(); }); });
    const kf::test::Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_EQ(chosen, Choice());
}

TEST_F(IdentityBox, ConfirmsNothingWithoutASelection)
{
    EXPECT_EQ(askForThree([](QWidget* box) {
        listOf(box)->clearSelection();
        EXPECT_FALSE(find<QPushButton>(box, "chooseButton")->isEnabled());
        press(box, Qt::Key_Return);
        EXPECT_TRUE(box->isVisible());
        listOf(box)->setCurrentRow(1);
        listOf(box)->item(1)->setSelected(true);
        EXPECT_TRUE(find<QPushButton>(box, "chooseButton")->isEnabled());
        press(box, Qt::Key_Return);
        EXPECT_FALSE(box->isVisible());
    }),
        Choice(1));
}

TEST_F(IdentityBox, SelectsTheFirstThatIsValidNow)
{
    EXPECT_EQ(ask(question({choice("Old"_ns, 0, y2021), choice("Future"_ns, y2049, y2050), choice("Good"_ns)}),
                  [](QWidget* box) { press(box, Qt::Key_Return); }),
        Choice(2));
    EXPECT_EQ(ask(question({choice("Old"_ns, 0, y2021), choice("Older"_ns, 0, 1)}),
                  [](QWidget* box) { press(box, Qt::Key_Return); }),
        Choice(0));
}

TEST_F(IdentityBox, ExplainsAnEmptyListAndConfirmsNothing)
{
    EXPECT_EQ(
        ask(question({}),
            [](QWidget* box) {
                EXPECT_EQ(box->findChild<QListWidget*>(), nullptr);
                EXPECT_FALSE(find<QPushButton>(box, "chooseButton")->isEnabled());
                EXPECT_TRUE(
                    find<QLabel>(box, "emptyLabel")->text().startsWith(u"There is no certificate to choose from."));
                QTest::keyClick(box, Qt::Key_Return);
                find<QPushButton>(box, "alternateButton")->click();
            }),
        Choice());
}

TEST_F(IdentityBox, ShowsMessageAndButtonAsTheyAre)
{
    auto asked = question({choice("One"_ns)});
    asked.message = "Which <b>certificate</b>?"_ns;
    asked.alternateButton = "Never mind"_ns;
    ask(asked, [](QWidget* box) {
        EXPECT_EQ(find<QLabel>(box, "messageLabel")->text(), QStringLiteral("Which <b>certificate</b>?"));
        EXPECT_EQ(find<QLabel>(box, "messageLabel")->textFormat(), Qt::PlainText);
        EXPECT_TRUE(find<QLabel>(box, "messageLabel")->wordWrap());
        EXPECT_EQ(find<QPushButton>(box, "alternateButton")->text(), QStringLiteral("Never mind"));
        EXPECT_TRUE(find<QPushButton>(box, "chooseButton")->isDefault());
        box->close();
    });
}

TEST_F(IdentityBox, IsModalToItsWindow)
{
    QWidget window;
    window.show();
    kf::QtPresenter presenter(&window);
    const WhenDialogOpens watch("identityBox", [&](QWidget* box) {
        EXPECT_EQ(box->parentWidget(), &window);
        EXPECT_EQ(box->windowModality(), Qt::WindowModal);
        box->close();
    });
    presenter.chooseIdentity(question({choice("One"_ns)}));
    EXPECT_EQ(watch.seen(), 1);
    ask(question({}), [](QWidget* box) {
        EXPECT_EQ(box->windowModality(), Qt::ApplicationModal);
        box->close();
    });
}

TEST_F(IdentityBox, IsShownOnTheMainThreadWhoeverAsks)
{
    const WhenDialogOpens watch("identityBox", [](QWidget* box) {
        EXPECT_EQ(box->thread(), qApp->thread());
        press(box, Qt::Key_Return);
    });
    Choice chosen;
    std::thread asker([&] {
        chosen = presenter_.chooseIdentity(question({choice("One"_ns)}));
        QMetaObject::invokeMethod(
            qApp, [] { QCoreApplication::exit(0); }, Qt::QueuedConnection);
    });
    const kf::test::Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    asker.join();
    EXPECT_EQ(chosen, Choice(0));
}

/// What a screen reader hears of each row: its name, then its description.
std::vector<std::pair<QString, QString>> heard(QWidget* box)
{
    std::vector<std::pair<QString, QString>> rows;
    QAccessibleInterface* list = QAccessible::queryAccessibleInterface(box->findChild<QListWidget*>());
    for (int row = 0; list && row < list->childCount(); ++row)
        rows.emplace_back(list->child(row)->text(QAccessible::Name), list->child(row)->text(QAccessible::Description));
    return rows;
}

TEST_F(IdentityBox, TellsScreenReadersWhatItShows)
{
    IdentityChoice bare;
    bare.notAfter = y2049;
    ask(question({choice("Ada"_ns), choice("Old"_ns, 0, y2021), choice("Future"_ns, y2049, y2050), bare}),
        [](QWidget* box) {
            const auto rows = heard(box);
            ASSERT_EQ(rows.size(), 4U);
            EXPECT_EQ(rows[0].first, QStringLiteral("Ada"));
            EXPECT_EQ(rows[0].second,
                toText(u"ada@orvane.example, Issued by \u2068Orvane Certification Authority 2\u2069, "
                       u"Expires on 1 January 2049"));
            EXPECT_TRUE(rows[1].second.endsWith(u", Expired on 1 January 2021"));
            EXPECT_TRUE(rows[2].second.endsWith(u", Not valid before 1 January 2049"));
            EXPECT_EQ(rows[3].first, QStringLiteral("Certificate without a name"));
            EXPECT_EQ(rows[3].second, QStringLiteral("Expires on 1 January 2049"));
            QAccessibleInterface* list = QAccessible::queryAccessibleInterface(listOf(box));
            EXPECT_EQ(list->text(QAccessible::Name), QStringLiteral("Which one?"));
            QAccessibleInterface* dialog = QAccessible::queryAccessibleInterface(box);
            EXPECT_EQ(dialog->text(QAccessible::Name), QStringLiteral("Choose a Certificate"));
            EXPECT_EQ(dialog->text(QAccessible::Description), QStringLiteral("Which one?"));
            box->close();
        });
}

TEST_F(IdentityBox, TakesControlCharactersOutOfCertificatesTexts)
{
    const auto hostile = NSString::stringWithCharacters(u"Ada\n\u202Egro.elpmaxe\u2066\u2069\u200F\u0007\t x\uFEFF");
    const auto joined = NSString::stringWithCharacters(u"\u0645\u06CC\u200C\u062E");
    ask(question({choice(hostile), choice(joined)}), [](QWidget* box) {
        EXPECT_EQ(heard(box)[0].first, QStringLiteral("Ada gro.elpmaxe x"));
        EXPECT_EQ(heard(box)[1].first, toText(u"\u0645\u06CC\u200C\u062E")) << "joiners stay";
        box->close();
    });
}

TEST_F(IdentityBox, CutsTextsThatNobodyCouldRead)
{
    const auto endless = NSString::stringWithUTF8String(std::string(100000, 'x'));
    ask(question({choice(endless)}), [](QWidget* box) {
        EXPECT_EQ(heard(box)[0].first, QString(200, u'x') + QChar(0x2026));
        box->close();
    });
}

/// How far each row of a list stands from the next one, once the list has been laid out.
std::vector<int> rowHeights(const QListWidget* list)
{
    QTest::qWait(150); // a list waits a little for more changes of its size
    std::vector<int> heights;
    for (int row = 0; row + 1 < list->count(); ++row)
        heights.push_back(
            list->visualItemRect(list->item(row + 1)).top() - list->visualItemRect(list->item(row)).top());
    EXPECT_EQ(list->horizontalScrollBar()->maximum(), 0);
    return heights;
}

TEST_F(IdentityBox, GivesEachRowTheLinesThatItNeeds)
{
    const auto asked = question(
        {choice("Short"_ns), choice(NSString::stringWithUTF8String(std::string(150, 'w'))), choice("Last"_ns)});
    kf::IdentityBox box(asked, nullptr);
    box.resize(400, 400);
    box.show();
    const auto* list = listOf(&box);
    const auto narrow = rowHeights(list);
    EXPECT_GT(narrow[1], narrow[0] + box.fontMetrics().height());
    box.resize(3000, 400);
    const auto wide = rowHeights(list);
    EXPECT_EQ(wide[1], wide[0]) << "rows are laid out anew where the window grows";
    QFont large = box.font();
    large.setPointSizeF(3 * large.pointSizeF());
    box.setFont(large);
    EXPECT_GT(rowHeights(list)[0], 2 * wide[0]);
}

TEST_F(IdentityBox, IsNeverLargerThanTheScreen)
{
    QFont huge = QApplication::font();
    huge.setPointSizeF(50);
    QApplication::setFont(huge);
    std::vector<IdentityChoice> many(50, choice("One"_ns));
    ask(question(many), [](QWidget* box) {
        EXPECT_LE(box->width(), box->screen()->availableSize().width());
        EXPECT_LE(box->height(), box->screen()->availableSize().height());
        box->close();
    });
    QApplication::setFont(QFont());
}

} // namespace
