// Checking a bundle beside a living page.
#pragma once

#include "keyfold/BundleCheck.h"

#include <QObject>

#include <thread>

namespace kf {

/// Checks one bundle at a time on a thread of its own. The latest request wins: what an earlier one finds is never
/// told. A check that is under way cannot be stopped, only be left unheard; whoever destroys the checker waits for it.
/// Main thread.
class BundleChecker final : public QObject {
    Q_OBJECT
public:
    BundleChecker();
    ~BundleChecker() override;

    void start(BundleRequest request);
    void cancel();
    /// Whether finished() is still to come.
    bool isBusy() const noexcept { return wanted_; }

Q_SIGNALS:
    void finished(const kf::BundleCheck& check);

private:
    void launch(BundleRequest request);
    void ended(const BundleCheck& check);

    std::thread thread_;
    std::optional<BundleRequest> next_;
    bool wanted_ = false;
};

} // namespace kf
