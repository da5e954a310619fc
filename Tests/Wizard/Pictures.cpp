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
#include "Security/SecTrust.h"
#include "Security/Trust/DistributionStore.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/RecordingAuthorization.h"
#include "Tests/Wizard/DemonstrationIdentities.h"
#include "keyfold/Application.h"
#include "keyfold/EndPane.h"

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

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace {

using namespace kf::test;

int distance(QRgb a, QRgb b)
{
    return std::abs(qRed(a) - qRed(b)) + std::abs(qGreen(a) - qGreen(b)) + std::abs(qBlue(a) - qBlue(b));
}

/// The picture in so few colours that the documents stay small: those that come up most, none near another one.
QImage withFewColours(const QImage& picture)
{
    constexpr int near = 24;
    constexpr int most = 256;
    const QImage image = picture.convertToFormat(QImage::Format_RGB32);
    std::map<QRgb, int> counts;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x)
            ++counts[image.pixel(x, y)];
    }
    std::vector<std::pair<int, QRgb>> colours;
    colours.reserve(counts.size());
    for (const auto& [colour, count] : counts)
        colours.emplace_back(-count, colour);
    std::sort(colours.begin(), colours.end());
    QList<QRgb> table;
    std::map<QRgb, uint> places;
    for (const auto& [count, colour] : colours) {
        const auto nearest = std::min_element(table.cbegin(), table.cend(),
            [wanted = colour](QRgb a, QRgb b) { return distance(a, wanted) < distance(b, wanted); });
        places[colour] = static_cast<uint>(nearest - table.cbegin());
        if (nearest != table.cend() && (distance(*nearest, colour) < near || table.size() == most))
            continue;
        places[colour] = static_cast<uint>(table.size());
        table.append(colour);
    }
    QImage reduced(image.size(), QImage::Format_Indexed8);
    reduced.setColorTable(table);
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x)
            reduced.setPixel(x, y, places[image.pixel(x, y)]);
    }
    return reduced;
}

class Pictures {
public:
    explicit Pictures(QString directory, bool isWhole) : directory_(std::move(directory)), isWhole_(isWhole)
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
        takeWarnings();
        takeInstaller();
        takeEnds();
        openFrom("/usr/lib/keyfold/KFInstaller.bundle");
        save(window_->grab(), "not-loaded");
        return good_;
    }

