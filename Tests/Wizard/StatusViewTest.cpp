#include "Pane/KFStatusView.h"
#include "Tests/Wizard/Support.h"

#include <QMetaProperty>

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
