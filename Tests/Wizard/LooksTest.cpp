// Every page and dialog can be read: in large letters, from right to left, in a dark palette.

#include "AppKit/Looks.h"
#include "AppKit/IdentityBox.h"
#include "AppKit/PassphraseBox.h"
#include "KFWizard/MessageColours.h"
#include "Tests/Wizard/WalkFixture.h"

#include <cmath>

namespace {

using namespace kf::test;

/// Application-wide settings, until it goes.
class Looks {
public:
    Looks(double points, Qt::LayoutDirection direction)
    {
        QFont font = before_;
        font.setPointSizeF(points);
        QApplication::setFont(font);
        QApplication::setLayoutDirection(direction);
    }
    ~Looks()
    {
        QApplication::setFont(before_);
        QApplication::setLayoutDirection(Qt::LeftToRight);
    }
    Looks(const Looks&) = delete;
    Looks& operator=(const Looks&) = delete;

private:
    QFont before_ = QApplication::font();
};

void expectUncut(const QLabel& label)
{
    const std::string text = label.text().toStdString();
    if (label.wordWrap()) {
        EXPECT_GE(label.height(), label.heightForWidth(label.width())) << text;
    } else {
        EXPECT_GE(label.height(), label.sizeHint().height()) << text;
        EXPECT_GE(label.width(), label.sizeHint().width()) << text;
    }
}

void expectAtTheLayoutsSide(const QLabel& label)
{
    const Qt::Alignment side = label.isRightToLeft() ? Qt::AlignRight : Qt::AlignLeft;
    EXPECT_EQ(label.alignment() & Qt::AlignHorizontal_Mask, side | Qt::AlignAbsolute) << label.text().toStdString();
}

/// No text is cut off, each begins where the layout does, and no button's title touches its edge.
void expectReadable(QWidget* window)
{
    QCoreApplication::processEvents();
    int texts = 0;
    for (const QLabel* label : window->findChildren<QLabel*>()) {
        if (!label->isVisible() || label->text().isEmpty())
            continue;
        ++texts;
        expectUncut(*label);
        expectAtTheLayoutsSide(*label);
    }
    EXPECT_GT(texts, 0);
    for (const QPushButton* button : window->findChildren<QPushButton*>()) {
        if (!button->isVisible())
            continue;
        const QFontMetrics metrics = button->fontMetrics();
        EXPECT_GE(button->width(), metrics.horizontalAdvance(button->text()) + metrics.height())
            << button->text().toStdString();
    }
}

struct Look {
    const char* name;
    double points;
    Qt::LayoutDirection direction;
};

class EveryPage : public Walk, public testing::WithParamInterface<Look> {
protected:
    Looks looks_{GetParam().points, GetParam().direction};
};

INSTANTIATE_TEST_SUITE_P(Looks, EveryPage,
    testing::Values(Look{"Plain", 10.5, Qt::LeftToRight}, Look{"LargeLetters", 18, Qt::LeftToRight},
        Look{"RightToLeft", 10.5, Qt::RightToLeft}),
    [](const auto& look) { return std::string(look.param.name); });

TEST_P(EveryPage, CanBeReadFromSignInToTheEnd)
{
    open();
    expectReadable(window_.get());
    static const Bundle doubtful = institution().issue({.withChain = true, .notAfter = "20250101000000Z"});
    fillIn("ada", doubtful.file.string(), "wrong");
    press("nextButton");
    waitFor("passphraseMessage");
    expectReadable(window_.get());
    signIn("grace", doubtful.file.string(), doubtful.passphrase);
    expectReadable(window_.get());
    press("nextButton");
    expectReadable(window_.get());
    press("nextButton");
    expectReadable(window_.get());
    EXPECT_EQ(label("titleLabel"), "What Was Installed");
}

TEST_P(EveryPage, CanBeReadAfterAFailureAndWhereThereIsNoPage)
{
    open();
    signIn(bundle());
    std::filesystem::create_directories(home_.olderKeychain());
    writeFile(home_.olderKeychain() / "cert9.db", std::string_view());
    press("nextButton");
    EXPECT_EQ(state("personalStatus"), 0);
    expectReadable(window_.get());
    line_.bundle = "/nonexistent";
    expectsPage_ = false;
    open();
    expectReadable(window_.get());
}

TEST_P(EveryPage, DialogsCanBeRead)
{
    kf::PassphraseBox passphrase({"/home/ada/.local/share/pki/nssdb"_ns, 2}, nullptr);
    passphrase.show();
    expectReadable(&passphrase);
    kf::IdentityBox identities({"Which one?"_ns, "Cancel"_ns, {}}, nullptr);
    identities.show();
    expectReadable(&identities);
    const auto alert = NSAlert::alertWithMessageText("Existing certificates found"_ns, "No"_ns, "Yes"_ns, nullptr,
        "%@\n\n%@", "You appear to have one or more old certificates installed. Would you like to delete them?"_ns,
        "For more information, see https://help.orvane.example/certificates"_ns);
    const WhenDialogOpens watch("alert", [](QWidget* box) {
        expectReadable(box);
        box->close();
    });
    alert->runModal();
    EXPECT_EQ(watch.seen(), 1);
}

/// The columns of a picture between which its text stands, of 0 (left) to 1.
std::pair<double, double> inkOf(QLabel& label)
{
    const QImage image = label.grab().toImage();
    const QRgb paper = image.pixel(0, 0);
    int first = image.width();
    int last = -1;
    for (int x = 0; x < image.width(); ++x) {
        for (int y = 0; y < image.height(); ++y) {
            if (image.pixel(x, y) != paper) {
                first = std::min(first, x);
                last = x;
            }
        }
    }
    return {static_cast<double>(first) / image.width(), static_cast<double>(last) / image.width()};
}

TEST(Shape, TextsOfEitherDirectionBeginWhereTheLayoutDoes)
{
    for (const char* text : {"Ada Example", "\u05DE\u05D9\u05E8\u05D4"}) {
        QWidget view;
        auto* label = new QLabel(QString::fromUtf8(text), &view);
        label->setWordWrap(true);
        label->resize(400, 30);
        kf::shapeTexts(view);
        EXPECT_LT(inkOf(*label).second, 0.5) << text;
        view.setLayoutDirection(Qt::RightToLeft);
        kf::shapeTexts(view);
        EXPECT_GT(inkOf(*label).first, 0.5) << text;
    }
}

TEST(Shape, WhatIsCentredStaysCentred)
{
    QWidget view;
    auto* label = new QLabel(&view);
    label->setAlignment(Qt::AlignCenter);
    kf::shapeTexts(view);
    EXPECT_EQ(label->alignment(), Qt::AlignCenter);
}

double luminance(const QColor& colour)
{
    const auto linear = [](double part) {
        return part <= 0.03928 ? part / 12.92 : std::pow((part + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(colour.redF()) + 0.7152 * linear(colour.greenF()) + 0.0722 * linear(colour.blueF());
}

/// The contrast of two colours, from 1 to 21 (Web Content Accessibility Guidelines 2.1).
double contrast(const QColor& a, const QColor& b)
{
    const double lighter = std::max(luminance(a), luminance(b));
    const double darker = std::min(luminance(a), luminance(b));
    return (lighter + 0.05) / (darker + 0.05);
}

TEST(ErrorColour, StandsOutOnALightAndOnADarkBackground)
{
    for (const QColor& background :
        {QColor(239, 239, 239), QColor(255, 255, 255), QColor(43, 45, 48), QColor(0, 0, 0)}) {
        QWidget view;
        view.setPalette(QPalette(background, background));
        const QColor ink = kf::errorPalette(view).color(QPalette::WindowText);
        // 4.5 is what the guidelines ask for texts of ordinary size.
        EXPECT_GE(contrast(ink, background), 4.5) << background.name().toStdString();
    }
}

} // namespace
