#include "AppKit/PassphraseBox.h"

#include "AppKit/Looks.h"
#include "AppKit/Text.h"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace kf {

namespace {

constexpr int widthInLetters = 64;

} // namespace

PassphraseBox::PassphraseBox(const PassphraseQuestion& question, QWidget* parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("passphraseBox"));
    setWindowTitle(tr("Unlock the Keychain"));
    field_ = new QLineEdit;
    field_->setObjectName(QStringLiteral("passphraseField"));
    field_->setEchoMode(QLineEdit::Password);
    field_->setTextMargins(4, 1, 4, 1);
    field_->setAccessibleName(tr("Pass phrase of the keychain"));
    auto* show = new QPushButton(tr("Show"));
    show->setObjectName(QStringLiteral("showButton"));
    show->setAccessibleDescription(tr("Pass phrase of the keychain"));
    show->setCheckable(true);
    show->setAutoDefault(false);
    connect(show, &QPushButton::toggled, this, [this, show](bool visible) {
        field_->setEchoMode(visible ? QLineEdit::Normal : QLineEdit::Password);
        show->setText(visible ? tr("Hide") : tr("Show"));
    });
    auto* entry = new QHBoxLayout;
    entry->addWidget(field_, 1);
    entry->addWidget(show);

    auto* buttons = new QDialogButtonBox;
    QPushButton* unlock = buttons->addButton(tr("Unlock"), QDialogButtonBox::AcceptRole);
    unlock->setObjectName(QStringLiteral("unlockButton"));
    unlock->setDefault(true);
    QPushButton* cancel = buttons->addButton(QDialogButtonBox::Cancel);
    cancel->setObjectName(QStringLiteral("cancelButton"));
    cancel->setAutoDefault(false);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(12);
    layout->addWidget(addText(
        tr("Your certificates are kept in a keychain that is protected by a pass phrase. To look at them and to "
           "install new ones, it has to be unlocked:\n%1")
            .arg(toQString(question.keychainPath)),
        "questionLabel"));
    layout->addWidget(addText(tr("It is the pass phrase that you gave this keychain, in a browser or mail program "
                                 "perhaps; not the one of the certificate file."),
        "hintLabel"));
    if (question.attempt > 1) {
        QLabel* retry = addText(tr("That was not the keychain’s pass phrase. Please try again."), "retryLabel");
        QFont font = retry->font();
        font.setBold(true);
        retry->setFont(font);
        layout->addWidget(retry);
    }
    layout->addLayout(entry);
    layout->addWidget(buttons);
    shapeTexts(*this);
    // By itself the box would take wrapped texts for narrower and taller than they are.
    const int wanted = fontMetrics().averageCharWidth() * widthInLetters;
    setMinimumWidth(wanted);
    resize(wanted, layout->totalHeightForWidth(wanted));
    field_->setFocus();
}

QLabel* PassphraseBox::addText(const QString& text, const char* name)
{
    auto* label = new QLabel(text);
    label->setObjectName(QLatin1String(name));
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    return label;
}

SecretBytes PassphraseBox::takePassphrase()
{
    QByteArray text = field_->text().toUtf8();
    SecretBytes bytes(text.cbegin(), text.cend());
    explicit_bzero(text.data(), static_cast<std::size_t>(text.size()));
    field_->clear();
    return bytes;
}

} // namespace kf
