#include "Pane/KFInstallerPane.h"

#include "AppKit/NSWorkspace.h"
#include "AppKit/RTFReader.h"
#include "AppKit/Text.h"
#include "Foundation/NSBundle.h"
#include "Foundation/NSLog.h"
#include "KFWizard/KFWizardSection.h"
#include "KFWizard/PlugInInterface.h"
#include "Pane/KFInstallerPane+Private.h"
#include "Pane/PaneBundle.h"
#include "PaneConfiguration.h"

#include <QDialog>
#include <QFontInfo>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTextLayout>

KFWIZARD_PANE(KFInstallerPane)

namespace {

constexpr double helpPanelGap = 15.0;
constexpr double helpMargin = 20.0;
/// The size, in points, of the help document's own text.
constexpr double helpTextSize = 10.5;

// The wizard's buttons must show their state before the work starts.
void displayIfNeeded(QWidget* view)
{
    if (view)
        view->window()->repaint();
}

void scale(QTextCharFormat& format, double factor)
{
    if (format.hasProperty(QTextFormat::FontPointSize))
        format.setFontPointSize(format.fontPointSize() * factor);
}

// A document has sizes of its own; whoever has the desktop's letters larger wants these larger, too.
void scaleSizes(QTextDocument& document, double factor)
{
    QTextCursor cursor(&document);
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        QTextCharFormat bullet = block.charFormat();
        scale(bullet, factor);
        cursor.setPosition(block.position());
        cursor.setBlockCharFormat(bullet);
        const auto formats = block.textFormats();
        for (const QTextLayout::FormatRange& range : formats) {
            QTextCharFormat format = range.format;
            scale(format, factor);
            cursor.setPosition(block.position() + range.start);
            cursor.setPosition(block.position() + range.start + range.length, QTextCursor::KeepAnchor);
            cursor.setCharFormat(format);
        }
    }
}

} // namespace

Ref<NSBundle> kf::paneBundle()
{
    static const char here = 0;
    return NSBundle::bundleForAddress(&here);
}

QWidget* KFInstallerPane::createView(const QString& className, QWidget* parent)
{
    return className == u"KFStatusView" ? new KFStatusView(parent) : nullptr;
}

void KFInstallerPane::connectOutlets(kf::Outlets& outlets)
{
    setAuthorityStatus(outlets.find<KFStatusView>("authorityStatus"));
    setPersonalStatus(outlets.find<KFStatusView>("personalStatus"));
    setCaMessages(outlets.find<QLabel>("caMessages"));
    setCertMessages(outlets.find<QLabel>("certMessages"));
    setHelpWindow(outlets.find<QDialog>("helpWindow"));
    setHelpText(outlets.find<QTextBrowser>("helpText"));
}

Ref<NSString> KFInstallerPane::title() const { return "Install Your Certificates"_ns; }

void KFInstallerPane::awakeFromNib()
{
    const Ref<NSBundle> bundle = kf::paneBundle();
    const Ref<NSString> path = bundle ? bundle->pathForResource("Help"_ns, "rtf"_ns) : nullptr;
    kf::readRTFDFromFile(helpText_, path);
    if (const double factor = QFontInfo(helpText_->font()).pointSizeF() / helpTextSize; factor > 1) {
        scaleSizes(*helpText_->document(), factor);
        helpWindow_->resize(helpWindow_->size() * factor);
    }
    helpText_->document()->setDocumentMargin(helpMargin);
    helpText_->document()->setIndentWidth(helpMargin);
    helpText_->setOpenLinks(false);
    connect(helpText_, &QTextBrowser::anchorClicked, this,
        [](const QUrl& link) { NSWorkspace::sharedWorkspace().openURL(kf::toNSString(link.toString())); });
}

void KFInstallerPane::didEnterPane(NSInteger)
{
    setNextEnabled(false);
    setPreviousEnabled(false);
    if (section())
        section()->setCommitSection(true);
    displayIfNeeded(contentView());
    Private::setState(this, -1, authorityStatus_);
    Private::setState(this, -1, personalStatus_);
    performJob(
        kf::selector("installCertificateAuthority", this, &KFInstallerPane::installCertificateAuthority), caMessages_);
    performJob(
        kf::selector("installPersonalCertificate", this, &KFInstallerPane::installPersonalCertificate), certMessages_);
    setActiveMessageField(messageField());
    setNextEnabled(true);
    if (personalStatus_->state() == 1) {
        showMessage("Your certificates were successfully installed"_ns);
        return;
    }
    if (section())
        section()->setFinalSection(true);
    showMessage("There was an error while installing your certificates"_ns);
}

void KFInstallerPane::performJob(const kf::Selector& selector, QLabel* messages)
{
    setActiveMessageField(messages);
    performBackgroundSelector(selector, nullptr, nullptr, progressIndicator(), -1.0);
}

void KFInstallerPane::didExitPane(NSInteger)
{
    for (QLabel* field : {caMessages_, certMessages_, messageField()}) {
        if (field)
            field->setText(QString());
    }
}

bool KFInstallerPane::showsHelp() const { return true; }

void KFInstallerPane::showHelp(QObject*)
{
    if (!helpWindow_ || !contentView() || helpWindow_->isVisible())
        return;
    QWidget* window = contentView()->window();
    if (helpWindow_->parentWidget() != window)
        helpWindow_->setParent(window, Qt::Tool);
    // Qt's screens grow downward: tops aligned means that the panel's y is the window's.
    const QRect frame = window->frameGeometry();
    helpWindow_->move(frame.x() + frame.width() + static_cast<int>(helpPanelGap), frame.y());
    helpWindow_->show();
    helpWindow_->raise();
}

bool KFInstallerPane::alertShowHelp(NSAlert*)
{
    return NSWorkspace::sharedWorkspace().openURL(NSString::stringWithUTF8String(kf::configuration::helpURL));
}

Ref<SFAuthorization> KFInstallerPane::authorize(Ref<NSError>* error)
{
    Ref<SFAuthorization> authorization = SFAuthorization::authorization();
    Ref<NSError> failure;
    const AuthorizationFlags flags =
        kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize;
    if (authorization->obtainWithRight("system.privilege.admin"_ns, flags, &failure))
        return authorization;
    NSLog("Authorization failure: %@", failure ? failure->localizedDescription() : nullptr);
    if (error)
        *error = failure;
    return nullptr;
}

Ref<SFAuthorization> KFInstallerPane::authorize() { return authorize(nullptr); }
