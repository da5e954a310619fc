// The first page: who the person is, and the file with the certificate.
#pragma once

#include "KFWizard/KFWizardPane.h"

class QLineEdit;

namespace kf {

/// Leaves "login", "pkcs12" and "downloadpassword" in the field store. Object
/// names: "loginField", "fileField", "chooseButton", "passphraseField".
class SignInPane final : public KFWizardPane {
    Q_OBJECT
public:
    SignInPane(const std::string& login, const std::string& pkcs12File);

    Ref<NSString> title() const override;
    void didEnterPane(NSInteger direction) override;
    bool shouldExitPane(NSInteger direction) override;
    void didExitPane(NSInteger direction) override;

private:
    void makeView();
    void chooseFile();
    void updateNext();
    Ref<NSString> takePassphrase();

    QLineEdit* loginField_ = nullptr;
    QLineEdit* fileField_ = nullptr;
    QLineEdit* passphraseField_ = nullptr;
};

} // namespace kf
