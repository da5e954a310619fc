#include "keyfold/SignInPane.h"

#include "AppKit/Text.h"
#include "keyfold/InputFiles.h"

#include <QFileDialog>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include <string.h>

namespace kf {

SignInPane::SignInPane(const std::string& login, const std::string& pkcs12File)
{
    makeView();
    loginField_->setText(QString::fromStdString(login));
    fileField_->setText(QString::fromStdString(pkcs12File));
}

Ref<NSString> SignInPane::title() const { return "Sign In"_ns; }

void SignInPane::makeView()
{
    auto* introduction =
        new QLabel(tr("Enter your login name and choose the certificate file that you downloaded, with "
                      "the pass phrase that protects it."));
    introduction->setWordWrap(true);

    const auto field = [this](const char* name) {
        auto* edit = new QLineEdit;
        edit->setObjectName(QLatin1String(name));
        connect(edit, &QLineEdit::textChanged, this, &SignInPane::updateNext);
        return edit;
    };
    loginField_ = field("loginField");
    fileField_ = field("fileField");
    fileField_->setPlaceholderText(tr("A .p12 or .pfx file"));
    passphraseField_ = field("passphraseField");
    passphraseField_->setEchoMode(QLineEdit::Password);
    auto* choose = new QPushButton(tr("Choose…"));
    choose->setObjectName(QStringLiteral("chooseButton"));
    choose->setAutoDefault(false);
    connect(choose, &QPushButton::clicked, this, &SignInPane::chooseFile);

    auto* grid = new QGridLayout;
    grid->setHorizontalSpacing(16);
    grid->setVerticalSpacing(14);
    const auto row = [grid](int line, const QString& title, QLineEdit* edit, int columns) {
        auto* label = new QLabel(title);
        label->setBuddy(edit);
        edit->setAccessibleName(title);
        grid->addWidget(label, line, 0, Qt::AlignRight | Qt::AlignVCenter);
        grid->addWidget(edit, line, 1, 1, columns);
    };
    row(0, tr("Login name"), loginField_, 2);
    row(1, tr("Certificate file"), fileField_, 1);
    grid->addWidget(choose, 1, 2);
    row(2, tr("Pass phrase"), passphraseField_, 2);

    auto* view = new QWidget;
    view->setObjectName(QStringLiteral("signInView"));
    auto* layout = new QVBoxLayout(view);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(24);
    layout->addWidget(introduction);
    layout->addLayout(grid);
    layout->addStretch(1);
    QWidget::setTabOrder(fileField_, choose);
    QWidget::setTabOrder(choose, passphraseField_);
    setContentView(view);
}

void SignInPane::didEnterPane(NSInteger)
{
    updateNext();
    for (QLineEdit* edit : {loginField_, fileField_, passphraseField_}) {
        if (edit->text().isEmpty()) {
            edit->setFocus();
            break;
        }
    }
}

void SignInPane::updateNext()
{
    setNextEnabled(!loginField_->text().trimmed().isEmpty() && !fileField_->text().isEmpty()
        && !passphraseField_->text().isEmpty());
}

void SignInPane::chooseFile()
{
    const QString file = QFileDialog::getOpenFileName(contentView(), tr("Choose your certificate file"), QString(),
        tr("Certificate files (*.p12 *.pfx);;All files (*)"));
    if (!file.isEmpty())
        fileField_->setText(file);
}

bool SignInPane::shouldExitPane(NSInteger direction)
{
    if (direction != KFWizardForward)
        return true;
    setActiveMessageField(messageField());
    auto bundle = readPKCS12AsBase64(fileField_->text().toStdString());
    if (const auto* error = std::get_if<InputError>(&bundle)) {
        showError(NSString::stringWithUTF8String(error->message));
        fileField_->setFocus();
        return false;
    }
    setValue(toNSString(loginField_->text().trimmed()), "login"_ns);
    setValue(std::get<Ref<NSString>>(bundle), "pkcs12"_ns);
    setValue(takePassphrase(), "downloadpassword"_ns);
    return true;
}

// Qt does not wipe the text of a field; it is cleared, and our copies are wiped.
Ref<NSString> SignInPane::takePassphrase()
{
    QByteArray text = passphraseField_->text().toUtf8();
    const Ref<NSString> passphrase =
        NSString::sensitiveStringWithUTF8String({text.constData(), static_cast<std::size_t>(text.size())});
    explicit_bzero(text.data(), static_cast<std::size_t>(text.size()));
    return passphrase;
}

void SignInPane::didExitPane(NSInteger) { passphraseField_->clear(); }

} // namespace kf
