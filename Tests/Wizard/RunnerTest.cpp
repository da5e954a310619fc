#include "AppKit/MainThread.h"
#include "KFWizard/BackgroundRunner.h"
#include "Security/Authorization/OpenRequest.h"
#include "Tests/Wizard/Support.h"

#include <QThread>

#include <atomic>
#include <stdexcept>

namespace {

using kf::BackgroundJob;
using kf::BackgroundRunner;
using kf::test::LogLines;

BackgroundJob job(std::function<void()> work)
{
    return {{"aJob", [work = std::move(work)](const Ref<NSObject>&) { work(); }}, nullptr, nullptr, -1.0};
}

TEST(BackgroundRunner, RunsOnAnotherThreadAndReturnsAfterwards)
{
    BackgroundRunner runner;
    QThread* ran = nullptr;
    EXPECT_TRUE(runner.run(job([&] {
        QThread::msleep(30);
        ran = QThread::currentThread();
    })));
    EXPECT_NE(ran, nullptr);
    EXPECT_NE(ran, QThread::currentThread());
    EXPECT_FALSE(runner.isBusy());
}

TEST(BackgroundRunner, HandsTheObjectOver)
{
    BackgroundRunner runner;
    Ref<NSObject> got;
    const Ref<NSObject> object = "object"_ns;
    runner.run({{"aJob", [&](const Ref<NSObject>& given) { got = given; }}, object, nullptr, -1.0});
    EXPECT_EQ(got, object);
}

TEST(BackgroundRunner, KeepsTheInterfaceAlive)
{
    BackgroundRunner runner;
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] { ++ticks; });
    timer.start(5);
    runner.run(job([] { QThread::msleep(100); }));
    EXPECT_GE(ticks, 5);
}

TEST(BackgroundRunner, RefusesASecondJobMeanwhile)
{
    BackgroundRunner runner;
    bool refused = false;
    bool secondRan = false;
    QTimer::singleShot(10, [&] { refused = !runner.run(job([&] { secondRan = true; })); });
    const LogLines log;
    runner.run(job([] { QThread::msleep(60); }));
    EXPECT_TRUE(refused);
    EXPECT_FALSE(secondRan);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"The job aJob was not started: another one is running"});
}

TEST(BackgroundRunner, AnExceptionEndsTheJobAndIsLogged)
{
    BackgroundRunner runner;
    const LogLines log;
    EXPECT_TRUE(runner.run(job([] { throw std::runtime_error("no luck"); })));
    EXPECT_TRUE(runner.run(job([] { throw 7; })));
    EXPECT_EQ(log.lines(),
        (std::vector<std::string>{"aJob ended with an exception: no luck", "aJob ended with an exception: unknown"}));
}

TEST(BackgroundRunner, APassedTimeLimitIsLoggedAndTheJobWaitedFor)
{
    BackgroundRunner runner;
    const LogLines log;
    bool ended = false;
    BackgroundJob slow = job([&] {
        QThread::msleep(120);
        ended = true;
    });
    slow.timeout = 0.02;
    runner.run(slow);
    EXPECT_TRUE(ended);
    EXPECT_EQ(log.lines(),
        std::vector<std::string>{"The job aJob has passed its time limit of 0.02 seconds and is waited for"});
}

TEST(BackgroundRunner, MinusOneIsNoTimeLimit)
{
    BackgroundRunner runner;
    const LogLines log;
    runner.run(job([] { QThread::msleep(50); }));
    EXPECT_TRUE(log.lines().empty());
}

TEST(BackgroundRunner, AnimatesTheProgressIndicatorWhileItRuns)
{
    BackgroundRunner runner;
    QProgressBar bar;
    bar.setVisible(false);
    bool movedWhileRunning = false;
    QTimer::singleShot(20, [&] { movedWhileRunning = bar.isVisible() && bar.maximum() == 0; });
    BackgroundJob slow = job([] { QThread::msleep(60); });
    slow.progressIndicator = &bar;
    runner.run(slow);
    EXPECT_TRUE(movedWhileRunning);
    EXPECT_FALSE(bar.isVisible());
    EXPECT_EQ(bar.maximum(), 1);
}

// Quit and exit are different roads: a request that can be held up, and an order that leaves every loop.
TEST(BackgroundRunner, AQuitWaitsForTheJobAndThenHappens)
{
    BackgroundRunner runner;
    bool jobEnded = false;
    bool quitBeforeEnd = false;
    QTimer::singleShot(0, [&] {
        QTimer::singleShot(10, qApp, &QCoreApplication::quit);
        runner.run(job([&] {
            for (int i = 0; i < 10; ++i) {
                QThread::msleep(10);
                kf::performOnMainThread([] {});
            }
            jobEnded = true;
        }));
    });
    QObject::connect(qApp, &QCoreApplication::aboutToQuit, &runner, [&] { quitBeforeEnd = !jobEnded; });
    const kf::test::Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_TRUE(jobEnded);
    EXPECT_FALSE(quitBeforeEnd);
}

TEST(BackgroundRunner, AQuitGivesUpAQuestionForAdministratorRights)
{
    BackgroundRunner runner;
    bool isAnswered = true;
    QTimer::singleShot(0, [&] {
        QTimer::singleShot(30, qApp, &QCoreApplication::quit);
        runner.run(job([&] {
            const kf::authorization::OpenRequest request;
            isAnswered = request.waitFor(-1);
        }));
    });
    const kf::test::Deadline deadline;
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_FALSE(isAnswered);
}

TEST(BackgroundRunner, AnExitDoesNotLockJobAndMainThreadUp)
{
    BackgroundRunner runner;
    bool jobEnded = false;
    bool hopped = true;
    QTimer::singleShot(0, [&] {
        QTimer::singleShot(10, qApp, [] { QCoreApplication::exit(3); });
        runner.run(job([&] {
            QThread::msleep(40);
            hopped = kf::performOnMainThread([] {});
            jobEnded = true;
        }));
    });
    EXPECT_EQ(QApplication::exec(), 3);
    EXPECT_TRUE(jobEnded);
    EXPECT_TRUE(hopped);
}

} // namespace
