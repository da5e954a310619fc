#include "keyfold/Application.h"

#include "AppKit/QtPresenter.h"
#include "AppKit/Text.h"
#include "Foundation/NSData.h"
#include "KFWizard/KFWizardPane.h"
#include "KFWizard/PlugIn.h"
#include "keyfold/BatchRun.h"
#include "keyfold/EndPane.h"
#include "keyfold/ExitStatus.h"
#include "keyfold/SignInPane.h"
#include "keyfold/TextPane.h"

#include <QApplication>
#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

namespace kf {

namespace {

// Qt aborts where it finds no display; a person is told, instead.
void tellFatal(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type != QtFatalMsg)
        return;
    std::fputs("keyfold: there is no display to open a window on; --batch works without one\n", stderr);
    std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
    _exit(exitNoDisplay);
}

bool environmentHasDisplay()
{
    for (const char* name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"}) {
        const char* value = std::getenv(name);
        if (value && *value)
            return true;
    }
    return false;
}

int runWindow(const CommandLine& line, char* program)
{
    if (!environmentHasDisplay()) {
        std::fputs("keyfold: there is no display to open a window on; --batch works without one\n", stderr);
        return exitNoDisplay;
    }
    int argc = 1;
    char* argv[] = {program, nullptr};
    const QtMessageHandler before = qInstallMessageHandler(tellFatal);
    const QApplication application(argc, argv);
    qInstallMessageHandler(before);
    QApplication::setApplicationDisplayName(QStringLiteral("Keyfold"));

    WizardWindow window;
    QtPresenter presenter(&window);
    Presenter::setCurrent(&presenter);
    const bool complete = fillWizard(window, line);
    window.show();
    window.goToPane(window.firstPane());
    const int status = QApplication::exec();
    Presenter::setCurrent(nullptr);
    return complete ? status : exitNoPage;
}

} // namespace

QString defaultBundlePath()
{
    // Qt knows the program's folder only once its application is made.
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    return QDir::cleanPath(
        QFile::decodeName(program.parent_path().c_str()) + QStringLiteral("/../lib/keyfold/KFInstaller.bundle"));
}

std::string authorityFile(const QString& bundlePath)
{
    const Ref<NSBundle> bundle = NSBundle::bundleWithPath(toNSString(bundlePath));
    const Ref<NSString> file = bundle ? bundle->pathForResource("orvane_ca"_ns, "der"_ns) : nullptr;
    return file ? toUTF8(file) : std::string();
}

Bytes shippedAuthority(const QString& bundlePath)
{
    const Ref<NSData> data = NSData::dataWithContentsOfFile(NSString::stringWithUTF8String(authorityFile(bundlePath)));
    return data ? Bytes(data->span().begin(), data->span().end()) : Bytes();
}

bool fillWizard(WizardWindow& window, const CommandLine& line)
{
    PlugIn plugIn(line.bundle.empty() ? defaultBundlePath() : QString::fromStdString(line.bundle));
    std::unique_ptr<KFWizardPane> installer = plugIn.createPane();
    if (!installer) {
        window.addSection()->addPane(std::make_unique<TextPane>("The Installer Cannot Be Loaded"_ns,
            QCoreApplication::translate("Application",
                "Nothing was installed. %1\n\nAsk whoever installed this program "
                "to install it again.")
                .arg(plugIn.reason())));
        return false;
    }
    window.addSection()->addPane(
        std::make_unique<SignInPane>(line.login, line.pkcs12File, shippedAuthority(plugIn.bundlePath())));
    window.addSection()->addPane(std::move(installer));
    window.addSection()->addPane(
        std::make_unique<EndPane>(authorityFile(plugIn.bundlePath()), QStringLiteral("/usr/bin/security")));
    return true;
}

int runKeyfold(int argc, char** argv)
{
    const auto read = readCommandLine({argv + 1, static_cast<std::size_t>(argc > 0 ? argc - 1 : 0)});
    if (const auto* error = std::get_if<UsageError>(&read)) {
        std::fprintf(stderr, "keyfold: %s\nkeyfold --help tells more.\n", error->message.c_str());
        return exitWrongUsage;
    }
    const auto& line = std::get<CommandLine>(read);
    switch (line.action) {
    case CommandLine::Action::help:
        std::fputs(usageText(), stdout);
        return exitInstalled;
    case CommandLine::Action::version:
        std::puts("keyfold " KEYFOLD_VERSION);
        return exitInstalled;
    case CommandLine::Action::batch:
        return runBatch(line, argv[0]);
    case CommandLine::Action::window:
        break;
    }
    return runWindow(line, argv[0]);
}

} // namespace kf
