#include "AppKit/QtPresenter.h"

#include "AppKit/AlertBox.h"
#include "AppKit/IdentityBox.h"
#include "AppKit/MainThread.h"
#include "AppKit/PassphraseBox.h"

#include <QApplication>
#include <QEvent>

namespace kf {

namespace {

// A request to quit answers the open question; whether the program then
// quits is decided by whoever else listens.
class RejectOnQuit final : public QObject {
public:
    explicit RejectOnQuit(QDialog* dialog) : QObject(dialog), dialog_(dialog) { qApp->installEventFilter(this); }

    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (watched == qApp && event->type() == QEvent::Quit)
            dialog_->reject();
        return false;
    }

private:
    QDialog* dialog_;
};

} // namespace

NSInteger QtPresenter::runAlert(const AlertQuestion& question)
{
    NSInteger code = alertDefaultReturn;
    performOnMainThread([&] {
        AlertBox box(question, window_);
        new RejectOnQuit(&box);
        box.exec();
        code = box.buttonCode();
    });
    return code;
}

std::optional<SecretBytes> QtPresenter::keychainPassphrase(const PassphraseQuestion& question)
{
    std::optional<SecretBytes> passphrase;
    performOnMainThread([&] {
        PassphraseBox box(question, window_);
        new RejectOnQuit(&box);
        if (box.exec() == QDialog::Accepted)
            passphrase = box.takePassphrase();
    });
    return passphrase;
}

std::optional<std::size_t> QtPresenter::chooseIdentity(const IdentityQuestion& question)
{
    std::optional<std::size_t> choice;
    performOnMainThread([&] {
        IdentityBox box(question, window_);
        new RejectOnQuit(&box);
        if (box.exec() == QDialog::Accepted)
            choice = box.selectedChoice();
    });
    return choice;
}

} // namespace kf
