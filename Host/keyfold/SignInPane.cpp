#include "keyfold/SignInPane.h"

#include "AppKit/Text.h"
#include "KFWizard/MessageColours.h"
#include "keyfold/FileDropArea.h"

#include <QAccessible>
#include <QFileDialog>
#include <QFrame>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

#include <string.h>

namespace kf {

namespace {

using namespace std::chrono_literals;

/// So long nothing is typed before the bundle is tried.
constexpr auto pauseBeforeCheck = 500ms;

QLabel* wrappedLabel(const char* name)
{
    auto* label = new QLabel;
    label->setObjectName(QLatin1String(name));
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    return label;
}

} // namespace

SignInPane::SignInPane(const std::string& login, const std::string& pkcs12File, Bytes authority)
    : authority_(std::move(authority))
{
    pause_.setSingleShot(true);
    pause_.setInterval(pauseBeforeCheck);
    connect(&pause_, &QTimer::timeout, this, &SignInPane::checkWhenComplete);
    connect(&checker_, &BundleChecker::finished, this, [this](const BundleCheck& check) {
        check_ = check;
        showCheck();
    });
    makeView();
    loginField_->setText(QString::fromStdString(login));
    fileField_->setText(QString::fromStdString(pkcs12File));
}

Ref<NSString> SignInPane::title() const { return "Sign In"_ns; }

QLineEdit* SignInPane::makeField(const char* name, const QString& title)
{
    auto* edit = new QLineEdit;
    edit->setObjectName(QLatin1String(name));
    edit->setAccessibleName(title);
    edit->setTextMargins(4, 1, 4, 1);
    edit->setAcceptDrops(false); // the page takes files wherever they are dropped
    connect(edit, &QLineEdit::textChanged, this, &SignInPane::inputsChanged);
    return edit;
}

QLabel* SignInPane::makeMessage(const char* name, QLineEdit* field)
{
    QLabel* message = wrappedLabel(name);
    message->setAccessibleDescription(field->accessibleName());
    message->setVisible(false);
    return message;
}

void SignInPane::makeView()
{
    auto* introduction =
        new QLabel(tr("Enter your login name and choose the certificate file that you downloaded, or drop it here, "
                      "with the pass phrase that protects it."));
    introduction->setObjectName(QStringLiteral("introduction"));
    introduction->setWordWrap(true);

    const QString loginTitle = tr("Login name");
    const QString fileTitle = tr("Certificate file");
    const QString passphraseTitle = tr("Pass phrase");
    loginField_ = makeField("loginField", loginTitle);
    loginMessage_ = makeMessage("loginMessage", loginField_);
    fileField_ = makeField("fileField", fileTitle);
    fileField_->setPlaceholderText(tr("A .p12 or .pfx file"));
    fileMessage_ = makeMessage("fileMessage", fileField_);
    passphraseField_ = makeField("passphraseField", passphraseTitle);
    passphraseField_->setEchoMode(QLineEdit::Password);
    connect(passphraseField_, &QLineEdit::editingFinished, this, &SignInPane::passphraseEntered);
    passphraseMessage_ = makeMessage("passphraseMessage", passphraseField_);

    auto* choose = new QPushButton(tr("Choose…"));
    choose->setObjectName(QStringLiteral("chooseButton"));
    choose->setAccessibleDescription(fileTitle);
    choose->setAutoDefault(false);
    connect(choose, &QPushButton::clicked, this, &SignInPane::chooseFile);
    showButton_ = new QPushButton(tr("Show"));
    showButton_->setObjectName(QStringLiteral("showButton"));
    showButton_->setAccessibleDescription(passphraseTitle);
    showButton_->setCheckable(true);
    showButton_->setAutoDefault(false);
    connect(showButton_, &QPushButton::toggled, this, &SignInPane::showPassphrase);

    auto* grid = new QGridLayout;
    grid->setHorizontalSpacing(16);
    grid->setVerticalSpacing(8);
    grid->setColumnStretch(1, 1);
    const auto row = [grid](int line, const QString& title, QLineEdit* edit, QWidget* button, QLabel* message) {
        auto* label = new QLabel(title);
        label->setBuddy(edit);
        grid->addWidget(label, line, 0, Qt::AlignRight | Qt::AlignVCenter);
        grid->addWidget(edit, line, 1, 1, button ? 1 : 2);
        if (button)
            grid->addWidget(button, line, 2);
        grid->addWidget(message, line + 1, 1, 1, 2);
    };
    row(0, loginTitle, loginField_, nullptr, loginMessage_);
    row(2, fileTitle, fileField_, choose, fileMessage_);
    row(4, passphraseTitle, passphraseField_, showButton_, passphraseMessage_);

    checkingLabel_ = wrappedLabel("checkingLabel");
    checkingLabel_->setText(tr("Opening the file…"));
    checkingLabel_->setVisible(false);
    card_ = makeCard();

    auto* view = new FileDropArea;
    view->setObjectName(QStringLiteral("signInView"));
    connect(view, &FileDropArea::fileDropped, fileField_, &QLineEdit::setText);
    auto* layout = new QVBoxLayout(view);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(20);
    layout->addWidget(introduction);
    layout->addLayout(grid);
    layout->addWidget(checkingLabel_);
    layout->addWidget(card_);
    layout->addStretch(1);
    QWidget::setTabOrder(loginField_, fileField_);
    QWidget::setTabOrder(fileField_, choose);
    QWidget::setTabOrder(choose, passphraseField_);
    QWidget::setTabOrder(passphraseField_, showButton_);
    setContentView(view);
}

QFrame* SignInPane::makeCard()
{
    certificateName_ = wrappedLabel("certificateName");
    QFont font = certificateName_->font();
    font.setBold(true);
    certificateName_->setFont(font);
    certificateDetails_ = wrappedLabel("certificateDetails");
    certificateWarnings_ = wrappedLabel("certificateWarnings");
    certificateWarnings_->setAccessibleDescription(tr("Warning"));

    auto* sign = new QLabel;
    const int size = sign->fontMetrics().height();
    sign->setPixmap(sign->style()->standardIcon(QStyle::SP_MessageBoxWarning).pixmap(size));
    sign->setAccessibleName(tr("Warning"));
    warningRow_ = new QWidget;
    auto* warning = new QHBoxLayout(warningRow_);
    warning->setContentsMargins(0, 8, 0, 0);
    warning->addWidget(sign, 0, Qt::AlignTop);
    warning->addWidget(certificateWarnings_, 1);

    auto* card = new QFrame;
    card->setObjectName(QStringLiteral("certificateCard"));
    card->setAccessibleName(tr("The certificate in the file"));
    card->setFrameShape(QFrame::StyledPanel);
    card->setAutoFillBackground(true);
    card->setBackgroundRole(QPalette::Base);
    card->setVisible(false);
    auto* layout = new QVBoxLayout(card);
    layout->setContentsMargins(12, 10, 12, 10);
    layout->setSpacing(4);
    layout->addWidget(certificateName_);
    layout->addWidget(certificateDetails_);
    layout->addWidget(warningRow_);
    return card;
}

void SignInPane::didEnterPane(NSInteger)
{
    inputsChanged();
    for (QLineEdit* edit : {loginField_, fileField_, passphraseField_}) {
        if (edit->text().isEmpty()) {
            edit->setFocus();
            break;
        }
    }
}

void SignInPane::showPassphrase(bool visible)
{
    passphraseField_->setEchoMode(visible ? QLineEdit::Normal : QLineEdit::Password);
    showButton_->setText(visible ? tr("Hide") : tr("Show"));
}

void SignInPane::chooseFile()
{
    const QString file = QFileDialog::getOpenFileName(contentView(), tr("Choose your certificate file"), QString(),
        tr("Certificate files (*.p12 *.pfx);;All files (*)"));
    if (!file.isEmpty())
        fileField_->setText(file);
}

// Whatever was found out is about something else now.
void SignInPane::inputsChanged()
{
    checker_.cancel();
    check_.reset();
    asked_ = false;
    for (QLabel* message : {loginMessage_, fileMessage_, passphraseMessage_})
        message->setVisible(false);
    card_->setVisible(false);
    setBusy(false);
    pause_.start();
    setNextEnabled(!loginField_->text().trimmed().isEmpty() && !fileField_->text().isEmpty());
}

void SignInPane::checkWhenComplete()
{
    if (!loginField_->text().trimmed().isEmpty() && !fileField_->text().isEmpty())
        checkNow();
}

void SignInPane::checkNow()
{
    pause_.stop();
    if (check_) {
        showCheck();
        return;
    }
    if (checker_.isBusy())
        return;
    setBusy(true);
    checker_.start({login(), fileField_->text().toStdString(), passphrase(), authority_});
}

void SignInPane::passphraseEntered()
{
    if (passphraseField_->text().isEmpty())
        return;
    asked_ = true;
    checkWhenComplete();
}

void SignInPane::showCheck()
{
    setBusy(false);
    if (check_->place == BundleCheck::Place::file) {
        tell(fileMessage_, check_->problem);
    } else if (check_->place == BundleCheck::Place::passphrase) {
        // Not while it is still being typed.
        if (asked_)
            tell(passphraseMessage_, check_->problem);
    } else {
        certificateName_->setText(QString::fromStdString(check_->certificate.name));
        certificateDetails_->setText(describeCertificate(check_->certificate));
        certificateWarnings_->setText(check_->warnings.join(QStringLiteral("\n\n")));
        warningRow_->setVisible(!check_->warnings.isEmpty());
        card_->setVisible(true);
        QAccessibleEvent alert(card_, QAccessible::Alert);
        QAccessible::updateAccessibility(&alert);
    }
}

void SignInPane::tell(QLabel* message, const QString& text)
{
    message->setPalette(errorPalette(*contentView()));
    message->setText(text);
    message->setVisible(true);
    QAccessibleEvent alert(message, QAccessible::Alert);
    QAccessible::updateAccessibility(&alert);
}

void SignInPane::setBusy(bool busy)
{
    checkingLabel_->setVisible(busy);
    if (QProgressBar* bar = progressIndicator()) {
        bar->setRange(0, busy ? 0 : 1);
        bar->setVisible(busy);
    }
}

bool SignInPane::refuse(QLabel* message, QLineEdit* field, const QString& text)
{
    tell(message, text);
    field->setFocus();
    field->selectAll();
    return false;
}

bool SignInPane::loginIsGood()
{
    const QString name = loginField_->text().trimmed();
    const bool hasSpace = std::any_of(name.begin(), name.end(), [](QChar c) { return c.isSpace(); });
    // A name that is slightly wrong would find none of the person's old certificates.
    if (name.contains(u'@') || hasSpace)
        return refuse(loginMessage_, loginField_,
            tr("Enter the login name alone, without white space and without “%1”.")
                .arg(QString::fromStdString(emailAddressOf({}))));
    return true;
}

bool SignInPane::shouldExitPane(NSInteger direction)
{
    if (direction != KFWizardForward)
        return true;
    if (!loginIsGood())
        return false;
    asked_ = true;
    if (!check_) {
        checkNow();
        return false;
    }
    if (check_->place == BundleCheck::Place::file)
        return refuse(fileMessage_, fileField_, check_->problem);
    if (check_->place == BundleCheck::Place::passphrase)
        return refuse(passphraseMessage_, passphraseField_, check_->problem);
    const SecretBytes secret = passphrase();
    setValue(NSString::stringWithUTF8String(login()), "login"_ns);
    setValue(check_->base64, "pkcs12"_ns);
    setValue(NSString::sensitiveStringWithUTF8String({reinterpret_cast<const char*>(secret.data()), secret.size()}),
        "downloadpassword"_ns);
    return true;
}

std::string SignInPane::login() const { return loginField_->text().trimmed().toStdString(); }

// Qt does not wipe the text of a field; it is cleared, and our copies are wiped.
SecretBytes SignInPane::passphrase() const
{
    QByteArray text = passphraseField_->text().toUtf8();
    SecretBytes bytes(text.cbegin(), text.cend());
    explicit_bzero(text.data(), static_cast<std::size_t>(text.size()));
    return bytes;
}

void SignInPane::didExitPane(NSInteger)
{
    {
        // The bundle is still wanted: the next page imports it.
        const QSignalBlocker blocker(passphraseField_);
        passphraseField_->clear();
    }
    showButton_->setChecked(false);
    pause_.stop();
    check_.reset();
}

} // namespace kf
