#include "keyfold/BatchRun.h"

#include "AppKit/Text.h"
#include "Foundation/NSLog.h"
#include "KFWizard/KFWizardPane.h"
#include "KFWizard/PlugIn.h"
#include "KFWizard/WizardWindow.h"
#include "keyfold/Application.h"
#include "keyfold/BatchPresenter.h"
#include "keyfold/BatchReport.h"
#include "keyfold/DryRun.h"
#include "keyfold/ExitStatus.h"
#include "keyfold/InputFiles.h"

#include <QApplication>

#include <csignal>
#include <cstdio>
#include <future>
#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <thread>

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

// The spheres, as a screen reader tells them.
void reportStates(const QWidget& view, BatchReport& report)
{
    for (const QLabel* sphere : view.findChildren<QLabel*>()) {
        const QVariant state = sphere->property("state");
        if (state.isValid())
            report.jobEnded(sphere->accessibleName(), sphere->accessibleDescription(), state.toLongLong() == 1);
    }
}

// What Qt says of an environment without a desktop is not what the page says.
void tellTrouble(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtCriticalMsg || type == QtFatalMsg)
        std::fprintf(stderr, "keyfold: %s\n", message.toLocal8Bit().constData());
}

/// What a run came to.
struct Outcome {
    int status = exitInstalled;
    bool installed = false;
};

// Some kernels leave a new thread waiting behind the one that made it, for milliseconds, with a processor idle beside
// them.
void keepOffThisProcessor(std::jthread& thread)
{
    cpu_set_t processors;
    const int here = sched_getcpu();
    if (here < 0 || sched_getaffinity(0, sizeof processors, &processors) != 0 || CPU_COUNT(&processors) < 2)
        return;
    CPU_CLR(static_cast<std::size_t>(here), &processors);
    pthread_setaffinity_np(thread.native_handle(), sizeof processors, &processors);
}

Outcome fail(BatchReport& report, int status, const std::string& message)
{
    report.error(QString::fromStdString(message));
    return {status, false};
}

/// What the command line names, read.
struct Inputs {
    Ref<NSString> login;
    Ref<NSString> pkcs12;
    Ref<NSString> passphrase;
    std::optional<SecretBytes> keychainPassphrase;
};

SecretBytes bytesOf(const Ref<NSString>& text)
{
    std::string utf8 = toUTF8(text);
    SecretBytes bytes(utf8.begin(), utf8.end());
    explicit_bzero(utf8.data(), utf8.size());
    return bytes;
}

QString bundlePathOf(const CommandLine& line)
{
    return line.bundle.empty() ? defaultBundlePath() : QString::fromStdString(line.bundle);
}

Outcome runPage(const CommandLine& line, std::unique_ptr<KFWizardPane> made, Inputs& inputs, BatchReport& report)
{
    WizardWindow window;
    window.fields().setValue(inputs.login, "login"_ns);
    window.fields().setValue(inputs.pkcs12, "pkcs12"_ns);
    window.fields().setValue(std::exchange(inputs.passphrase, nullptr), "downloadpassword"_ns);
    KFWizardPane* pane = window.addSection()->addPane(std::move(made));
    QObject::connect(pane, &KFWizardPane::messageShown, &window,
        [&](const QLabel* field, const QString& text) { report.message(field->accessibleDescription(), text); });
    report.title(toQString(pane->title()));
    if (!line.pictureFile.empty())
        window.show();
    window.goToPane(pane);
    reportStates(*pane->contentView(), report);
    const bool installed = static_cast<bool>(window.fields().valueForField("UserSecIdentityRef"_ns));
    Outcome outcome{installed ? exitInstalled : exitNotInstalled, installed};
    if (!line.pictureFile.empty() && !window.grab().save(QString::fromStdString(line.pictureFile), "PNG")) {
        report.error(QString::fromStdString(line.pictureFile) + QStringLiteral(" cannot be written"));
        if (installed)
            outcome.status = exitIncomplete;
    }
    return outcome;
}

