// The presenter of a program with windows.
#pragma once

#include "Security/Presenter.h"

#include <QObject>
#include <QPointer>
#include <QWidget>

class QDialog;

namespace kf {

/// Asks in dialogs on top of a window. Quitting the program while a question is open gives up.
class QtPresenter final : public QObject, public Presenter {
public:
    /// `window` is what the dialogs belong to; null for none.
    explicit QtPresenter(QWidget* window = nullptr) : window_(window) { }

    NSInteger runAlert(const AlertQuestion& question) override;
    std::optional<SecretBytes> keychainPassphrase(const PassphraseQuestion& question) override;
    std::optional<std::size_t> chooseIdentity(const IdentityQuestion& question) override;
    void giveUp() override;

    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    /// Runs a dialog on the main thread; whether it was accepted.
    bool run(QDialog& dialog);

    QPointer<QWidget> window_;
    QPointer<QDialog> open_;
    bool hasGivenUp_ = false;
};

} // namespace kf
