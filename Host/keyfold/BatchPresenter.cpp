#include "keyfold/BatchPresenter.h"

#include "AppKit/Text.h"
#include "keyfold/Output.h"

namespace kf {

NSInteger BatchPresenter::runAlert(const AlertQuestion& question)
{
    const bool isYes = deleteOld_ && CFEqual(question.messageText, "Existing certificates found"_ns)
        && CFEqual(question.alternateButton, "Yes"_ns);
    print(toQString(question.messageText) + QStringLiteral(": ") + toQString(question.informativeText));
    print(QStringLiteral("Answer: ") + toQString(isYes ? question.alternateButton : question.defaultButton));
    return isYes ? alertAlternateReturn : alertDefaultReturn;
}

std::optional<SecretBytes> BatchPresenter::keychainPassphrase(const PassphraseQuestion&) { return std::nullopt; }

} // namespace kf
