#include "AppKit/AlertBox.h"

#include "AppKit/Looks.h"
#include "AppKit/Text.h"

#include <QLabel>
#include <QPushButton>

#include <algorithm>

namespace kf {

namespace {

constexpr int widthInLetters = 72;

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
    if (auto* icon = findChild<QLabel*>(QStringLiteral("qt_msgboxex_icon_label")))
        icon->setAccessibleName(tr("Warning"));
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
