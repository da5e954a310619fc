// The answers of a run that nobody watches.
#pragma once

#include "Security/Presenter.h"

namespace kf {

/// Says "Yes" to the question about existing certificates, for which the person
/// has asked on the command line, and gives every other question its safe answer.
class BatchPresenter final : public Presenter {
public:
    NSInteger runAlert(const AlertQuestion& question) override;
    std::optional<SecretBytes> keychainPassphrase(const PassphraseQuestion& question) override;
};

} // namespace kf
