#include "AppKit/MainThread.h"
#include "AppKit/QObjectReference.h"
#include "AppKit/Text.h"
#include "Tests/Wizard/Support.h"

#include <QThread>

#include <memory>
#include <stdexcept>

namespace {

void onAnotherThread(const std::function<void()>& work)
{
    const std::unique_ptr<QThread> thread(QThread::create(work));
    thread->start();
    while (!thread->isFinished())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    thread->wait();
}

TEST(MainThread, IsReachedFromAnotherThreadAndWaitedFor)
{
    QThread* ran = nullptr;
    bool doneWhenBack = false;
    onAnotherThread([&] { doneWhenBack = kf::performOnMainThread([&] { ran = QThread::currentThread(); }) && ran; });
    EXPECT_EQ(ran, qApp->thread());
    EXPECT_TRUE(doneWhenBack);
}

TEST(MainThread, CallsDirectlyWhereItIsTheCaller)
{
    bool ran = false;
    EXPECT_TRUE(kf::performOnMainThread([&] { ran = true; }));
    EXPECT_TRUE(ran);
}

TEST(MainThread, AnExceptionEndsThereAndIsLogged)
{
    const kf::test::LogLines log;
    onAnotherThread([] { kf::performOnMainThread([] { throw std::runtime_error("no luck"); }); });
    EXPECT_EQ(log.lines(), std::vector<std::string>{"A call on the main thread failed: no luck"});
}

TEST(MainThread, WithoutWaitingTheCallComesLater)
{
    int calls = 0;
    performSelectorOnMainThread({"count", [&](const Ref<NSObject>&) { ++calls; }}, nullptr, false);
    EXPECT_EQ(calls, 0);
    QCoreApplication::processEvents();
    EXPECT_EQ(calls, 1);
}

TEST(QObjectReference, ForgetsAnObjectThatIsGone)
{
    auto widget = std::make_unique<QWidget>();
    const auto reference = kf::QObjectReference::referenceTo(widget.get());
    EXPECT_EQ(reference->objectAs<QWidget>(), widget.get());
    EXPECT_EQ(reference->objectAs<QTimer>(), nullptr);
    widget.reset();
    EXPECT_EQ(reference->objectAs<QWidget>(), nullptr);
}

TEST(Text, GoesThereAndBack)
{
    for (const char16_t* text : {u"", u"plain", u"Zoë", u"日本", u"\xfeffmark", u"\xd800 alone"}) {
        const Ref<NSString> string = NSString::stringWithCharacters(text);
        EXPECT_EQ(kf::toQString(string).toStdU16String(), text);
        EXPECT_TRUE(CFEqual(kf::toNSString(kf::toQString(string)), string));
    }
    EXPECT_TRUE(kf::toQString(nullptr).isNull());
    EXPECT_EQ(kf::toNSString(QString()), nullptr);
}

} // namespace
