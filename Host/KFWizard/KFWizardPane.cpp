#include "KFWizard/KFWizardPane.h"

#include "AppKit/MainThread.h"
#include "AppKit/Text.h"
#include "KFWizard/MessageColours.h"

#include <QAccessible>

kf::PaneHost::~PaneHost() = default;

KFWizardPane::KFWizardPane() = default;

KFWizardPane::~KFWizardPane() { delete contentView_; }

void KFWizardPane::awakeFromNib() { }
void KFWizardPane::didEnterPane(NSInteger) { }
void KFWizardPane::didExitPane(NSInteger) { }

bool KFWizardPane::shouldExitPane(NSInteger) { return true; }

bool KFWizardPane::showsHelp() const { return false; }

void KFWizardPane::showHelp(QObject*) { }

void KFWizardPane::showAlertOnMainThread(const Ref<NSAlert>& alert)
{
    if (alert && contentView_)
        alert->beginSheetModalForWindow(contentView_->window(), {});
}

QString KFWizardPane::interfaceName() const { return QString::fromLatin1(metaObject()->className()); }

bool KFWizardPane::loadInterface(const Ref<NSBundle>& bundle, QString* problem)
{
    const QString name = interfaceName();
    const Ref<NSString> path = bundle ? bundle->pathForResource(kf::toNSString(name), "ui"_ns) : nullptr;
    if (!path) {
        *problem = tr("The interface file %1.ui is missing.").arg(name);
        return false;
    }
    interface_ = kf::loadInterfaceFile(
        kf::toQString(path),
        [this](const QString& className, QWidget* parent) { return createView(className, parent); }, problem);
    if (!interface_)
        return false;
    kf::Outlets outlets(interface_.get());
    setContentView(outlets.find<QWidget>("contentView"));
    connectOutlets(outlets);
    if (!outlets.missing().isEmpty()) {
        *problem = tr("The interface file %1.ui lacks: %2.").arg(name, outlets.missing().join(QStringLiteral(", ")));
        return false;
    }
    awakeFromNib();
    return true;
}

QWidget* KFWizardPane::createView(const QString&, QWidget*) { return nullptr; }

void KFWizardPane::connectOutlets(kf::Outlets&) { }

void KFWizardPane::setContentView(QWidget* view) { contentView_ = view; }

void KFWizardPane::setNextEnabled(bool enabled)
{
    if (kf::PaneHost* host = host_)
        host->setNextEnabled(enabled);
}

void KFWizardPane::setPreviousEnabled(bool enabled)
{
    if (kf::PaneHost* host = host_)
        host->setPreviousEnabled(enabled);
}

void KFWizardPane::showMessage(const Ref<NSString>& message) { show(message, false); }

void KFWizardPane::showError(const Ref<NSString>& message) { show(message, true); }

void KFWizardPane::show(const Ref<NSString>& message, bool isError)
{
    QLabel* field = activeMessageField_;
    if (!field)
        return;
    kf::performOnMainThread([&] {
        const QString text = kf::toQString(message);
        field->setTextFormat(Qt::PlainText);
        field->setPalette(isError ? kf::errorPalette(*field) : QPalette());
        field->setText(text);
        // A screen reader says it without being asked.
        QAccessibleEvent alert(field, QAccessible::Alert);
        QAccessible::updateAccessibility(&alert);
        Q_EMIT messageShown(field, text, isError);
    });
}

QLabel* KFWizardPane::messageField() const
{
    kf::PaneHost* host = host_;
    return host ? host->messageField() : nullptr;
}

QProgressBar* KFWizardPane::progressIndicator() const
{
    kf::PaneHost* host = host_;
    return host ? host->progressIndicator() : nullptr;
}

void KFWizardPane::performBackgroundSelector(const kf::Selector& selector, const Ref<NSObject>& object,
    const Ref<NSString>& displayMessage, QProgressBar* progressIndicator, double timeout)
{
    if (kf::PaneHost* host = host_)
        host->runJob({selector, object, progressIndicator, timeout}, displayMessage);
}

Ref<NSObject> KFWizardPane::valueForField(const Ref<NSString>& key) const
{
    kf::PaneHost* host = host_;
    return host ? host->fields().valueForField(key) : nullptr;
}

void KFWizardPane::setValue(const Ref<NSObject>& value, const Ref<NSString>& forField)
{
    if (kf::PaneHost* host = host_)
        host->fields().setValue(value, forField);
}
