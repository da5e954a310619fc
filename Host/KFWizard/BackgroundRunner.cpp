#include "KFWizard/BackgroundRunner.h"

#include "Foundation/Guarded.h"
#include "Security/Authorization/OpenRequest.h"
#include "Security/Presenter.h"

#include <QApplication>
#include <QEvent>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <thread>

namespace kf {

namespace {

/// A bar in motion while it lives.
class Animation {
public:
    explicit Animation(const QPointer<QProgressBar>& indicator) : indicator_(indicator)
    {
        if (!indicator_)
            return;
        indicator_->setRange(0, 0);
        indicator_->setVisible(true);
    }
    ~Animation()
    {
        if (!indicator_)
            return;
        indicator_->setRange(0, 1);
        indicator_->reset();
        indicator_->setVisible(false);
    }
    Animation(const Animation&) = delete;
    Animation& operator=(const Animation&) = delete;

private:
    QPointer<QProgressBar> indicator_;
};

} // namespace

void giveUpQuestions()
{
    authorization::cancelOpenRequests();
    if (Presenter* presenter = Presenter::current())
        presenter->giveUp();
}

bool BackgroundRunner::run(const BackgroundJob& job)
{
    if (busy_) {
        NSLog("The job %s was not started: another one is running", job.selector.name);
        return false;
    }
    busy_ = true;
    qApp->installEventFilter(this);
    {
        const Animation animation(job.progressIndicator);
        waitFor(job);
    }
    qApp->removeEventFilter(this);
    busy_ = false;
    if (std::exchange(quitRequested_, false))
        QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    return true;
}

void BackgroundRunner::waitFor(const BackgroundJob& job)
{
    bool ended = false;
    QObject context;
    QTimer limit;
    limit.setSingleShot(true);
    connect(&limit, &QTimer::timeout, &context, [&job] {
        NSLog("The job %s has passed its time limit of %g seconds and is waited for", job.selector.name, job.timeout);
    });
    if (job.timeout >= 0)
        limit.start(std::chrono::milliseconds(static_cast<std::int64_t>(job.timeout * 1000)));

    // Not a QThread: waiting for one ends before what libraries keep for the thread is given back.
    std::thread thread([&] {
        guarded(job.selector.name.c_str(), [&job] { job.selector.call(job.object); });
        // Queued, so that it comes after everything that the job sent to the main thread.
        QMetaObject::invokeMethod(
            &context, [&ended] { ended = true; }, Qt::QueuedConnection);
    });
    // Not exec(): a program that is told to exit leaves every exec(), and the
    // job would then wait for ever for a main thread that waits for it.
    QEventLoop loop;
    while (!ended)
        loop.processEvents(QEventLoop::WaitForMoreEvents);
    thread.join();
}

bool BackgroundRunner::eventFilter(QObject* watched, QEvent* event)
{
    if (watched != qApp || event->type() != QEvent::Quit)
        return false;
    quitRequested_ = true;
    giveUpQuestions();
    event->ignore();
    return true;
}

} // namespace kf
