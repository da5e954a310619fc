#include "AppKit/PassphraseBox.h"

#include "AppKit/Text.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
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

PassphraseBox::PassphraseBox(const PassphraseQuestion& question, QWidget* parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("passphraseBox"));
    setWindowTitle(tr("Unlock the keychain"));
    field_ = new QLineEdit;
    field_->setObjectName(QStringLiteral("passphraseField"));
    field_->setEchoMode(QLineEdit::Password);
    field_->setMinimumWidth(320);
    field_->setAccessibleName(tr("Pass phrase of the keychain"));

    auto* buttons = new QDialogButtonBox;
    QPushButton* unlock = buttons->addButton(tr("Unlock"), QDialogButtonBox::AcceptRole);
    unlock->setObjectName(QStringLiteral("unlockButton"));
    unlock->setDefault(true);
    QPushButton* cancel = buttons->addButton(QDialogButtonBox::Cancel);
    cancel->setObjectName(QStringLiteral("cancelButton"));
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->setSpacing(12);
    layout->addWidget(
        wrappedLabel(tr("Your certificates are kept in a keychain that is protected by a pass phrase:\n%1")
                         .arg(toQString(question.keychainPath)),
            "questionLabel"));
    if (question.attempt > 1)
        layout->addWidget(wrappedLabel(tr("The pass phrase was not right. Please try again."), "retryLabel"));
    layout->addWidget(field_);
    layout->addWidget(buttons);
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
