// keyfold_pictures DIRECTORY: renders the wizard's pages for the documents.
// Everything shown is the real page at work, on keychains in memory.

#include "AppKit/MainThread.h"
#include "AppKit/QtPresenter.h"
#include "KFWizard/KFWizardPane.h"
#include "Security/Keychain/MemoryBackend.h"
#include "Security/Keychain/Store.h"
#include "Security/SFChooseIdentityPanel.h"
#include "Tests/Support/Fixtures.h"
#include "Tests/Support/RecordingAuthorization.h"
#include "Tests/Support/ScratchHome.h"
#include "Tests/Wizard/DemonstrationIdentities.h"
#include "keyfold/Application.h"

#include <QApplication>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QTimer>

#include <cstdio>
#include <cstdlib>

namespace {

using namespace kf::test;

class Pictures {
public:
    explicit Pictures(QString directory) : directory_(std::move(directory))
    {
        kf::keychain::setBackend(std::make_shared<kf::keychain::MemoryBackend>());
        authorization_.refuse(errAuthorizationDenied);
    }
    ~Pictures() { kf::keychain::setBackend(nullptr); }

    bool take()
    {
        saveChooser();
        const Bundle first = authority_.issue();
        signIn(first, QString());
        save(window_->grab(), "sign-in");

        const auto photograph = [this] { save(window_->grab(), "installer-gray"); };
        authorization_.setTool([&](const kf::authorization::ToolCommand&) {
            kf::performOnMainThread(photograph);
            return 1;
        });
        authorization_.refuse(errSecSuccess); // rights, and a tool that takes its time
        run(first, QStringLiteral("wrong"));
        save(window_->grab(), "installer-red");

        authorization_.refuse(errAuthorizationDenied);
        run(first, QString::fromStdString(first.passphrase));
        save(window_->grab(), "installer-green");
        saveHelp();
        window_->goNext();
        save(window_->grab(), "end");

        QTimer alert;
        QObject::connect(&alert, &QTimer::timeout, [this] { saveAlert(); });
        alert.start(20);
        const Bundle second = authority_.issue({.commonName = "Ada Newly"});
        run(second, QString::fromStdString(second.passphrase));
        return good_;
    }

private:
    void signIn(const Bundle& bundle, const QString& passphrase)
    {
        window_ = std::make_unique<kf::WizardWindow>();
        presenter_ = std::make_unique<kf::QtPresenter>(window_.get());
        kf::Presenter::setCurrent(presenter_.get());
        kf::fillWizard(*window_,
            {.action = kf::CommandLine::Action::window,
                .login = "ada",
                .pkcs12File = bundle.file.string(),
                .passphraseFile = {},
                .deleteOld = false,
                .pictureFile = {},
                .bundle = KEYFOLD_BUNDLE});
        window_->show();
        window_->goToPane(window_->firstPane());
        auto* file = window_->findChild<QLineEdit*>(QStringLiteral("fileField"));
        if (passphrase.isNull())
            file->setText(QStringLiteral("/home/ada/Downloads/certificate.p12"));
        window_->findChild<QLineEdit*>(QStringLiteral("passphraseField"))
            ->setText(passphrase.isNull() ? QStringLiteral("a pass phrase") : passphrase);
    }

    void run(const Bundle& bundle, const QString& passphrase)
    {
        signIn(bundle, passphrase);
        window_->goNext();
    }

    void saveAlert()
    {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (widget->objectName() != u"alert" || !widget->isVisible())
                continue;
            QPixmap picture = window_->grab();
            const QPixmap box = widget->grab();
            const QPoint at((picture.width() - box.width()) / 2, (picture.height() - box.height()) / 2);
            QPainter painter(&picture);
            painter.fillRect(picture.rect(), QColor(0, 0, 0, 70));
            painter.drawPixmap(at, box);
            painter.setPen(QColor(0, 0, 0, 110));
            painter.drawRect(QRect(at, box.size()).adjusted(-1, -1, 0, 0));
            painter.end();
            save(picture, "installer-alert");
            qobject_cast<QDialog*>(widget)->reject();
            return;
        }
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
        panel->resize(panel->width(), 1180);
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
    bool good_ = true;
    Authority authority_;
    RecordingAuthorization authorization_;
    std::unique_ptr<kf::WizardWindow> window_;
    std::unique_ptr<kf::QtPresenter> presenter_;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: keyfold_pictures DIRECTORY\n", stderr);
        return 2;
    }
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    const ScratchHome home;
    const QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QFont font = QApplication::font();
    font.setPointSizeF(10.5); // what desktops use; the platform without one has smaller letters
    QApplication::setFont(font);
    return Pictures(QString::fromLocal8Bit(argv[1])).take() ? 0 : 1;
}
