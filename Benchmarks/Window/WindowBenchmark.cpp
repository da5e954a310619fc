// window_benchmark START empty | wizard BUNDLE: opens a window and prints, once it is painted, the milliseconds since
// START (nanoseconds since the epoch, taken just before this program was started) and the most megabytes that were in
// memory.

#include "AppKit/QtPresenter.h"
#include "keyfold/Application.h"

#include <QApplication>
#include <QPaintEvent>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

namespace {

long long now()
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

double residentMegabytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:"))
            return std::strtod(line.c_str() + std::strlen("VmHWM:"), nullptr) * 1024 / 1e6;
    }
    return -1;
}

/// Ends the program once its window was painted.
class WhenPainted final : public QObject {
public:
    WhenPainted(QWidget* window, long long start) : start_(start) { window->installEventFilter(this); }
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == QEvent::Paint)
            QMetaObject::invokeMethod(
                qApp,
                [start = start_] {
                    std::printf("%.1f %.1f\n", static_cast<double>(now() - start) / 1e6, residentMegabytes());
                    QCoreApplication::quit();
                },
                Qt::QueuedConnection);
        return false;
    }

private:
    long long start_;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fputs("usage: window_benchmark START empty | wizard BUNDLE\n", stderr);
        return 2;
    }
    const long long start = std::strtoll(argv[1], nullptr, 10);
    const QApplication application(argc, argv);
    if (std::strcmp(argv[2], "empty") == 0) {
        QWidget window;
        window.resize(640, 520);
        const WhenPainted end(&window, start);
        window.show();
        return QApplication::exec();
    }
    kf::CommandLine line;
    line.bundle = argv[3];
    kf::WizardWindow window;
    kf::QtPresenter presenter(&window);
    kf::Presenter::setCurrent(&presenter);
    if (!kf::fillWizard(window, line))
        return 1;
    const WhenPainted end(&window, start);
    window.show();
    window.goToPane(window.firstPane());
    return QApplication::exec();
}
