#include "AppKit/Looks.h"

#include <QLabel>
#include <QPushButton>

#include <algorithm>

namespace kf {

namespace {

// By itself a label takes the side that the language of its text begins at, which in a page from right to left may be
// the one away from what it belongs to.
void beginWithLayout(QLabel& label)
{
    const Qt::Alignment vertical = label.alignment() & Qt::AlignVertical_Mask;
    const Qt::Alignment side = label.isRightToLeft() ? Qt::AlignRight : Qt::AlignLeft;
    label.setAlignment(vertical | side | Qt::AlignAbsolute);
}

/// Beside a title, in pixels; with huge letters the screen is soon full.
constexpr int mostRoom = 20;

// Styles have a least width in pixels, which large letters fill to the edge.
void giveRoom(QPushButton& button)
{
    const QFontMetrics metrics = button.fontMetrics();
    const int wanted = metrics.horizontalAdvance(button.text()) + 2 * std::min(metrics.height(), mostRoom);
    button.setMinimumWidth(std::max(button.minimumWidth(), wanted));
}

} // namespace

void shapeTexts(QWidget& view)
{
    for (QLabel* label : view.findChildren<QLabel*>()) {
        if (label->alignment() & Qt::AlignLeft)
            beginWithLayout(*label);
    }
    for (QPushButton* button : view.findChildren<QPushButton*>())
        giveRoom(*button);
}

} // namespace kf
