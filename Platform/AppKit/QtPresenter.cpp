#include "AppKit/QtPresenter.h"

#include "AppKit/AlertBox.h"
#include "AppKit/IdentityBox.h"
#include "AppKit/MainThread.h"
#include "AppKit/PassphraseBox.h"

#include <QApplication>
#include <QEvent>

namespace kf {

void QtPresenter::giveUp()
{
    hasGivenUp_ = true;
    if (open_)
        open_->reject();
}

// Whether the program then quits is decided by whoever else listens.
bool QtPresenter::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == qApp && event->type() == QEvent::Quit)
        giveUp();
    return false;
}

bool QtPresenter::run(QDialog& dialog)
{
    if (hasGivenUp_)
        return false;
    open_ = &dialog;
    qApp->installEventFilter(this); // before those of whoever waits for the answer
    const int result = dialog.exec();
    qApp->removeEventFilter(this);
    return result == QDialog::Accepted;
}

NSInteger QtPresenter::runAlert(const AlertQuestion& question)
{
    NSInteger code = alertDefaultReturn;
    performOnMainThread([&] {
        AlertBox box(question, window_);
        run(box);
        code = box.buttonCode();
    });
    return code;
}

std::optional<SecretBytes> QtPresenter::keychainPassphrase(const PassphraseQuestion& question)
{
    std::optional<SecretBytes> passphrase;
    performOnMainThread([&] {
        PassphraseBox box(question, window_);
        if (run(box))
            passphrase = box.takePassphrase();
    });
    return passphrase;
}

std::optional<std::size_t> QtPresenter::chooseIdentity(const IdentityQuestion& question)
{
    std::optional<std::size_t> choice;
    performOnMainThread([&] {
        IdentityBox box(question, window_);
        if (run(box))
            choice = box.selectedChoice();
    });
    return choice;
}

} // namespace kf
