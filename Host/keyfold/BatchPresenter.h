// The answers of a run that nobody watches.
#pragma once

#include "Security/Presenter.h"
#include "keyfold/BatchReport.h"

namespace kf {

/// Says "Yes" to the question about existing certificates where the command line
/// does, gives every other question its safe answer, and reports both. Gives
/// keychains the pass phrase that the command line named a file of.
class BatchPresenter final : public Presenter {
public:
    BatchPresenter(BatchReport& report, bool deleteOld, std::optional<SecretBytes> keychainPassphrase)
        : report_(report), deleteOld_(deleteOld), keychainPassphrase_(std::move(keychainPassphrase))
    {
    }
    /// From now on the answer is "No", whatever the command line says. The thread that the presenter was made on,
    /// before anybody asks.
    void keepOld() noexcept { deleteOld_ = false; }
    NSInteger runAlert(const AlertQuestion& question) override;
    std::optional<SecretBytes> keychainPassphrase(const PassphraseQuestion& question) override;

private:
    BatchReport& report_;
    bool deleteOld_;
    std::optional<SecretBytes> keychainPassphrase_;
};

} // namespace kf
