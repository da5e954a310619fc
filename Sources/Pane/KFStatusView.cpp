#include "Pane/KFStatusView.h"

#include "AppKit/Text.h"
#include "Pane/PaneBundle.h"

namespace {

constexpr int sphereSize = 32;

const Ref<NSString>& stateKey()
{
    static const Ref<NSString> key = "state"_ns;
    return key;
}

// Read when first drawn; the file "...@2x.png" beside it where pixels are small.
QIcon imageByReferencingFile(const QString& directory, const char* name)
{
    return QIcon(directory + QLatin1Char('/') + QLatin1String(name));
}

} // namespace

KFStatusView::KFStatusView(QWidget* parent) : QLabel(parent) { initialize(); }

KFStatusView::KFStatusView(const QRect& frame, QWidget* parent) : QLabel(parent)
{
    setGeometry(frame);
    initialize();
}

void KFStatusView::initialize()
{
    const Ref<NSBundle> bundle = kf::paneBundle();
    const QString resources = bundle ? kf::toQString(bundle->resourcePath()) : QString();
    onImage_ = imageByReferencingFile(resources, "sphere_green.png");
    mixedImage_ = imageByReferencingFile(resources, "sphere_gray.png");
    offImage_ = imageByReferencingFile(resources, "sphere_red.png");
    setAlignment(Qt::AlignCenter);
    setMinimumSize(sphereSize, sphereSize);
    setState(0);
}

void KFStatusView::setState(NSInteger state)
{
    state_ = state;
    observeValueForKeyPath(stateKey(), this, nullptr, nullptr);
}

void KFStatusView::observeValueForKeyPath(const Ref<NSString>& keyPath, QObject*, const Ref<NSDictionary>&, void*)
{
    if (!CFEqual(keyPath, stateKey()))
        return;
    if (state() == 0) {
        setImage(offImage_);
        setAccessibleDescription(tr("failed"));
    } else if (state() == 1) {
        setImage(onImage_);
        setAccessibleDescription(tr("succeeded"));
    } else {
        setImage(mixedImage_);
        setAccessibleDescription(tr("working"));
    }
}

void KFStatusView::setImage(const QIcon& image)
{
    setPixmap(image.pixmap(QSize(sphereSize, sphereSize), devicePixelRatioF()));
    setToolTip(accessibleDescription());
}