private:
    void takeSignIn()
    {
        openFrom(KEYFOLD_BUNDLE);
        save(window_->grab(), "sign-in-empty");
        const Bundle slow = authority_.issue({.iterations = 900'000});
        open(slow);
        window_->goNext();
        saveSignIn("sign-in-checking");
        waitFor("certificateCard");
        open(first_);
        waitFor("certificateCard");
        saveSignIn("sign-in");
        find("showButton")->click();
        saveSignIn("sign-in-shown");

        Bundle wrong = first_;
        wrong.passphrase = "wrong";
        saveRefused(wrong, "passphraseMessage", "sign-in-wrong");
        saveRefused(authority_.issue({.withoutKey = true}), "fileMessage", "sign-in-key-missing");
        const Bundle damaged = authority_.issue();
        writeFile(damaged.file, std::span(damaged.pkcs12).first(damaged.pkcs12.size() / 2));
        saveRefused(damaged, "fileMessage", "sign-in-damaged");
    }

    void saveRefused(const Bundle& bundle, const char* message, const char* name)
    {
        open(bundle);
        window_->goNext();
        waitFor(message);
        saveSignIn(name);
    }

    void takeWarnings()
    {
        saveWarning(authority_.issue({.notAfter = "20250101000000Z"}), "ada", "sign-in-expired");
        saveWarning(authority_.issue({.notBefore = "20480101000000Z"}), "ada", "sign-in-not-yet-valid");
        saveWarning(first_, "grace", "sign-in-other-address");
        saveWarning(authority_.issue({.withChain = true}), "ada", "sign-in-impostor");
        saveWarning(
            authority_.issue({.withChain = true, .notAfter = "20250101000000Z"}), "grace", "sign-in-all-warnings");
    }

    void saveWarning(const Bundle& bundle, const char* login, const char* name)
    {
        open(bundle, login);
        waitFor("certificateCard");
        saveSignIn(name);
    }

    /// Every page from sign-in on: with rights and bad luck, then without rights.
    void takeInstaller()
    {
        open(first_);
        waitFor("certificateCard");
        authorization_.setTool([&](const kf::authorization::ToolCommand&) {
            kf::performOnMainThread([this] { takeWorking(); });
            return 0;
        });
        authorization_.refuse(errSecSuccess);
        faults_->arm(kf::keychain::Operation::beginWriting, 1, errSecIssuerAndSerialTaken, true);
        window_->goNext();
        faults_->disarm();
        open(first_);
        waitFor("certificateCard");
        authorization_.failToLaunch(errAuthorizationToolExecuteFailure);
        faults_->arm(kf::keychain::Operation::beginWriting, 1, errSecIssuerAndSerialTaken, true);
        window_->goNext();
        settle();
        save(window_->grab(), "installer-red");
        faults_->disarm();

        authorization_.refuse(errAuthorizationDenied);
        open(first_);
        waitFor("certificateCard");
        window_->goNext();
        settle();
        save(window_->grab(), "installer-green");
        saveHelp();
        window_->goNext();
        saveEndPage("end-for-member");
        identity_ = window_->fields().valueForField("UserSecIdentityRef"_ns);

        open(authority_.issue({.commonName = "Ada Newly"}));
        waitFor("certificateCard");
        QTimer alert;
        QObject::connect(&alert, &QTimer::timeout, [this] { saveAlert(); });
        alert.start(20);
        window_->goNext();
    }

    /// The page at work, and what may be asked meanwhile.
    void takeWorking()
    {
        settle();
        save(window_->grab(), "installer-gray");
        for (const int attempt : {1, 2}) {
            kf::PassphraseBox box({"/home/ada/.local/share/pki/nssdb"_ns, attempt}, window_.get());
            box.show();
            QTest::keyClicks(box.findChild<QLineEdit*>(), QStringLiteral("a pass phrase"));
            saveOver(box, attempt == 1 ? "keychain-passphrase" : "keychain-passphrase-wrong");
        }
    }

    /// The last page where everything works, and where nothing is left of what was installed.
    void takeEnds()
    {
        authorization_.setAdministrator(true);
        const SecCertificateRef authority = shippedAuthority();
        memory_->create("/Library/Keychains/System.keychain");
        SecTrustSettingsSetTrustSettings(authority, kSecTrustSettingsDomainAdmin, nullptr);
        const auto before = kf::trust::setDistributionStore(std::make_shared<EveryAuthority>());
        const auto tool = authority_.directory() / "security";
        writeFile(tool, R"(#!/bin/sh
echo '{"places": [{"place": "Chromium", "state": "readable", "published": true},
  {"place": "Firefox", "state": "readable", "published": true}]}'
)");
        std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
        saveEnd(tool, "end");
        kf::trust::setDistributionStore(before);

        const kf::keychain::ScopedBackend nothing(std::make_shared<kf::keychain::MemoryBackend>());
        saveEnd("/nonexistent", "end-failed");
    }

    void saveEnd(const std::filesystem::path& tool, const char* name)
    {
        newWindow();
        auto page = std::make_unique<kf::EndPane>(
            KEYFOLD_BUNDLE "/Contents/Resources/orvane_ca.der", QString::fromStdString(tool.string()));
        window_->fields().setValue(identity_, "UserSecIdentityRef"_ns);
        window_->addSection()->addPane(std::move(page));
        window_->show();
        window_->goToPane(window_->firstPane());
        saveEndPage(name);
    }

    void saveEndPage(const char* name)
    {
        // The path of an installed program; the page need not know.
        for (QLabel* label : window_->findChildren<QLabel*>()) {
            if (label->text().contains(QStringLiteral(KEYFOLD_BUNDLE)))
                label->setText(label->text().replace(
                    QStringLiteral(KEYFOLD_BUNDLE), QStringLiteral("/usr/lib/keyfold/KFInstaller.bundle")));
        }
        settle();
        save(window_->grab(), name);
    }

    /// The distribution trusts whatever it is asked about.
    class EveryAuthority final : public kf::trust::DistributionStore {
    public:
        std::vector<kf::Bytes> certificatesWithSubject(std::span<const std::uint8_t>) const override
        {
            return {readFile(KEYFOLD_BUNDLE "/Contents/Resources/orvane_ca.der")};
        }
        std::vector<kf::Bytes> certificates() const override { return certificatesWithSubject({}); }
    };

    static SecCertificateRef shippedAuthority()
    {
        Bytes der = readFile(KEYFOLD_BUNDLE "/Contents/Resources/orvane_ca.der");
        const CSSM_DATA data{der.size(), der.data()};
        SecCertificateRef certificate;
        SecCertificateCreateFromData(&data, CSSM_CERT_X_509v3, CSSM_CERT_ENCODING_DER, &certificate);
        return certificate;
    }

    void newWindow()
    {
        window_.reset();
        window_ = std::make_unique<kf::WizardWindow>();
        presenter_ = std::make_unique<kf::QtPresenter>(window_.get());
        kf::Presenter::setCurrent(presenter_.get());
    }

    void openLine(const kf::CommandLine& line)
    {
        newWindow();
        kf::fillWizard(*window_, line);
        window_->show();
        window_->goToPane(window_->firstPane());
        QApplication::processEvents();
    }

    void openFrom(const char* bundlePath)
    {
        kf::CommandLine line;
        line.bundle = bundlePath;
        openLine(line);
    }

    void open(const Bundle& bundle, const char* login = "ada")
    {
        kf::CommandLine line;
        line.login = login;
        line.pkcs12File = bundle.file.string();
        line.bundle = KEYFOLD_BUNDLE;
        openLine(line);
        window_->findChild<QLineEdit*>(QStringLiteral("passphraseField"))
            ->setText(QString::fromStdString(bundle.passphrase));
        QApplication::processEvents();
    }

    QPushButton* find(const char* name) { return window_->findChild<QPushButton*>(QLatin1String(name)); }

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
        // The whole document, once; elsewhere what the panel shows of it. Without its scroll bar it is lower.
        for (int turn = 0; isWhole_ && turn < 2; ++turn) {
            panel->resize(panel->width(), static_cast<int>(text->document()->size().height()) + 8);
            QApplication::processEvents();
        }
        save(panel->grab(), "help");
        panel->hide();
    }

    void save(const QPixmap& picture, const char* name)
    {
        const QString file = directory_ + QLatin1Char('/') + QLatin1String(name) + QStringLiteral(".png");
        const bool saved = withFewColours(picture.toImage()).save(file, "PNG", 0); // 0: as small as can be
        std::printf("%s%s\n", file.toUtf8().constData(), saved ? "" : " cannot be written");
        good_ = good_ && saved;
    }

    QString directory_;
    bool isWhole_;
    bool good_ = true;
    std::shared_ptr<kf::keychain::MemoryBackend> memory_ = std::make_shared<kf::keychain::MemoryBackend>();
    std::shared_ptr<kf::keychain::FaultBackend> faults_ = std::make_shared<kf::keychain::FaultBackend>(memory_);
    Authority authority_;
    const Bundle first_ = authority_.issue();
    RecordingAuthorization authorization_;
    Ref<NSObject> identity_; ///< what was installed
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
        process.setProcessChannelMode(QProcess::ForwardedOutputChannel);
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
    font.setHintingPreference(QFont::PreferFullHinting);      // a letter is the same wherever it stands: small files
    QApplication::setFont(font);
    if (look == u"dark")
        QApplication::setPalette(darkPalette());
    if (look == u"right-to-left")
        QApplication::setLayoutDirection(Qt::RightToLeft);
}

bool takePictures(int argc, char** argv, const QString& directory, const QString& look)
{
    // Keychains are in memory: nothing is written below it.
    setenv("HOME", "/home/ada", 1);
    for (const char* name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"})
        unsetenv(name);
    const QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    putOn(look);
    return Pictures(directory, look == QLatin1String(looks.front())).take();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fputs("usage: keyfold_pictures DIRECTORY\n", stderr);
        return 2;
    }
    try {
        const QString directory = QString::fromLocal8Bit(argv[1]);
        const bool good = argc == 2 ? startEachLook(argv[0], directory)
                                    : takePictures(argc, argv, directory, QString::fromLocal8Bit(argv[2]));
        return good ? 0 : 1;
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "keyfold_pictures: %s\n", exception.what());
        return 1;
    }
}
