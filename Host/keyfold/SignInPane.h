// The first page: who the person is, and the file with the certificate.
#pragma once

#include "KFWizard/KFWizardPane.h"
#include "keyfold/BundleChecker.h"

#include <QTimer>

#include <optional>

class QFrame;
class QLineEdit;
class QPushButton;

namespace kf {

/// Leaves "login", "pkcs12" and "downloadpassword" in the field store, and lets nobody go on with a bundle that cannot
/// be installed. The bundle is checked by itself once nothing is typed for a moment; its certificate is shown before
/// the wizard goes on. Object names: "loginField", "loginMessage", "fileField", "chooseButton", "fileMessage",
/// "passphraseField", "showButton", "passphraseMessage", "checkingLabel", "certificateCard", "certificateName",
/// "certificateDetails", "certificateWarnings".
class SignInPane final : public KFWizardPane {
    Q_OBJECT
public:
    /// `authority`: DER of the institution's authority.
    SignInPane(const std::string& login, const std::string& pkcs12File, Bytes authority);

    Ref<NSString> title() const override;
    void didEnterPane(NSInteger direction) override;
    bool shouldExitPane(NSInteger direction) override;
    void didExitPane(NSInteger direction) override;

private:
    void makeView();
    QLineEdit* makeField(const char* name, const QString& title);
    QLabel* makeMessage(const char* name, QLineEdit* field);
    QFrame* makeCard();
    void chooseFile();
    void showPassphrase(bool visible);
    void inputsChanged();
    void checkNow();
    void checkWhenComplete();
    void passphraseEntered();
    void showCheck();
    void tell(QLabel* message, const QString& text);
    void setBusy(bool busy);
    bool loginIsGood();
    bool refuse(QLabel* message, QLineEdit* field, const QString& text);
    std::string login() const;
    SecretBytes passphrase() const;

    Bytes authority_;
    BundleChecker checker_;
    QTimer pause_;
    std::optional<BundleCheck> check_; ///< of what stands in the fields now
    bool asked_ = false;               ///< the person is done typing and waits for the check's word

    QLineEdit* loginField_ = nullptr;
    QLabel* loginMessage_ = nullptr;
    QLineEdit* fileField_ = nullptr;
    QLabel* fileMessage_ = nullptr;
    QLineEdit* passphraseField_ = nullptr;
    QPushButton* showButton_ = nullptr;
    QLabel* passphraseMessage_ = nullptr;
    QLabel* checkingLabel_ = nullptr;
    QFrame* card_ = nullptr;
    QLabel* certificateName_ = nullptr;
    QLabel* certificateDetails_ = nullptr;
    QWidget* warningRow_ = nullptr;
    QLabel* certificateWarnings_ = nullptr;
};

} // namespace kf
