// What the platform asks a person.
//
// Services below the interface never open a window: they ask the presenter that
// the program has set. Without one, every question has its safe answer.
#pragma once

#include "Foundation/NSString.h"
#include "Foundation/SecretBytes.h"

#include <functional>
#include <optional>
#include <vector>

namespace kf {

/// Codes of an alert's buttons.
inline constexpr NSInteger alertDefaultReturn = 1;
inline constexpr NSInteger alertAlternateReturn = 0;
inline constexpr NSInteger alertOtherReturn = -1;

struct AlertQuestion {
    Ref<NSString> messageText;
    Ref<NSString> informativeText;
    Ref<NSString> defaultButton;
    Ref<NSString> alternateButton; ///< nil: no such button
    Ref<NSString> otherButton;     ///< nil: no such button
    bool critical = false;
    std::function<void()> help; ///< empty: no help button; called without closing the alert
};

struct PassphraseQuestion {
    Ref<NSString> keychainPath;
    int attempt = 1; ///< 1, then one more for each wrong answer
};

/// One of the identities to choose from, as a person reads it. Nil texts are not known.
struct IdentityChoice {
    Ref<NSString> name;
    Ref<NSString> issuer;
    Ref<NSString> emailAddresses; ///< separated by commas
    std::int64_t notBefore = 0;   ///< seconds since the Unix epoch
    std::int64_t notAfter = 0;
};

struct IdentityQuestion {
    Ref<NSString> message;
    Ref<NSString> alternateButton;
    std::vector<IdentityChoice> choices; ///< may be empty
};

class Presenter {
public:
    virtual ~Presenter();

    /// Asks modally and gives the button's code. Only a press of the alternate
    /// button itself gives alertAlternateReturn: closing, Escape, Return and
    /// every failure give alertDefaultReturn. Main thread.
    virtual NSInteger runAlert(const AlertQuestion& question) = 0;
    /// The pass phrase of a keychain; nothing where the person cancels. Any thread.
    virtual std::optional<SecretBytes> keychainPassphrase(const PassphraseQuestion& question) = 0;

    /// Asks which identity to use and gives its place in the question's choices;
    /// nothing where the person presses the alternate button, closes or escapes.
    /// A presenter that knows no such question chooses nothing. Any thread.
    virtual std::optional<std::size_t> chooseIdentity(const IdentityQuestion& question);

    /// The person leaves: the question that is open gets its safe answer, and every later one without being asked. A
    /// presenter that asks nobody has nothing to give up. Main thread.
    virtual void giveUp();

    /// The process's presenter, or null. Any thread.
    static Presenter* current() noexcept;
    /// Replaces it (borrowed; it must outlive its time as the current one) and
    /// gives back the one before.
    static Presenter* setCurrent(Presenter* presenter) noexcept;
};

} // namespace kf
