// keyfold_pictures DIRECTORY: renders the wizard's pages for the documents: DIRECTORY/*.png, and the same in a dark
// palette, at 200 %, from right to left and with large letters in folders below it. Everything shown is the real page
// at work, on keychains in memory.

#include "AppKit/MainThread.h"
#include "AppKit/PassphraseBox.h"
#include "AppKit/QtPresenter.h"
#include "KFWizard/KFWizardPane.h"
#include "Security/Keychain/FaultBackend.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/Store.h"
#include "Security/SFChooseIdentityPanel.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/RecordingAuthorization.h"
#include "Tests/Wizard/DemonstrationIdentities.h"
#include "keyfold/Application.h"

#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QProcess>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QTemporaryFile>
#include <QTest>
#include <QTextBrowser>
#include <QTimer>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace {

using namespace kf::test;

class Pictures {
public:
    explicit Pictures(QString directory) : directory_(std::move(directory))
    {
        kf::keychain::setBackend(faults_);
        authorization_.refuse(errAuthorizationDenied);
    }
    ~Pictures()
    {
        window_.reset();
        kf::Presenter::setCurrent(nullptr);
        kf::keychain::setBackend(nullptr);
    }

    bool take()
    {
        saveChooser();
        takeSignIn();
        takeInstaller();
        takeFailures();
        return good_;
    }

private:
    void takeSignIn()
    {
        const Bundle slow = authority_.issue({.iterations = 900'000});
        open(slow, slow.passphrase);
        window_->goNext();
        saveSignIn("sign-in-checking");
        waitFor("certificateCard");
        open(first_, "wrong");
        window_->goNext();
        waitFor("passphraseMessage");
        saveSignIn("sign-in-wrong");
        const Bundle doubtful = authority_.issue({.withChain = true, .notAfter = "20250101000000Z"});
        open(doubtful, doubtful.passphrase);
        window_->findChild<QLineEdit*>(QStringLiteral("loginField"))->setText(QStringLiteral("grace"));
        waitFor("certificateCard");
        saveSignIn("sign-in-warning");
    }

    void takeInstaller()
    {
        open(first_, first_.passphrase);
        waitFor("certificateCard");
        saveSignIn("sign-in");
        authorization_.setTool([&](const kf::authorization::ToolCommand&) {
            kf::performOnMainThread([this] { save(window_->grab(), "installer-gray"); });
            return 1;
        });
        authorization_.refuse(errSecSuccess); // rights, and a tool that fails
        faults_->arm(kf::keychain::Operation::beginWriting, 1, errSecKeychainBusy, true);
        window_->goNext();
        save(window_->grab(), "installer-red");
        faults_->disarm();

        authorization_.refuse(errAuthorizationDenied);
        open(first_, first_.passphrase);
        waitFor("certificateCard");
        window_->goNext();
        save(window_->grab(), "installer-green");
        saveHelp();
        window_->goNext();
        settle();
        save(window_->grab(), "end");

        const Bundle second = authority_.issue({.commonName = "Ada Newly"});
        open(second, second.passphrase);
        waitFor("certificateCard");
        QTimer alert;
        QObject::connect(&alert, &QTimer::timeout, [this] { saveAlert(); });
        alert.start(20);
        window_->goNext();
    }

    void takeFailures()
    {
        for (const int attempt : {1, 2}) {
            kf::PassphraseBox box({"/home/ada/.local/share/pki/nssdb"_ns, attempt}, window_.get());
            box.findChild<QLineEdit*>()->setText(QStringLiteral("a pass phrase"));
            box.show();
            saveOver(box, attempt == 1 ? "keychain-passphrase" : "keychain-passphrase-wrong");
        }
        bundlePath_ = "/usr/lib/keyfold/KFInstaller.bundle";
        open(first_, {});
        save(window_->grab(), "not-loaded");
    }

    void open(const Bundle& bundle, const std::string& passphrase)
    {
        window_.reset();
        window_ = std::make_unique<kf::WizardWindow>();
        presenter_ = std::make_unique<kf::QtPresenter>(window_.get());
        kf::Presenter::setCurrent(presenter_.get());
        kf::CommandLine line;
        line.login = "ada";
        line.pkcs12File = bundle.file.string();
        line.bundle = bundlePath_;
        kf::fillWizard(*window_, line);
        window_->show();
        window_->goToPane(window_->firstPane());
        if (auto* field = window_->findChild<QLineEdit*>(QStringLiteral("passphraseField")))
            field->setText(QString::fromStdString(passphrase));
        QApplication::processEvents();
    }

    void saveSignIn(const char* name)
    {
        // A path that reads well; the page need not know.
        auto* field = window_->findChild<QLineEdit*>(QStringLiteral("fileField"));
        const QSignalBlocker silence(field);
        const QString file = field->text();
        field->setText(QStringLiteral("/home/ada/Downloads/certificate.p12"));
        save(window_->grab(), name);
        field->setText(file);
    }

    void waitFor(const char* name)
    {
        auto* widget = window_->findChild<QWidget*>(QLatin1String(name));
        if (!QTest::qWaitFor([&] { return widget->isVisible(); }, 60'000)) {
            std::printf("%s never came\n", name);
            good_ = false;
        }
        settle();
    }

    /// Waits until the window has grown for its page.
    void settle()
    {
        QApplication::processEvents();
        const auto fits = [this] {
            for (const auto* area : window_->findChildren<QScrollArea*>(QStringLiteral("pageArea"))) {
                if (area->isVisible() && area->verticalScrollBar()->maximum() > 0)
                    return false;
            }
            return true;
        };
        if (!QTest::qWaitFor(fits, 10'000)) {
            std::printf("a page does not fit its window\n");
            good_ = false;
        }
    }

    void saveAlert()
    {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (widget->objectName() != u"alert" || !widget->isVisible())
                continue;
            saveOver(*widget, "installer-alert");
            qobject_cast<QDialog*>(widget)->reject();
            return;
        }
    }

    /// A dialog in front of its window, as a desktop shows it.
    void saveOver(QWidget& dialog, const char* name)
    {
        QApplication::processEvents();
        QPixmap picture = window_->grab();
        const QPixmap box = dialog.grab();
        const QSizeF size = box.deviceIndependentSize();
        const QPointF at((picture.deviceIndependentSize().width() - size.width()) / 2,
            (picture.deviceIndependentSize().height() - size.height()) / 2);
        QPainter painter(&picture);
        painter.fillRect(picture.rect(), QColor(0, 0, 0, 70));
        painter.drawPixmap(at, box);
        painter.setPen(QColor(0, 0, 0, 110));
        painter.drawRect(QRectF(at, size).adjusted(-1, -1, 0, 0));
        painter.end();
        save(picture, name);
    }

    void saveChooser()
    {
        const kf::keychain::ScopedBackend keychains(std::make_shared<kf::keychain::MemoryBackend>());
        kf::QtPresenter presenter;
        kf::Presenter* const before = kf::Presenter::setCurrent(&presenter);
        const auto identities = NSMutableArray::array();
        for (const BundleOptions& options : demonstrationIdentities())
            identities->addObject(importIdentity(authority_.issue(options)));
        QTimer::singleShot(0, [this] {
            QWidget* const box = QApplication::activeModalWidget();
            box->resize(box->width(), 700);
            QApplication::processEvents();
            save(box->grab(), "chooser");
            box->close();
        });
        SFChooseIdentityPanel::sharedChooseIdentityPanel()->runModalForIdentities(
            identities, "Which personal certificate would you like to use?"_ns);
        kf::Presenter::setCurrent(before);
    }

    void saveHelp()
    {
        window_->currentPane()->showHelp(nullptr);
        auto* panel = window_->findChild<QDialog*>(QStringLiteral("helpWindow"));
        auto* text = panel->findChild<QTextBrowser*>(QStringLiteral("helpText"));
        QApplication::processEvents();
        panel->resize(panel->width(), static_cast<int>(text->document()->size().height()) + 8);
        QApplication::processEvents();
        save(panel->grab(), "help");
        panel->hide();
    }

    void save(const QPixmap& picture, const char* name)
    {
        const QString file = directory_ + QLatin1Char('/') + QLatin1String(name) + QStringLiteral(".png");
        const bool saved = picture.save(file, "PNG");
        std::printf("%s%s\n", file.toUtf8().constData(), saved ? "" : " cannot be written");
        good_ = good_ && saved;
    }

    QString directory_;
    std::string bundlePath_ = KEYFOLD_BUNDLE;
    bool good_ = true;
    std::shared_ptr<kf::keychain::FaultBackend> faults_ =
        std::make_shared<kf::keychain::FaultBackend>(std::make_shared<kf::keychain::MemoryBackend>());
    Authority authority_;
    const Bundle first_ = authority_.issue();
    RecordingAuthorization authorization_;
    std::unique_ptr<kf::WizardWindow> window_;
    std::unique_ptr<kf::QtPresenter> presenter_;
};

QPalette darkPalette()
{
    QPalette dark(QColor(53, 55, 58), QColor(43, 45, 48));
    dark.setColor(QPalette::Base, QColor(30, 31, 34));
    dark.setColor(QPalette::Text, QColor(230, 230, 230));
    dark.setColor(QPalette::WindowText, QColor(230, 230, 230));
    dark.setColor(QPalette::ButtonText, QColor(230, 230, 230));
    dark.setColor(QPalette::PlaceholderText, QColor(150, 150, 150));
    dark.setColor(QPalette::Link, QColor(120, 180, 255));
    dark.setColor(QPalette::Highlight, QColor(48, 140, 198));
    dark.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(120, 122, 125));
    return dark;
}

/// The looks, each in a process of its own: some can be chosen only before Qt starts.
constexpr std::array looks = {"light", "dark", "200-percent", "right-to-left", "large-letters"};

/// A screen that no page is too large for.
constexpr const char* screen = R"({"screens": [{"name": "screen", "x": 0, "y": 0, "width": 2400, "height": 2400,
    "logicalDpi": 96, "logicalBaseDpi": 96, "dpr": 1}]})";

