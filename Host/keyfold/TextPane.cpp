#include "keyfold/TextPane.h"

#include <QLabel>
#include <QVBoxLayout>

namespace kf {

TextPane::TextPane(Ref<NSString> title, const QString& text) : title_(std::move(title))
{
    auto* label = new QLabel(text);
    label->setObjectName(QStringLiteral("pageText"));
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto* view = new QWidget;
    auto* layout = new QVBoxLayout(view);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(label);
    layout->addStretch(1);
    setContentView(view);
}

} // namespace kf
