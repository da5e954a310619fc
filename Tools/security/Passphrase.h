// Where pass phrases come from: never from the command line, which every user can read.
#pragma once

#include "Foundation/SecretBytes.h"
#include "Security/Presenter.h"
#include "security/Arguments.h"

#include <optional>

namespace kf::security {

/// The long options below, as parseArguments takes them.
inline constexpr std::string_view passphraseOptions = "passphrase-file: passphrase-fd:";

/// What is wrong with the options about a pass phrase; empty for nothing. -P,
/// by which other tools take one, is refused.
std::string whyNotPassphraseOptions(const Arguments& arguments);

/// A pass phrase, or why there is none.
struct Passphrase {
    Ref<NSString> text; ///< sensitive; nil where there is none
    std::string error;
};

/// The first line of the file or the open descriptor that the options name,
/// else what is typed at the terminal, without echo, after `question`; twice
/// where `isNew`. At most 4096 bytes of UTF-8; a byte order mark and the line's
/// end are left out.
Passphrase readPassphrase(const Arguments& arguments, const std::string& question, bool isNew = false);

/// Asks at the terminal for the pass phrases of keychains. Without a terminal nobody is asked.
class TerminalPresenter final : public Presenter {
public:
    /// Whether this process has a terminal.
    static bool isPossible();

    NSInteger runAlert(const AlertQuestion&) override { return alertDefaultReturn; }
    std::optional<SecretBytes> keychainPassphrase(const PassphraseQuestion& question) override;
};

} // namespace kf::security