bool startEachLook(const char* program, const QString& directory)
{
    QTemporaryFile configuration;
    if (!configuration.open() || configuration.write(screen) < 0 || !configuration.flush())
        return false;
    bool good = true;
    for (const char* look : looks) {
        const QString name = QLatin1String(look);
        const QString folder = name == u"light" ? directory : directory + QLatin1Char('/') + name;
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedChannels);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(
            QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen:configfile=") + configuration.fileName());
        if (name == u"200-percent")
            environment.insert(QStringLiteral("QT_SCALE_FACTOR"), QStringLiteral("2"));
        process.setProcessEnvironment(environment);
        QDir().mkpath(folder);
        process.start(QString::fromLocal8Bit(program), {folder, name});
        good = process.waitForFinished(-1) && process.exitCode() == 0 && good;
    }
    return good;
}

void putOn(const QString& look)
{
    QFont font = QApplication::font();
    font.setPointSizeF(look == u"large-letters" ? 18 : 10.5); // what desktops use; the platform without one has smaller
    QApplication::setFont(font);
    if (look == u"dark")
        QApplication::setPalette(darkPalette());
    if (look == u"right-to-left")
        QApplication::setLayoutDirection(Qt::RightToLeft);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fputs("usage: keyfold_pictures DIRECTORY\n", stderr);
        return 2;
    }
    const QString directory = QString::fromLocal8Bit(argv[1]);
    if (argc == 2)
        return startEachLook(argv[0], directory) ? 0 : 1;
    // Keychains are in memory: nothing is written below it.
    setenv("HOME", "/home/ada", 1);
    for (const char* name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"})
        unsetenv(name);
    const QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    putOn(QString::fromLocal8Bit(argv[2]));
    return Pictures(directory).take() ? 0 : 1;
}
