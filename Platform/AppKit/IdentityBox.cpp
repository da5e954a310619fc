#include "AppKit/IdentityBox.h"

#include "AppKit/IdentityList.h"
#include "AppKit/Looks.h"
#include "AppKit/Text.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace kf {

namespace {

QLabel* wrappedLabel(const QString& text, const char* name)
{
    auto* label = new QLabel(text);
    label->setObjectName(QLatin1String(name));
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    return label;
}

} // namespace

IdentityBox::IdentityBox(const IdentityQuestion& question, QWidget* parent) : QDialog(parent)
{
    const QString message = toQString(question.message);
    setObjectName(QStringLiteral("identityBox"));
    setWindowTitle(tr("Choose a Certificate"));
    setAccessibleDescription(message);
    setWindowModality(parent ? Qt::WindowModal : Qt::ApplicationModal);

    auto* label = wrappedLabel(message, "messageLabel");
    QFont bold = label->font();
    bold.setBold(true);
    label->setFont(bold);

    auto* buttons = new QDialogButtonBox;
    choose_ = buttons->addButton(tr("Choose"), QDialogButtonBox::AcceptRole);
    choose_->setObjectName(QStringLiteral("chooseButton"));
    choose_->setDefault(true);
    QPushButton* alternate = buttons->addButton(toQString(question.alternateButton), QDialogButtonBox::RejectRole);
    alternate->setObjectName(QStringLiteral("alternateButton"));
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(12);
    layout->addWidget(label);
    if (question.choices.empty()) {
        choose_->setEnabled(false);
        layout->addWidget(wrappedLabel(tr("There is no certificate to choose from. A personal certificate can be used "
                                          "only where its private key is in one of your keychains."),
            "emptyLabel"));
        layout->addStretch();
    } else {
        layout->addWidget(makeList(question), 1);
        list_->setFocus();
    }
    layout->addWidget(buttons);
    shapeTexts(*this);
}

IdentityList* IdentityBox::makeList(const IdentityQuestion& question)
{
    list_ = new IdentityList(question.choices);
    list_->setObjectName(QStringLiteral("identityList"));
    list_->setAccessibleName(toQString(question.message));
    list_->setFocus();
    connect(
        list_, &QListWidget::itemSelectionChanged, this, [this] { choose_->setEnabled(selectedChoice().has_value()); });
    connect(list_, &QListWidget::itemDoubleClicked, this, &QDialog::accept);
    return list_;
}

std::optional<std::size_t> IdentityBox::selectedChoice() const
{
    return list_ ? list_->selectedChoice() : std::nullopt;
}

} // namespace kf
