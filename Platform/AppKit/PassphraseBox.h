// The window that asks for a keychain's pass phrase.
#pragma once

#include "Security/Presenter.h"

#include <QDialog>

class QLineEdit;

namespace kf {

/// Its field has the object name "passphraseField", its buttons "unlockButton" and "cancelButton".
class PassphraseBox final : public QDialog {
    Q_OBJECT
public:
    PassphraseBox(const PassphraseQuestion& question, QWidget* parent);

    /// Takes the pass phrase as UTF-8 out of the field. Qt keeps copies of a
    /// field's text that it does not wipe: ours is the one that is.
    SecretBytes takePassphrase();

private:
    QLineEdit* field_;
};

} // namespace kf
