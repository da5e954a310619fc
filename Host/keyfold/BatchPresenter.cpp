#include "keyfold/BatchPresenter.h"

#include "AppKit/Text.h"

namespace kf {

NSInteger BatchPresenter::runAlert(const AlertQuestion& question)
{
    const bool isYes = deleteOld_ && CFEqual(question.messageText, "Existing certificates found"_ns)
        && CFEqual(question.alternateButton, "Yes"_ns);
    report_.question(toQString(question.messageText) + QStringLiteral(": ") + toQString(question.informativeText),
        toQString(isYes ? question.alternateButton : question.defaultButton));
    return isYes ? alertAlternateReturn : alertDefaultReturn;
}

// A wrong one is given again until the keychain has had enough: then the error says that it is wrong.
std::optional<SecretBytes> BatchPresenter::keychainPassphrase(const PassphraseQuestion&) { return keychainPassphrase_; }

} // namespace kf
