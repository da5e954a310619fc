#include "KFWizard/MessageColours.h"

#include <QWidget>

namespace kf {

QPalette errorPalette(const QWidget& view)
{
    QPalette colours = view.palette();
    const bool dark = colours.color(QPalette::Window).lightness() < 128;
    colours.setColor(QPalette::WindowText, dark ? QColor(0xff, 0x8a, 0x80) : QColor(0xa4, 0x00, 0x00));
    return colours;
}

} // namespace kf
