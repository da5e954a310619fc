// The window that asks for a keychain's pass phrase.
#pragma once

#include "Security/Presenter.h"

#include <QDialog>

class QLabel;
class QLineEdit;

namespace kf {

/// Names the keychain and says why it is asked for. Object names: "questionLabel", "retryLabel", "passphraseField",
/// "showButton", "unlockButton", "cancelButton".
class PassphraseBox final : public QDialog {
    Q_OBJECT
public:
    PassphraseBox(const PassphraseQuestion& question, QWidget* parent);

    /// Takes the pass phrase as UTF-8 out of the field. Qt keeps copies of a
    /// field's text that it does not wipe: ours is the one that is.
    SecretBytes takePassphrase();

private:
    static QLabel* addText(const QString& text, const char* name);

    QLineEdit* field_;
};

} // namespace kf
