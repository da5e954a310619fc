#include "AppKit/AlertBox.h"

#include "AppKit/Looks.h"
#include "AppKit/Text.h"

#include <QLabel>
#include <QPainter>
#include <QPushButton>

#include <algorithm>

namespace kf {

namespace {

constexpr int widthInLetters = 72;

/// The sign of a critical alert, drawn in the pixels of the screen.
QPixmap criticalSign(const QSizeF& size, qreal pixelRatio)
{
    QPixmap sign((size * pixelRatio).toSize());
    sign.setDevicePixelRatio(pixelRatio);
    sign.fill(Qt::transparent);
    QPainter painter(&sign);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(size.width() / 16, size.height() / 16);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(208, 52, 44));
    painter.drawEllipse(QPointF(8, 8), 7.5, 7.5);
    painter.setPen(QPen(Qt::white, 2, Qt::SolidLine, Qt::RoundCap));
    painter.drawLine(QPointF(5, 5), QPointF(11, 11));
    painter.drawLine(QPointF(11, 5), QPointF(5, 11));
    return sign;
}

} // namespace

AlertBox::AlertBox(const AlertQuestion& question, QWidget* parent) : QMessageBox(parent)
{
    setObjectName(QStringLiteral("alert"));
    setIcon(question.critical ? QMessageBox::Critical : QMessageBox::Warning);
    setWindowTitle(toQString(question.messageText));
    setTextFormat(Qt::PlainText);
    setText(toQString(question.messageText));
    setInformativeText(toQString(question.informativeText));

    shapeLabels();

    QPushButton* safe = add(question.defaultButton, QMessageBox::RejectRole, "defaultButton");
    if (question.alternateButton)
        alternate_ = add(question.alternateButton, QMessageBox::DestructiveRole, "alternateButton");
    if (question.otherButton)
        other_ = add(question.otherButton, QMessageBox::ActionRole, "otherButton");
    setDefaultButton(safe);
    setEscapeButton(safe);

    if (question.help) {
        QPushButton* help = addButton(QMessageBox::Help);
        help->setObjectName(QStringLiteral("helpButton"));
        // The box's own connection would close it, and an automatic default
        // button would be pressed again by the next Return.
        help->disconnect();
        connect(help, &QPushButton::clicked, this, question.help);
    }
    // A button that had the focus would take Return away from the default one.
    for (QAbstractButton* button : buttons()) {
        if (auto* push = qobject_cast<QPushButton*>(button); push && push != safe)
            push->setAutoDefault(false);
    }
    shapeTexts(*this);
}

// The box has no setting for these; where a later Qt names its labels
// otherwise, the texts only look plainer.
void AlertBox::shapeLabels()
{
    if (auto* message = findChild<QLabel*>(QStringLiteral("qt_msgbox_label"))) {
        QFont font = message->font();
        font.setBold(true);
        message->setFont(font);
    }
    if (auto* sign = findChild<QLabel*>(QStringLiteral("qt_msgboxex_icon_label"))) {
        sign->setAccessibleName(tr("Warning"));
        // Without the desktop's icons Qt has a bitmap for 100 %.
        const QPixmap given = sign->pixmap();
        if (icon() == Critical && given.devicePixelRatio() < devicePixelRatioF())
            sign->setPixmap(criticalSign(given.deviceIndependentSize(), devicePixelRatioF()));
    }
    auto* informative = findChild<QLabel*>(QStringLiteral("qt_msgbox_informativelabel"));
    if (!informative)
        return;
    // Wide enough for its short lines, an address among them; the long ones wrap.
    int width = 0;
    for (const QString& line : informative->text().split(u'\n'))
        width = std::max(width, informative->fontMetrics().horizontalAdvance(line));
    informative->setMinimumWidth(std::min(width, fontMetrics().averageCharWidth() * widthInLetters));
}

QPushButton* AlertBox::add(const Ref<NSString>& title, QMessageBox::ButtonRole role, const char* name)
{
    QPushButton* button = addButton(toQString(title), role);
    button->setObjectName(QLatin1String(name));
    return button;
}

NSInteger AlertBox::buttonCode() const
{
    const QAbstractButton* clicked = clickedButton();
    if (clicked && clicked == alternate_)
        return alertAlternateReturn;
    if (clicked && clicked == other_)
        return alertOtherReturn;
    return alertDefaultReturn;
}

} // namespace kf
