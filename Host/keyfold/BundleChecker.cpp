#include "keyfold/BundleChecker.h"

#include "AppKit/Text.h"
#include "Foundation/Guarded.h"

namespace kf {

BundleChecker::BundleChecker() = default;

BundleChecker::~BundleChecker()
{
    if (thread_.joinable())
        thread_.join();
    forgetInspectedBundle();
}

void BundleChecker::start(BundleRequest request)
{
    wanted_ = true;
    if (thread_.joinable())
        next_ = std::move(request);
    else
        launch(std::move(request));
}

void BundleChecker::cancel()
{
    wanted_ = false;
    next_.reset();
    forgetInspectedBundle();
}

void BundleChecker::launch(BundleRequest request)
{
    thread_ = std::thread([this, request = std::move(request)] {
        // Stands where the check itself fails.
        BundleCheck failed;
        failed.place = BundleCheck::Place::file;
        failed.problem = toQString(SecCopyErrorMessageString(errSecInternalComponent, nullptr));
        const auto check = std::make_shared<BundleCheck>(std::move(failed));
        guarded("checkBundle", [&] { *check = checkBundle(request); });
        QMetaObject::invokeMethod(
            this, [this, check] { ended(*check); }, Qt::QueuedConnection);
    });
}

void BundleChecker::ended(const BundleCheck& check)
{
    thread_.join();
    if (!wanted_ || next_)
        forgetInspectedBundle();
    if (next_)
        launch(*std::exchange(next_, std::nullopt));
    else if (std::exchange(wanted_, false))
        Q_EMIT finished(check);
}

} // namespace kf
