// chooser_demonstration PICTURE: shows the identity chooser on a keychain of its own, in a home of its own, and prints
// what was chosen. Without a display it writes a picture of the panel instead, and chooses nothing.

#include "AppKit/QtPresenter.h"
#include "Keychain/KeychainTools.h"
#include "Security/Keychain/Store.h"
#include "Tests/Support/ScratchHome.h"
#include "Tests/Wizard/DemonstrationIdentities.h"

#include <QApplication>
#include <QDialog>
#include <QTimer>

#include <cstdio>

namespace {

using namespace kf::test;

bool hasDisplay()
{
    for (const char* name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"})
        if (const char* value = std::getenv(name); value && *value)
            return true;
    return false;
}

/// The home is about to be another one, and the way to the display stands in the old one.
void keepDisplayAuthority()
{
    if (const char* home = std::getenv("HOME"))
        ::setenv("XAUTHORITY", (std::string(home) + "/.Xauthority").c_str(), 0);
}

/// Saves every panel that opens and closes it again.
class Photographer {
public:
    explicit Photographer(const char* file) : file_(QString::fromLocal8Bit(file))
    {
        QObject::connect(&timer_, &QTimer::timeout, [this] { look(); });
        timer_.start(50);
    }
    bool isDone() const noexcept { return isDone_; }

private:
    void look()
    {
        if (auto* panel = qobject_cast<QDialog*>(QApplication::activeModalWidget())) {
            isDone_ = panel->grab().save(file_, "PNG");
            panel->reject();
        }
    }

    QString file_;
    QTimer timer_;
    bool isDone_ = false;
};

int demonstrate(const char* pictureFile, bool display)
{
    Authority authority;
    const auto identities = demonstrationIdentities();
    const auto certificates = NSMutableArray::array();
    for (const BundleOptions& options : identities)
        certificates->addObject(importIdentity(authority.issue(options))->certificate());

    std::optional<Photographer> photographer;
    if (!display)
        photographer.emplace(pictureFile);
    const auto chosen = KeychainTools::userSelectCertificateFromArray(certificates);
    if (photographer) {
        std::printf(photographer->isDone() ? "No display: a picture of the chooser is in %s\n"
                                           : "chooser_demonstration: %s cannot be written\n",
            pictureFile);
        return photographer->isDone() ? 0 : 1;
    }
    for (NSUInteger index = 0; index < certificates->count(); ++index)
        if (CFEqual(certificates->objectAtIndex(index), chosen))
            std::printf("Chosen: number %zu, %s\n", index + 1, identities[index].commonName.c_str());
    if (!chosen)
        std::puts("Nothing was chosen.");
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: chooser_demonstration PICTURE\n", stderr);
        return 2;
    }
    const bool display = hasDisplay();
    if (!display)
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    keepDisplayAuthority();
    const ScratchHome home;
    const QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    kf::QtPresenter presenter;
    kf::Presenter::setCurrent(&presenter);
    int status = 1;
    try {
        status = demonstrate(argv[1], display);
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "chooser_demonstration: %s\n", exception.what());
    }
    kf::Presenter::setCurrent(nullptr);
    kf::keychain::closeAll();
    return status;
}
