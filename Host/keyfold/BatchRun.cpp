#include "keyfold/BatchRun.h"

#include "AppKit/Text.h"
#include "KFWizard/KFWizardPane.h"
#include "KFWizard/PlugIn.h"
#include "KFWizard/WizardWindow.h"
#include "keyfold/Application.h"
#include "keyfold/BatchPresenter.h"
#include "keyfold/ExitStatus.h"
#include "keyfold/InputFiles.h"
#include "keyfold/Output.h"

#include <QApplication>

#include <csignal>
#include <cstdio>

namespace kf {

namespace {

/// Lets a presenter answer while it lives.
class PresenterScope {
public:
    explicit PresenterScope(Presenter* presenter) : before_(Presenter::setCurrent(presenter)) { }
    ~PresenterScope() { Presenter::setCurrent(before_); }
    PresenterScope(const PresenterScope&) = delete;
    PresenterScope& operator=(const PresenterScope&) = delete;

private:
    Presenter* before_;
};

void printMessage(const QLabel* field, const QString& message)
{
    const QString about = field->accessibleDescription();
    print(about.isEmpty() ? message : about + QStringLiteral(": ") + message);
}

// The spheres, as a screen reader tells them.
void printStates(const QWidget& view)
{
    for (const QLabel* sphere : view.findChildren<QLabel*>()) {
        if (sphere->property("state").isValid())
            print(sphere->accessibleName() + QStringLiteral(": ") + sphere->accessibleDescription());
    }
}

// What Qt says of an environment without a desktop is not what the page says.
void tellTrouble(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtCriticalMsg || type == QtFatalMsg)
        std::fprintf(stderr, "keyfold: %s\n", message.toLocal8Bit().constData());
}

int fail(int status, const std::string& message)
{
    std::fprintf(stderr, "keyfold: %s\n", message.c_str());
    return status;
}

int runPage(const CommandLine& line, WizardWindow& window)
{
    PlugIn plugIn(line.bundle.empty() ? defaultBundlePath() : QString::fromStdString(line.bundle));
    std::unique_ptr<KFWizardPane> made = plugIn.createPane();
    if (!made)
        return fail(exitNoPage, plugIn.reason().toStdString());
    KFWizardPane* pane = window.addSection()->addPane(std::move(made));
    QObject::connect(pane, &KFWizardPane::messageShown, &window, printMessage);
    print(toQString(pane->title()));
    if (!line.pictureFile.empty())
        window.show();
    window.goToPane(pane);
    printStates(*pane->contentView());
    const bool installed = static_cast<bool>(window.fields().valueForField("UserSecIdentityRef"_ns));
    if (!line.pictureFile.empty() && !window.grab().save(QString::fromStdString(line.pictureFile), "PNG")) {
        const int status = installed ? exitIncomplete : exitNotInstalled;
        return fail(status, line.pictureFile + " cannot be written");
    }
    if (std::ferror(stdout)) {
        const int status = installed ? exitIncomplete : exitNotInstalled;
        return fail(status, "the output cannot be written");
    }
    return installed ? exitInstalled : exitNotInstalled;
}

} // namespace

int runBatch(const CommandLine& line, char* program)
{
    // Whoever reads less of the output than there is does not end the work.
    std::signal(SIGPIPE, SIG_IGN);
    const Ref<NSString> login = NSString::stringWithUTF8String(line.login);
    if (!login)
        return fail(exitWrongUsage, "the login name is no UTF-8 text");
    const auto bundle = readPKCS12AsBase64(line.pkcs12File);
    if (const auto* error = std::get_if<InputError>(&bundle))
        return fail(exitUnreadable, error->message);
    auto passphrase = readPassphrase(line.passphraseFile);
    if (const auto* error = std::get_if<InputError>(&passphrase))
        return fail(exitUnreadable, error->message);

    qInstallMessageHandler(tellTrouble);
    // Before Qt starts: without a display it would end the program.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    int argc = 1;
    char* argv[] = {program, nullptr};
    const QApplication application(argc, argv);

    BatchPresenter presenter(line.deleteOld);
    const PresenterScope scope(&presenter);
    WizardWindow window;
    window.fields().setValue(login, "login"_ns);
    window.fields().setValue(std::get<Ref<NSString>>(bundle), "pkcs12"_ns);
    window.fields().setValue(std::exchange(std::get<Ref<NSString>>(passphrase), nullptr), "downloadpassword"_ns);
    return runPage(line, window);
}

} // namespace kf