Outcome runWithInputs(const CommandLine& line, Inputs& inputs, const BundleRequest& request,
    std::future<BundleLook> look, BatchPresenter& presenter, BatchReport& report)
{
    PlugIn plugIn(bundlePathOf(line));
    std::unique_ptr<KFWizardPane> pane = plugIn.createPane();
    if (!pane)
        return fail(report, exitNoPage, plugIn.reason().toStdString());
    const BundleCheck check = checkBundle(look.get(), request);
    if (line.dryRun)
        return {reportDryRun(check, request, line.deleteOld, report) ? exitInstalled : exitNotInstalled, false};
    for (const QString& warning : check.warnings)
        report.warning(warning);
    // The page deletes before it imports: what is old must not go for a bundle that cannot take its place.
    if (line.deleteOld && !check.isGood()) {
        presenter.keepOld();
        report.warning(QStringLiteral("Nothing old will be deleted: ") + check.problem);
    }
    return runPage(line, std::move(pane), inputs, report);
}

/// Reads what the command line names; nothing, with the reason reported, where that fails.
std::optional<Inputs> readInputs(const CommandLine& line, BatchReport& report, int& status)
{
    Inputs inputs;
    inputs.login = NSString::stringWithUTF8String(line.login);
    if (!inputs.login) {
        status = fail(report, exitWrongUsage, "the login name is no UTF-8 text").status;
        return std::nullopt;
    }
    const auto take = [&](const std::variant<Ref<NSString>, InputError>& read, Ref<NSString>& place) {
        if (const auto* error = std::get_if<InputError>(&read)) {
            status = fail(report, exitUnreadable, error->message).status;
            return false;
        }
        place = std::get<Ref<NSString>>(read);
        return true;
    };
    Ref<NSString> keychainPassphrase;
    if (!take(readPKCS12AsBase64(line.pkcs12File), inputs.pkcs12)
        || !take(readPassphrase(line.passphraseFile), inputs.passphrase)
        || (!line.keychainPassphraseFile.empty()
            && !take(readPassphrase(line.keychainPassphraseFile), keychainPassphrase)))
        return std::nullopt;
    if (keychainPassphrase)
        inputs.keychainPassphrase = bytesOf(keychainPassphrase);
    return inputs;
}

} // namespace

int runBatch(const CommandLine& line, char* program)
{
    // Whoever reads less of the output than there is does not end the work.
    std::signal(SIGPIPE, SIG_IGN);
    BatchReport report(line.output);
    Outcome outcome;
    auto inputs = readInputs(line, report, outcome.status);
    if (!inputs)
        return report.finish(outcome.status, false, line.dryRun);

    // Before Qt starts: without a display it would end the program. Fonts take time to find, and only a picture shows
    // any. And before there is a second thread, which reads the environment.
    qputenv("QT_QPA_PLATFORM", line.pictureFile.empty() ? "minimal" : "offscreen");

    // Beside Qt's start, which takes as long.
    const BundleRequest request{
        line.login, line.pkcs12File, bytesOf(inputs->passphrase), shippedAuthority(bundlePathOf(line))};
    std::packaged_task<BundleLook()> task([&, base64 = inputs->pkcs12] { return lookAtBundle(base64, request); });
    std::future<BundleLook> look = task.get_future();
    std::jthread looking(std::move(task));
    keepOffThisProcessor(looking);

    qInstallMessageHandler(tellTrouble);
    int argc = 1;
    char* argv[] = {program, nullptr};
    const QApplication application(argc, argv);

    BatchPresenter presenter(report, line.deleteOld, std::exchange(inputs->keychainPassphrase, std::nullopt));
    const PresenterScope scope(&presenter);
    const NSLogObserver log([&](const std::string& text) { report.logged(text); });
    outcome = runWithInputs(line, *inputs, request, std::move(look), presenter, report);
    looking.join(); // where the page could not be loaded, nobody has waited for it
    forgetInspectedBundle();
    return report.finish(outcome.status, outcome.installed, line.dryRun);
}

} // namespace kf
