// The presenter of a program with windows.
#pragma once

#include "Security/Presenter.h"

#include <QPointer>
#include <QWidget>

namespace kf {

/// Asks in dialogs on top of a window. Quitting the program while a question
/// is open closes it with its safe answer.
class QtPresenter final : public Presenter {
public:
    /// `window` is what the dialogs belong to; null for none.
    explicit QtPresenter(QWidget* window = nullptr) : window_(window) { }

    NSInteger runAlert(const AlertQuestion& question) override;
    std::optional<SecretBytes> keychainPassphrase(const PassphraseQuestion& question) override;
    std::optional<std::size_t> chooseIdentity(const IdentityQuestion& question) override;

private:
    QPointer<QWidget> window_;
};

} // namespace kf
