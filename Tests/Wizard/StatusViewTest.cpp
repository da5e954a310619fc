#include "Pane/KFStatusView.h"
#include "Tests/Wizard/Support.h"

#include <QMetaProperty>

#include <algorithm>
#include <array>

namespace {

QImage sphere(const char* colour)
{
    const QImage image(QStringLiteral(KEYFOLD_BUNDLE "/Contents/Resources/sphere_%1.png").arg(QLatin1String(colour)));
    EXPECT_FALSE(image.isNull());
    return image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

QImage shown(const KFStatusView& view)
{
    return view.pixmap().toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

TEST(StatusView, IsRedWhenItIsMade)
{
    const KFStatusView view;
    EXPECT_EQ(view.state(), 0);
    EXPECT_EQ(shown(view), sphere("red"));
    const KFStatusView framed(QRect(1, 2, 40, 40), nullptr);
    EXPECT_EQ(shown(framed), sphere("red"));
    EXPECT_EQ(framed.geometry(), QRect(1, 2, 40, 40));
}

TEST(StatusView, TheThreeSpheresDiffer)
{
    EXPECT_NE(sphere("red"), sphere("green"));
    EXPECT_NE(sphere("red"), sphere("gray"));
    EXPECT_NE(sphere("green"), sphere("gray"));
}

/// Where a sphere's sign is: its white pixels.
std::vector<bool> signOf(const char* colour)
{
    const QImage image = sphere(colour);
    std::vector<bool> white;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor pixel = image.pixelColor(x, y);
            white.push_back(std::min({pixel.red(), pixel.green(), pixel.blue()}) > 240);
        }
    }
    return white;
}

// Whoever does not see colours sees the signs.
TEST(StatusView, TheThreeSpheresDifferInTheShapeOfTheirSigns)
{
    constexpr std::array colours = {"red", "green", "gray"};
    for (const char* a : colours) {
        const std::vector<bool> first = signOf(a);
        EXPECT_GT(std::count(first.begin(), first.end(), true), 20) << a;
        for (const char* b : colours) {
            if (a == b)
                continue;
            const std::vector<bool> second = signOf(b);
            int differing = 0;
            for (std::size_t at = 0; at < first.size(); ++at)
                differing += first[at] != second[at];
            EXPECT_GT(differing, 30) << a << " and " << b;
        }
    }
}

TEST(StatusView, EverySphereIsThereForScreensOfSmallPixelsToo)
{
    for (const char* colour : {"red", "green", "gray"}) {
        EXPECT_EQ(sphere(colour).size(), QSize(32, 32));
        EXPECT_EQ(sphere((std::string(colour) + "@2x").c_str()).size(), QSize(64, 64));
    }
}

TEST(StatusView, OneIsGreenZeroIsRedAndEverythingElseGray)
{
    KFStatusView view;
    for (const NSInteger state :
        {NSInteger{-1}, NSInteger{2}, NSInteger{-99}, NSInteger{1} << 32, INT64_MIN, INT64_MAX}) {
        view.setState(state);
        EXPECT_EQ(view.state(), state);
        EXPECT_EQ(shown(view), sphere("gray")) << state;
        EXPECT_EQ(view.accessibleDescription(), QStringLiteral("working"));
    }
    view.setState(1);
    EXPECT_EQ(shown(view), sphere("green"));
    EXPECT_EQ(view.accessibleDescription(), QStringLiteral("succeeded"));
    view.setState(0);
    EXPECT_EQ(shown(view), sphere("red"));
    EXPECT_EQ(view.accessibleDescription(), QStringLiteral("failed"));
}

TEST(StatusView, TheSameStateShowsItsImageAgain)
{
    KFStatusView view;
    view.setState(1);
    view.setPixmap(QPixmap());
    view.setState(1);
    EXPECT_EQ(shown(view), sphere("green"));
}

TEST(StatusView, ObservesItsStateAndNothingElse)
{
    KFStatusView view;
    view.setPixmap(QPixmap());
    view.observeValueForKeyPath("frame"_ns, &view, nullptr, nullptr);
    view.observeValueForKeyPath(nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(view.pixmap().isNull());
    view.observeValueForKeyPath("state"_ns, nullptr, nullptr, nullptr);
    EXPECT_EQ(shown(view), sphere("red"));
}

TEST(StatusView, StateIsAPropertyOf64Bits)
{
    KFStatusView view;
    ASSERT_TRUE(view.setProperty("state", -1));
    EXPECT_EQ(view.property("state").toLongLong(), -1);
    const QMetaObject* meta = view.metaObject();
    EXPECT_EQ(meta->property(meta->indexOfProperty("state")).metaType().sizeOf(), 8);
}

} // namespace
