#include "AppKit/MainThread.h"

#include "Foundation/NSLog.h"

#include <QCoreApplication>
#include <QThread>

#include <exception>

namespace kf {

namespace {

// An exception must not unwind through Qt's event loop.
void callGuarded(const std::function<void()>& call) noexcept
{
    try {
        call();
    } catch (const std::exception& exception) {
        NSLog("A call on the main thread failed: %s", exception.what());
    } catch (...) {
        NSLog("A call on the main thread failed");
    }
}

} // namespace

bool performOnMainThread(const std::function<void()>& call)
{
    QCoreApplication* application = QCoreApplication::instance();
    if (!application)
        return false;
    if (QThread::currentThread() == application->thread()) {
        callGuarded(call);
        return true;
    }
    bool done = false;
    // The application's end destroys what is queued for it, and that releases the waiting thread.
    QMetaObject::invokeMethod(
        application,
        [&] {
            callGuarded(call);
            done = true;
        },
        Qt::BlockingQueuedConnection);
    return done;
}

} // namespace kf

void performSelectorOnMainThread(const kf::Selector& selector, const Ref<NSObject>& object, bool waitUntilDone)
{
    if (waitUntilDone) {
        kf::performOnMainThread([&] { selector.call(object); });
        return;
    }
    if (QCoreApplication* application = QCoreApplication::instance())
        QMetaObject::invokeMethod(
            application, [selector, object] { kf::callGuarded([&] { selector.call(object); }); }, Qt::QueuedConnection);
}
