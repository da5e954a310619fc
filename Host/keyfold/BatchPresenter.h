// The answers of a run that nobody watches.
#pragma once

#include "Security/Presenter.h"

namespace kf {

/// Says "Yes" to the question about existing certificates where the command line
/// does, gives every other question its safe answer, and prints both.
class BatchPresenter final : public Presenter {
public:
    explicit BatchPresenter(bool deleteOld) : deleteOld_(deleteOld) { }
    NSInteger runAlert(const AlertQuestion& question) override;
    std::optional<SecretBytes> keychainPassphrase(const PassphraseQuestion& question) override;

private:
    bool deleteOld_;
};

} // namespace kf
