#include "keyfold/BatchPresenter.h"

namespace kf {

NSInteger BatchPresenter::runAlert(const AlertQuestion& question)
{
    const bool isTheQuestion =
        CFEqual(question.messageText, "Existing certificates found"_ns) && CFEqual(question.alternateButton, "Yes"_ns);
    return isTheQuestion ? alertAlternateReturn : alertDefaultReturn;
}

std::optional<SecretBytes> BatchPresenter::keychainPassphrase(const PassphraseQuestion&) { return std::nullopt; }

} // namespace kf
