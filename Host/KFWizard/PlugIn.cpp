#include "KFWizard/PlugIn.h"

#include "AppKit/Text.h"
#include "Foundation/NSLog.h"
#include "KFWizard/PlugInInterface.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <dlfcn.h>

namespace kf {

namespace {

QString translate(const char* text) { return QCoreApplication::translate("PlugIn", text); }

} // namespace

PlugIn::PlugIn(const QString& bundlePath) : path_(QFileInfo(bundlePath).absoluteFilePath()) { }

PlugIn::State PlugIn::fail(State state, const QString& reason)
{
    state_ = state;
    reason_ = reason;
    NSLog("The bundle %s gives no page: %s", path_.toStdString(), reason.toStdString());
    return state_;
}

PlugIn::State PlugIn::load()
{
    if (state_ != State::notLoaded)
        return state_;
    bundle_ = NSBundle::bundleWithPath(toNSString(path_));
    if (!bundle_)
        return fail(State::missing, translate("There is no bundle at %1.").arg(path_));
    const Ref<NSString> code = bundle_->executablePath();
    if (!code)
        return fail(State::noCode, translate("%1 holds no code for this system.").arg(path_));
    void* library = dlopen(toUTF8(code).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library)
        return fail(
            State::cannotBeLoaded, translate("The code cannot be loaded: %1.").arg(QString::fromLocal8Bit(dlerror())));
    const auto* version = static_cast<const std::uint32_t*>(dlsym(library, KFWizardInterfaceVersionSymbol));
    if (version && *version != KFWizardCurrentInterfaceVersion)
        return fail(State::wrongInterfaceVersion,
            translate("It was built for version %1 of the wizard, not %2.")
                .arg(*version)
                .arg(KFWizardCurrentInterfaceVersion));
    create_ = reinterpret_cast<KFWizardCreatePaneFunction>(dlsym(library, KFWizardCreatePaneSymbol));
    if (!version || !create_)
        return fail(State::noFactory, translate("%1 offers no page.").arg(path_));
    state_ = State::loaded;
    return state_;
}

std::unique_ptr<KFWizardPane> PlugIn::createPane()
{
    if (load() != State::loaded)
        return nullptr;
    std::unique_ptr<KFWizardPane> pane(create_());
    QString problem;
    if (!pane || !pane->loadInterface(bundle_, &problem)) {
        fail(State::paneFailed, problem);
        return nullptr;
    }
    return pane;
}

} // namespace kf
